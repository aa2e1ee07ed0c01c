#include "ui/cli/connectionoptions.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <netdb.h>
#include <span>
#include <sys/socket.h>

#include "communication/lastconnection.h"
#include "communication/netprotocol.h"
#include "communication/tcp.h"
#include "core/settings.h"
#include "core/strformat.h"
#include "ui/cli/clierrors.h"
#include "ui/cli/textforms.h"

namespace tessitor::cli {
namespace {

// Options that mean something only beside certain kinds.
struct CompanionOption {
    const char* pszOption;
    std::vector<const char*> arKinds;
};

const std::vector<CompanionOption>& Companions()
{
    static const std::vector<CompanionOption> companions = {
        {"--baud", {"--serial", "--sim"}},
        {"--target", {"--tcp"}},
        {"--product", {"--sim"}},
        {"--node", {"--can"}},
        {"--bitrate", {"--can"}},
        {"--trace-frames", {"--can", "--conn", "--last"}},
    };
    return companions;
}

std::array<std::uint8_t, 4> ResolveHost(const std::string& host)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found); error != 0 || !found)
        throw Failure("tessitor: cannot resolve host '" + CutMiddle(host) + "': " + ::gai_strerror(error));
    // The descriptor holds an IPv4 address only; an IPv6 host is carried
    // by its name beside it.
    std::array<std::uint8_t, 4> bytes{};
    for (addrinfo* a = found; a; a = a->ai_next) {
        if (a->ai_family != AF_INET)
            continue;
        std::uint32_t address = ntohl(reinterpret_cast<sockaddr_in*>(a->ai_addr)->sin_addr.s_addr);
        bytes = {static_cast<std::uint8_t>(address >> 24), static_cast<std::uint8_t>(address >> 16),
                 static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address)};
        break;
    }
    ::freeaddrinfo(found);
    return bytes;
}

std::optional<std::uint64_t> ParseNumber(const std::string& text)
{
    if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    return std::stoull(text);
}

// HOST, HOST:PORT, [V6ADDR] or [V6ADDR]:PORT; a bare V6ADDR has no port.
void SplitHostPort(const std::string& text, std::string& host, std::uint16_t& port)
{
    std::string portText;
    if (!text.empty() && text.front() == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':'))
            throw UsageError("bad --tcp '" + CutMiddle(text) + "': [ADDRESS]:PORT is expected");
        host = text.substr(1, close - 1);
        if (close + 1 < text.size())
            portText = text.substr(close + 2);
        else
            return;
    } else if (std::count(text.begin(), text.end(), ':') == 1) {
        size_t colon = text.find(':');
        host = text.substr(0, colon);
        portText = text.substr(colon + 1);
    } else {
        host = text;
        return;
    }
    auto number = ParseNumber(portText);
    if (!number)
        throw UsageError("bad --tcp '" + CutMiddle(text) + "': the port is not a number");
    if (*number < 1 || *number > 65535)
        throw UsageError("bad --tcp '" + CutMiddle(text) + "': the port must be 1 to 65535");
    port = static_cast<std::uint16_t>(*number);
}

} // namespace

CLI::Validator NumberIn(std::uint64_t min, std::uint64_t max)
{
    return CLI::Validator(
        [min, max](std::string& text) -> std::string {
            auto number = ParseNumber(text);
            if (!number)
                return "'" + ForMessage(text) + "' is not a number";
            if (*number < min || *number > max)
                return StrFormat("%s is out of range %llu to %llu", text.c_str(), static_cast<unsigned long long>(min),
                                 static_cast<unsigned long long>(max));
            return {};
        },
        StrFormat("%llu..%llu", static_cast<unsigned long long>(min), static_cast<unsigned long long>(max)));
}

void CConnectionOptions::AddTo(CLI::App& app)
{
    const char* group = "Connection";
    app.add_option("--serial", m_sSerialPath, "Serial device path of the drive (e.g. /dev/ttyUSB0)")
        ->type_name("PATH")
        ->group(group);
    app.add_option("--baud", m_nBaud, "Baud rate of --serial (default 115200; rates without a termios constant "
                                      "are set through the custom-rate path)")
        ->type_name("N")
        ->check(NumberIn(kMinBaud, kMaxBaud))
        ->group(group);
    app.add_option("--conn", m_sConnLine,
                   "Connection in its one-line form (see 'tessitor conn encode'; the $'...' form is read too)")
        ->type_name("LINE")
        ->group(group);
    app.add_flag("--last", m_bLast, "The last connection that succeeded")->group(group);
    app.add_option("--tcp", m_sTcp,
                   "Network device HOST[:PORT] or [IPV6]:PORT that serves the drive (port: settings [TCP] Port, else "
                       + std::to_string(kDefaultTcpPort) + ")")
        ->type_name("HOST[:PORT]")
        ->group(group);
    app.add_option("--target", m_sTarget, "Drive behind the network device: \"RS232 Port N\" or \"CANopen Bus B NodeID N\"")
        ->type_name("NAME")
        ->group(group);
    AddCanOptionsTo(app, group);
    app.add_flag("--sim", m_bSim, "A virtual drive in this process, on a pseudo-terminal")->group(group);
    app.add_option("--product", m_sProduct, "Product of the --sim drive (default Talvina)")
        ->type_name("NAME")
        ->group(group);
    app.add_option("--timeout", m_nTimeoutMs, "Time-out of each command in milliseconds (default 1000)")
        ->type_name("MS")
        ->check(NumberIn(1, 3600000))
        ->group(group);
    app.add_flag("--no-echo-check", m_bNoEchoCheck, "Do not check the drive's echo (\"Don't Check Echo\")")
        ->group(group);
    app.add_flag("--yes", m_bYes, "Answer yes to questions when no terminal is there")->group("Answers");
    app.add_flag("--no", m_bNo, "Answer no to questions when no terminal is there")->group("Answers");
    m_arOptions = app.get_options(
        [](CLI::Option* o) { return o->get_group() == "Connection" || o->get_group() == "Answers"; });
}

bool CConnectionOptions::Given(const std::string& option) const
{
    for (const CLI::Option* o : m_arOptions)
        if (o->check_lname(option.substr(2)) && o->count() > 0)
            return true;
    return false;
}

std::vector<std::string> CConnectionOptions::GivenConnectionOptions() const
{
    std::vector<std::string> given;
    for (const CLI::Option* o : m_arOptions)
        if (o->get_group() == "Connection" && o->count() > 0)
            given.push_back(o->get_name());
    return given;
}

const std::vector<CConnectionOptions::Kind>& CConnectionOptions::Kinds()
{
    static const std::vector<Kind> kinds = {
        {"--serial", &CConnectionOptions::ResolveSerial},
        {"--can", &CConnectionOptions::ResolveCanKind},
        {"--conn", &CConnectionOptions::ResolveConnLine},
        {"--last", &CConnectionOptions::ResolveLast},
        {"--tcp", &CConnectionOptions::ResolveTcp},
        {"--sim", &CConnectionOptions::ResolveSim},
    };
    return kinds;
}

bool CConnectionOptions::KindGiven(const Kind& kind) const
{
    // m_bSim also stands for a command that runs on the embedded drive itself (demo).
    return Given(kind.pszOption) || (kind.pResolve == &CConnectionOptions::ResolveSim && m_bSim);
}

bool CConnectionOptions::AnyGiven() const
{
    return std::any_of(Kinds().begin(), Kinds().end(), [this](const Kind& kind) { return KindGiven(kind); });
}

ResolvedConnection CConnectionOptions::Resolve()
{
    std::vector<const Kind*> given;
    std::string names;
    for (const Kind& kind : Kinds()) {
        names += std::string(names.empty() ? "" : ", ") + kind.pszOption;
        if (KindGiven(kind))
            given.push_back(&kind);
    }
    if (given.size() > 1)
        throw UsageError(std::string("give one connection only, not both ") + given[0]->pszOption + " and "
                         + given[1]->pszOption);
    const std::string chosen = given.empty() ? std::string() : given[0]->pszOption;
    for (const CompanionOption& companion : Companions()) {
        if (!Given(companion.pszOption))
            continue;
        if (std::find(companion.arKinds.begin(), companion.arKinds.end(), chosen) != companion.arKinds.end())
            continue;
        std::string kindsText;
        for (const char* kind : companion.arKinds)
            kindsText += std::string(kindsText.empty() ? "" : " or ") + kind;
        throw UsageError(std::string(companion.pszOption) + " goes with " + kindsText
                         + (chosen.empty() ? std::string(", which is not given") : ", not with " + chosen));
    }
    if (given.empty())
        throw UsageError("no connection given: use one of " + names);

    Settings settings = Settings::User();
    if (!settings.LoadError().empty())
        throw Failure("tessitor: " + settings.LoadError());
    ResolvedConnection r = (this->*given[0]->pResolve)(settings);
    r.options.nTimeoutMs = m_nTimeoutMs;
    return r;
}

ResolvedConnection CConnectionOptions::ResolveSerial(Settings& settings)
{
    if (m_sSerialPath.empty())
        throw UsageError("--serial needs a device path");
    ResolvedConnection r;
    r.info.m_sCommType = "RS_232";
    r.info.wBaudRate = m_nBaud;
    r.options.sSerialPath = m_sSerialPath;
    r.info.nPort = static_cast<std::uint8_t>(NameSerialPort(m_sSerialPath, settings).nPort);
    return r;
}

CCommunicationInfo CConnectionOptions::ReadConnLine(const std::string& text)
{
    CCommunicationInfo info;
    std::string line, why = "it is not a $'...' word a shell would read";
    if (!ShellUnquoted(text, line) || !info.FromLine(line, &why))
        throw UsageError("malformed one-line form '" + CutMiddle(text) + "': " + why);
    return info;
}

ResolvedConnection CConnectionOptions::ResolveConnLine(Settings&)
{
    ResolvedConnection r;
    r.info = ReadConnLine(m_sConnLine);
    return r;
}

ResolvedConnection CConnectionOptions::ResolveLast(Settings&)
{
    std::string error;
    std::optional<CLastConnection> last = LoadLastConnection(error);
    if (!error.empty())
        throw Failure("tessitor: " + ForMessage(error, kMaxMessageBytes));
    if (!last)
        throw UsageError("no connection is remembered yet, so --last has nothing to use (a pseudo-terminal, a path "
                         "outside /dev and --sim are never remembered)");
    ResolvedConnection r;
    r.info = last->info;
    r.options = last->options;
    return r;
}

ResolvedConnection CConnectionOptions::ResolveTcp(Settings&)
{
    ResolvedConnection r;
    SplitHostPort(m_sTcp, r.options.sTcpHost, r.options.wTcpPort);
    if (r.options.sTcpHost.empty())
        throw UsageError("bad --tcp '" + CutMiddle(m_sTcp) + "': the host is missing");
    if (m_sTarget.empty())
        throw UsageError("--tcp needs --target \"RS232 Port N\" or \"CANopen Bus B NodeID N\"");
    int a = 0, b = 0;
    r.info.m_sCommType = "TCP";
    r.info.abIP = ResolveHost(r.options.sTcpHost);
    r.info.sDesc = m_sTarget;
    r.info.nType = std::sscanf(m_sTarget.c_str(), "CANopen Bus %d NodeID %d", &a, &b) == 2 ? 1 : 0;
    return r;
}

ResolvedConnection CConnectionOptions::ResolveCanKind(Settings&)
{
    ResolvedConnection r;
    ResolveCan(r.info);
    return r;
}

ResolvedConnection CConnectionOptions::ResolveSim(Settings&)
{
    ResolvedConnection r;
    r.info.m_sCommType = "RS_232";
    r.info.wBaudRate = m_nBaud;
    // A virtual drive is made anew each time: there is nothing to reach again.
    r.bRememberable = false;
    return r;
}

void CConnectionOptions::Remember(const ResolvedConnection& r)
{
    std::string error;
    if (r.bRememberable && !SaveLastConnection(r.info, r.options, error))
        std::fprintf(stderr, "tessitor: %s\n", ForMessage(error, kMaxMessageBytes).c_str());
}

} // namespace tessitor::cli
