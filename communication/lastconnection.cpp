#include "communication/lastconnection.h"

#include <cstring>
#include <filesystem>

#include "communication/serialportmap.h"
#include "communication/tcp.h"
#include "core/settings.h"

namespace tessitor {

namespace {

bool IsNetwork(const CCommunicationInfo& info)
{
    return info.GetKind() == kKindTcp || info.GetKind() == kKindTcpKmas;
}

// A path whose device comes and goes with one program (a pseudo-terminal,
// a link some tool made outside /dev).
bool IsOneOffPath(const std::string& path)
{
    std::string normal = std::filesystem::path(path).lexically_normal().string();
    return normal.rfind("/dev/", 0) != 0 || normal.rfind("/dev/pts/", 0) == 0 || normal == "/dev/ptmx"
           || normal == "/dev/tty";
}

} // namespace

std::string ConnectFaultText(const CCommunication& link, int error)
{
    std::string why = link.GetConnectError();
    if (why.empty())
        why = link.DeviceName() + ": " + std::strerror(error);
    return "Create Communication Device Fault. " + why;
}

CSerialPortName NameSerialPort(const std::string& path, const Settings& settings)
{
    // Whether mapping the path changes the map tells a known path from a new one.
    Settings probe = settings;
    CSerialPortName name;
    name.nPort = SerialPortNumberFor(path, probe);
    const std::string key = "COM" + std::to_string(name.nPort);
    const bool bKnown = probe.Get(kSerialPortsSection, key) == settings.Get(kSerialPortsSection, key);
    name.bRememberable = bKnown || !IsOneOffPath(path);
    return name;
}

bool SaveLastConnection(const CCommunicationInfo& info, const LinkOptions& options, std::string& error)
{
    // Read again now: another program may have changed the file meanwhile.
    Settings settings = Settings::User();
    if (!options.sSerialPath.empty()) {
        if (!NameSerialPort(options.sSerialPath, settings).bRememberable)
            return true;
        SerialPortNumberFor(options.sSerialPath, settings);
    }
    if (IsNetwork(info)) {
        if (options.sTcpHost.empty())
            settings.Remove(kLastConnectSection, kLastConnectHostKey);
        else
            settings.Set(kLastConnectSection, kLastConnectHostKey, options.sTcpHost);
        settings.Set(kLastConnectSection, kLastConnectPortKey, std::to_string(ResolveTcpPort(options.wTcpPort)));
    } else {
        settings.Remove(kLastConnectSection, kLastConnectHostKey);
        settings.Remove(kLastConnectSection, kLastConnectPortKey);
    }
    settings.Set(kLastConnectSection, kLastConnectKey, info.ToLine());
    if (settings.Save())
        return true;
    error = settings.SaveError();
    return false;
}

std::optional<CLastConnection> LoadLastConnection(std::string& error)
{
    Settings settings = Settings::User();
    auto line = settings.Get(kLastConnectSection, kLastConnectKey);
    if (!line || line->empty())
        return std::nullopt;
    CLastConnection last;
    if (std::string why; !last.info.FromLine(*line, &why)) {
        error = "the last connection in " + settings.Path() + " is malformed ('" + *line + "'): " + why;
        return std::nullopt;
    }
    if (IsNetwork(last.info)) {
        last.options.sTcpHost = settings.GetString(kLastConnectSection, kLastConnectHostKey);
        int port = settings.GetInt(kLastConnectSection, kLastConnectPortKey, 0);
        if (port > 0 && port <= 65535)
            last.options.wTcpPort = static_cast<std::uint16_t>(port);
    }
    return last;
}

} // namespace tessitor
