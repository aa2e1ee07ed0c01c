// Serial port numbers and device paths. A descriptor names a port by number
// (1 = COM1); the settings section "SerialPorts" maps numbers to paths
// ("COM1=/dev/ttyUSB0"), and an unmapped number n means /dev/ttyS<n-1>.
#pragma once

#include <string>

namespace tessitor {

class Settings;

/// The settings section of the port map.
inline constexpr char kSerialPortsSection[] = "SerialPorts";

/// The device path of port number nPort.
std::string SerialPortPath(int nPort, const Settings& settings);
/// The port number that names path: its mapping, the /dev/ttyS<n-1> it is,
/// or a free number 1..8 newly mapped to it in settings (not saved).
int SerialPortNumberFor(const std::string& path, Settings& settings);

} // namespace tessitor
