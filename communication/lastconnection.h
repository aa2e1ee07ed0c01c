// The connection steps every front end shares: the words of a failed
// connect, and the last connection that succeeded, kept in the user's
// settings ("CommunicationInfo", "Last Success Connect") in the one-line form.
#pragma once

#include <optional>
#include <string>

#include "communication/communication.h"
#include "communication/linkfactory.h"

namespace tessitor {

/// The settings section and key of the last connection that succeeded.
inline constexpr char kLastConnectSection[] = "CommunicationInfo";
inline constexpr char kLastConnectKey[] = "Last Success Connect";

/// The message for a Connect of link that returned error (a system error
/// number), beginning "Create Communication Device Fault. ".
std::string ConnectFaultText(const CCommunication& link, const LinkOptions& options, int error);

/// Stores info (and what only options know: the serial path's port number,
/// a TCP port) as the last connection; false with error filled when the
/// settings file cannot be written.
bool SaveLastConnection(const CCommunicationInfo& info, const LinkOptions& options, std::string& error);

/// The last connection that succeeded; nothing when none is stored (error
/// left empty) or the stored line is malformed (error says so).
std::optional<CCommunicationInfo> LoadLastConnection(std::string& error);

} // namespace tessitor
