#include "communication/serialportmap.h"

#include "core/settings.h"

namespace tessitor {
namespace {

constexpr int kHighestPort = 8; // the descriptor keeps ports 1..8

std::string Key(int nPort)
{
    return "COM" + std::to_string(nPort);
}

} // namespace

std::string SerialPortPath(int nPort, const Settings& settings)
{
    if (auto mapped = settings.Get(kSerialPortsSection, Key(nPort)); mapped && !mapped->empty())
        return *mapped;
    return "/dev/ttyS" + std::to_string(nPort - 1);
}

int SerialPortNumberFor(const std::string& path, Settings& settings)
{
    for (int n = 1; n <= kHighestPort; ++n)
        if (settings.GetString(kSerialPortsSection, Key(n)) == path)
            return n;
    for (int n = 1; n <= kHighestPort; ++n)
        if (!settings.Get(kSerialPortsSection, Key(n)) && path == "/dev/ttyS" + std::to_string(n - 1))
            return n;
    for (int n = 1; n <= kHighestPort; ++n)
        if (!settings.Get(kSerialPortsSection, Key(n))) {
            settings.Set(kSerialPortsSection, Key(n), path);
            return n;
        }
    settings.Set(kSerialPortsSection, Key(kHighestPort), path);
    return kHighestPort;
}

} // namespace tessitor
