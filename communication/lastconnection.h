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

class Settings;

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

/// The port number a descriptor gives serial path.
struct CSerialPortName {
    int nPort = 0;             ///< its number in the port map, or the one a save would map it to
    bool bRememberable = true; ///< a stored connection could reach the path again by that number
};
/// Names path by the port map of settings (left unchanged). A path the map
/// does not know yet is rememberable only when it is a lasting device under
/// /dev: a pseudo-terminal or a link elsewhere comes and goes with one
/// program, and its number would name another device later.
CSerialPortName NameSerialPort(const std::string& path, const Settings& settings);

/// Stores info as the last connection, with options' TCP host and port,
/// and maps a new serial path to its port number. A serial path that is
/// not rememberable (NameSerialPort) is not stored. False with error
/// filled when the settings file cannot be written.
bool SaveLastConnection(const CCommunicationInfo& info, const LinkOptions& options, std::string& error);

/// The last connection that succeeded; nothing when none is stored (error
/// left empty) or the stored line is malformed (error says where and why).
std::optional<CLastConnection> LoadLastConnection(std::string& error);

} // namespace tessitor
