#include "communication/lastconnection.h"

#include <cstring>

#include "communication/serialportmap.h"
#include "communication/tcp.h"
#include "core/settings.h"

namespace tessitor {

namespace {

bool IsNetwork(const CCommunicationInfo& info)
{
    return info.GetKind() == kKindTcp || info.GetKind() == kKindTcpKmas;
}

} // namespace

std::string ConnectFaultText(const CCommunication& link, int error)
{
    std::string why = link.GetConnectError();
    if (why.empty())
        why = link.DeviceName() + ": " + std::strerror(error);
    return "Create Communication Device Fault. " + why;
}

bool SaveLastConnection(const CCommunicationInfo& info, const LinkOptions& options, std::string& error)
{
    // Read again now: another program may have changed the file meanwhile.
    Settings settings = Settings::User();
    // A pseudo-terminal lives as long as one program: it gets no port number.
    if (!options.sSerialPath.empty() && options.sSerialPath.rfind("/dev/pts/", 0) != 0)
        SerialPortNumberFor(options.sSerialPath, settings);
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
    if (!last.info.FromLine(*line)) {
        error = "the last connection in " + settings.Path() + " is malformed: '" + *line + "'";
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
