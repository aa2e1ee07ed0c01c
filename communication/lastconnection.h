// The last connection that succeeded, kept in the user's settings as the
// command line keeps it: the one-line form under "CommunicationInfo" /
// "Last Success Connect", and beside it what that form cannot hold (a
// network device's host name and port). Also the words of a failed connect.
#pragma once

#include <optional>
#include <string>

#include "communication/communication.h"
#include "communication/linkfactory.h"

namespace tessitor {

/// The settings section and keys of the last connection that succeeded.
inline constexpr char kLastConnectSection[] = "CommunicationInfo";
inline constexpr char kLastConnectKey[] = "Last Success Connect";
inline constexpr char kLastConnectHostKey[] = "Last Success Host";
inline constexpr char kLastConnectPortKey[] = "Last Success Port";

/// "Create Communication Device Fault. " and why link's Connect returned
/// error (a system error number): the link's own words, else the device
/// and the system's text.
std::string ConnectFaultText(const CCommunication& link, int error);

/// A descriptor with what its link needs beside it.
struct CLastConnection {
    CCommunicationInfo info;
    LinkOptions options;
};

/// Stores info as the last connection (with options' TCP host and port,
/// and a serial path's port number); false with error filled when the settings file cannot be written.
bool SaveLastConnection(const CCommunicationInfo& info, const LinkOptions& options, std::string& error);

/// The last connection that succeeded; nothing when none is stored (error
/// left empty) or the stored line is malformed (error says so).
std::optional<CLastConnection> LoadLastConnection(std::string& error);

} // namespace tessitor
