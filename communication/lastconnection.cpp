#include "communication/lastconnection.h"

#include <cerrno>
#include <cstring>

#include "communication/serialportmap.h"
#include "core/settings.h"

namespace tessitor {

std::string ConnectFaultText(const CCommunication& link, const LinkOptions& options, int error)
{
    const CCommunicationInfo& info = link.GetInfo();
    const std::string fault = "Create Communication Device Fault. ";
    if (info.GetKind() == kKindCan)
        return fault + link.GetConnectError();
    std::string where = options.sSerialPath.empty() ? info.GetDisplayText() : options.sSerialPath;
    std::string why;
    if (info.GetKind() == kKindTcp || info.GetKind() == kKindTcpKmas)
        why = error == 3 ? "the network device cannot be reached" : "the network device has no drive '" + info.sDesc + "'";
    else
        why = std::strerror(error);
    return fault + where + ": " + why;
}

bool SaveLastConnection(const CCommunicationInfo& info, const LinkOptions& options, std::string& error)
{
    Settings settings = Settings::User();
    if (!options.sSerialPath.empty())
        SerialPortNumberFor(options.sSerialPath, settings);
    // The one-line form has no TCP port: keep the one given so the last
    // connection finds it again.
    if (options.wTcpPort != 0)
        settings.Set("TCP", "Port", std::to_string(options.wTcpPort));
    settings.Set(kLastConnectSection, kLastConnectKey, info.ToLine());
    if (settings.Save())
        return true;
    error = "cannot write " + settings.Path() + ": " + std::strerror(errno);
    return false;
}

std::optional<CCommunicationInfo> LoadLastConnection(std::string& error)
{
    auto line = Settings::User().Get(kLastConnectSection, kLastConnectKey);
    if (!line || line->empty())
        return std::nullopt;
    CCommunicationInfo info;
    if (!info.FromLine(*line)) {
        error = "the last connection in " + Settings::UserPath() + " is malformed: '" + *line + "'";
        return std::nullopt;
    }
    return info;
}

} // namespace tessitor
