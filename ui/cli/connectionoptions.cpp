#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <sys/socket.h>

#include "communication/netprotocol.h"
#include "communication/serialportmap.h"
#include "core/settings.h"
#include "sim/simserialserver.h"
#include "ui/cli/clicontext.h"

namespace tessitor::cli {
namespace {

constexpr char kSettingsSection[] = "CommunicationInfo";
constexpr char kSettingsKey[] = "Last Success Connect";

std::array<std::uint8_t, 4> ResolveIPv4(const std::string& host)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found); error != 0 || !found)
        throw UsageError("cannot resolve host '" + host + "': " + ::gai_strerror(error));
    std::uint32_t address = ntohl(reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr.s_addr);
    ::freeaddrinfo(found);
    return {static_cast<std::uint8_t>(address >> 24), static_cast<std::uint8_t>(address >> 16),
            static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address)};
}

} // namespace

void CConnectionOptions::AddTo(CLI::App& app)
{
    const char* group = "Connection";
    app.add_option("--serial", m_sSerialPath, "Serial device path of the drive (e.g. /dev/ttyUSB0)")->group(group);
    app.add_option("--baud", m_nBaud, "Baud rate of --serial")->default_val(115200)->group(group);
    app.add_option("--conn", m_sConnLine, "Connection in its one-line form (see 'tessitor conn encode')")
        ->group(group);
    app.add_flag("--last", m_bLast, "The last connection that succeeded")->group(group);
    app.add_option("--tcp", m_sTcp,
                   "Network device HOST[:PORT] that serves the drive (port: settings [TCP] Port, else "
                       + std::to_string(kDefaultTcpPort) + ")")
        ->group(group);
    app.add_option("--target", m_sTarget, "Drive behind the network device: \"RS232 Port N\" or \"CANopen Bus B NodeID N\"")
        ->group(group);
    AddCanOptionsTo(app, group);
    app.add_flag("--sim", m_bSim, "A virtual drive in this process, on a pseudo-terminal")->group(group);
    app.add_option("--product", m_sProduct, "Product of the --sim drive")->default_val("Talvina")->group(group);
    app.add_option("--timeout", m_nTimeoutMs, "Time-out of each command in milliseconds")
        ->default_val(1000)
        ->check(CLI::Range(1u, 3600000u))
        ->group(group);
    app.add_flag("--no-echo-check", m_bNoEchoCheck, "Do not check the drive's echo (\"Don't Check Echo\")")
        ->group(group);
    app.add_flag("--yes", m_bYes, "Answer yes to questions when no terminal is there")->group("Answers");
    app.add_flag("--no", m_bNo, "Answer no to questions when no terminal is there")->group("Answers");
}

bool CConnectionOptions::AnyGiven() const
{
    return !m_sSerialPath.empty() || !m_sConnLine.empty() || m_bLast || !m_sTcp.empty() || m_bSim || !m_sCan.empty();
}

std::pair<CCommunicationInfo, LinkOptions> CConnectionOptions::Resolve()
{
    int given = (!m_sSerialPath.empty()) + (!m_sConnLine.empty()) + m_bLast + (!m_sTcp.empty()) + m_bSim
        + (!m_sCan.empty());
    if (given == 0)
        throw UsageError("no connection given: use --serial PATH, --can ADAPTER --node N, --conn LINE, --last, "
                         "--tcp HOST[:PORT] or --sim");
    if (given > 1)
        throw UsageError("give one connection only: --serial, --can, --conn, --last, --tcp or --sim");
    if (!m_sTarget.empty() && m_sTcp.empty())
        throw UsageError("--target goes with --tcp");
    if (m_nNode != 0 && m_sCan.empty())
        throw UsageError("--node goes with --can");

    CCommunicationInfo info;
    LinkOptions options;
    if (!m_sSerialPath.empty() || m_bSim) {
        info.m_sCommType = "RS_232";
        info.wBaudRate = m_nBaud;
        if (!m_sSerialPath.empty()) {
            Settings settings = Settings::User();
            info.nPort = static_cast<std::uint8_t>(SerialPortNumberFor(m_sSerialPath, settings));
            options.sSerialPath = m_sSerialPath;
        }
    } else if (!m_sCan.empty()) {
        ResolveCan(info);
    } else if (!m_sConnLine.empty()) {
        if (!info.FromLine(m_sConnLine))
            throw UsageError("malformed one-line form: '" + m_sConnLine + "'");
    } else if (m_bLast) {
        auto line = Settings::User().Get(kSettingsSection, kSettingsKey);
        if (!line || line->empty())
            throw UsageError("no connection has succeeded yet, so --last has nothing to use");
        if (!info.FromLine(*line))
            throw UsageError("the last connection in " + Settings::UserPath() + " is malformed: '" + *line + "'");
    } else {
        std::string host = m_sTcp;
        if (size_t colon = m_sTcp.rfind(':'); colon != std::string::npos) {
            host = m_sTcp.substr(0, colon);
            std::string port = m_sTcp.substr(colon + 1);
            char* end = nullptr;
            long number = std::strtol(port.c_str(), &end, 10);
            if (port.empty() || *end != '\0' || number < 1 || number > 65535)
                throw UsageError("bad port in --tcp '" + m_sTcp + "'");
            options.wTcpPort = static_cast<std::uint16_t>(number);
        }
        if (m_sTarget.empty())
            throw UsageError("--tcp needs --target \"RS232 Port N\" or \"CANopen Bus B NodeID N\"");
        int a = 0, b = 0;
        info.m_sCommType = "TCP";
        info.abIP = ResolveIPv4(host);
        info.sDesc = m_sTarget;
        info.nType = std::sscanf(m_sTarget.c_str(), "CANopen Bus %d NodeID %d", &a, &b) == 2 ? 1 : 0;
    }
    return {info, options};
}

std::unique_ptr<CCommunication> CConnectionOptions::Connect(bool bIdentify)
{
    auto [info, options] = Resolve();
    if (m_bSim) {
        std::shared_ptr<sim::CSimDrive> drive;
        try {
            drive = std::make_shared<sim::CSimDrive>(m_sProduct);
        } catch (const std::invalid_argument& e) {
            throw UsageError(e.what());
        }
        auto server = std::make_shared<sim::CSimSerialServer>(drive);
        server->Start();
        options.sSerialPath = server->SlavePath();
        m_pEmbeddedDrive = server;
    }

    std::unique_ptr<CCommunication> link = CreateLink(info, options);
    link->SetCheckEcho(m_bNoEchoCheck ? 0 : 1);
    link->SetEchoMode(m_bNoEchoCheck ? 1 : 0);
    PrepareCanLink(*link);
    if (int error = link->Connect()) {
        if (info.GetKind() == kKindCan)
            throw ConnectError("Create Communication Device Fault. " + link->GetConnectError());
        std::string where = options.sSerialPath.empty() ? info.GetDisplayText() : options.sSerialPath;
        std::string why;
        if (info.GetKind() == kKindTcp || info.GetKind() == kKindTcpKmas)
            why = error == 3 ? "the network device cannot be reached" : "the network device has no drive '" + info.sDesc + "'";
        else
            why = std::strerror(error);
        throw ConnectError("Create Communication Device Fault. " + where + ": " + why);
    }
    if (bIdentify)
        link->Identify();

    if (!m_bSim) {
        Settings settings = Settings::User();
        if (!options.sSerialPath.empty())
            SerialPortNumberFor(options.sSerialPath, settings);
        // The one-line form has no TCP port: keep the one given so --last finds it.
        if (options.wTcpPort != 0)
            settings.Set("TCP", "Port", std::to_string(options.wTcpPort));
        settings.Set(kSettingsSection, kSettingsKey, info.ToLine());
        if (!settings.Save())
            std::fprintf(stderr, "tessitor: cannot write %s: %s\n", settings.Path().c_str(), std::strerror(errno));
    }
    return link;
}

} // namespace tessitor::cli
