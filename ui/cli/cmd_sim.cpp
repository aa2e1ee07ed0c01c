// tessitor sim: serve a virtual drive on a pseudo-terminal, three behind a
// network device on a TCP port, or one or more on a CAN bus behind an SLCAN
// pseudo-terminal, until SIGINT or SIGTERM. The first line of stdout is the
// device path (or HOST:PORT) a client opens.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <system_error>

#include "core/trace.h"
#include "sim/simserialserver.h"
#include "sim/simslcanserver.h"
#include "sim/simtcpserver.h"
#include "ui/cli/clicontext.h"

namespace tessitor::cli {

namespace {

struct SimOptions {
    bool bSerial = false;
    std::string sTcp; // [HOST:]PORT of the network device face
    bool bSlcan = false;
    std::vector<std::string> arNodes; // N or N:PRODUCT of the CAN face
    unsigned nBitrate = 1000;
    std::string sVersion;
    std::string sPace;  // --pace as given
    bool bPace = false; // --pace given
    unsigned nPace = 0; // its BAUD (serial face)
    std::string sDuplex = "full";
    std::vector<std::string> arFaults;
    std::string sFlash;
    int nMaxClients = sim::SimTcpLimits{}.nMaxClients;
    int nIdleTimeoutS = sim::SimTcpLimits{}.nIdleTimeoutMs / 1000;
};

// A request stalled mid-frame is dropped after this long, or after the idle
// time-out when that is shorter [s].
constexpr int kStallTimeoutS = 10;

// Refuses, before anything is served, a flash file that could not be
// written at exit: a read-only file, or a folder where the temporary file
// that replaces it cannot be made. The probe leaves nothing behind.
void CheckFlashWritable(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
        if (!S_ISREG(st.st_mode))
            throw UsageError("the flash file " + path + " is not a regular file");
        // Root may write anything; a file nobody may write is still refused as read-only.
        if ((st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 || ::access(path.c_str(), W_OK) != 0)
            throw UsageError("the flash file " + path + " is read-only");
    }
    std::string probe = path + ".XXXXXX";
    int fd = ::mkstemp(probe.data());
    if (fd < 0)
        throw UsageError("the flash file " + path + " cannot be written: " + std::strerror(errno));
    ::close(fd);
    ::unlink(probe.c_str());
}

// Reads the flash image kept by an earlier run; an absent file is a fresh drive.
void LoadFlash(sim::CSimDrive& drive, const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return;
    std::vector<std::uint8_t> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!drive.SetFlash(image))
        throw UsageError("the flash file " + path + " does not fit " + drive.VersionString());
    drive.Execute("LD"); // a drive starts with the parameters of its flash
}

// Writes the flash through a temporary file, so an interrupted write keeps the old one.
bool SaveFlash(sim::CSimDrive& drive, const std::string& path)
{
    std::vector<std::uint8_t> image = drive.Flash();
    std::string temporary = path + ".XXXXXX";
    int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        return false;
    ::fchmod(fd, 0644);
    std::size_t done = 0;
    while (done < image.size()) {
        ssize_t n = ::write(fd, image.data() + done, image.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    bool ok = done == image.size() && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (ok && std::rename(temporary.c_str(), path.c_str()) == 0)
        return true;
    int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    return false;
}

// Blocks the stop signals before a serving thread starts, so that it
// inherits the mask and only WaitForStop sees them.
sigset_t BlockStopSignals()
{
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    return stopSignals;
}

void WaitForStop(const sigset_t& stopSignals)
{
    int received = 0;
    while (sigwait(&stopSignals, &received) != 0) {
    }
}

// Starts a face's server and prints the path its clients open as the first
// line of stdout; on a terminal, what serves there goes to stderr too.
template <typename Server>
void StartAndAnnounce(Server& server, const std::string& what)
{
    try {
        server.Start();
    } catch (const std::system_error& e) {
        throw ConnectError(std::string("tessitor sim: ") + e.what());
    }
    std::printf("%s\n", server.SlavePath().c_str());
    std::fflush(stdout);
    if (::isatty(STDERR_FILENO))
        std::fprintf(stderr, "tessitor sim: %s on %s; stop with Ctrl-C\n", what.c_str(), server.SlavePath().c_str());
}

std::shared_ptr<sim::CSimDrive> MakeDrive(const std::string& product, const std::string& version)
{
    try {
        return version.empty() ? std::make_shared<sim::CSimDrive>(product)
                               : std::make_shared<sim::CSimDrive>(product, version);
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    } catch (const std::runtime_error& e) {
        throw ConnectError(std::string("tessitor sim: ") + e.what());
    }
}

// The CAN face: drives as nodes on a bus behind an SLCAN pseudo-terminal.
int ServeSlcan(const std::string& product, const SimOptions& options, const std::vector<sim::FaultRule>& faults)
{
    if (!options.sPace.empty())
        throw UsageError("with --slcan, --pace takes no value: the bus is paced at --bitrate");
    if (!sim::CSimSlcanServer::IsBitrate(options.nBitrate))
        throw UsageError("bad --bitrate " + std::to_string(options.nBitrate)
                         + ": 10, 20, 50, 100, 125, 250, 500, 800 or 1000 kbit/s");
    std::vector<std::string> nodes = options.arNodes.empty() ? std::vector<std::string>{"1"} : options.arNodes;
    if (!options.sFlash.empty() && nodes.size() != 1)
        throw UsageError("--flash keeps the flash of one drive: give one --node");

    sim::CSimSlcanServer server;
    std::shared_ptr<sim::CSimDrive> first;
    for (const std::string& node : nodes) {
        // N, or N:PRODUCT for a node of another product than --product.
        std::size_t colon = node.find(':');
        std::string number = node.substr(0, colon);
        char* end = nullptr;
        long id = std::strtol(number.c_str(), &end, 10);
        if (number.empty() || *end != '\0' || id < sim::kMinNodeId || id > sim::kMaxNodeId)
            throw UsageError("bad --node '" + node + "': a node id 1 to 127, optionally :PRODUCT");
        bool own = colon != std::string::npos;
        auto drive = MakeDrive(own ? node.substr(colon + 1) : product, own ? "" : options.sVersion);
        try {
            server.AddNode(drive, static_cast<int>(id));
        } catch (const std::invalid_argument& e) {
            throw UsageError(e.what());
        }
        if (!first)
            first = drive;
    }
    if (!options.sFlash.empty()) {
        CheckFlashWritable(options.sFlash);
        LoadFlash(*first, options.sFlash);
    }
    for (const sim::FaultRule& rule : faults)
        server.AddFault(rule);
    server.SetBitrate(options.nBitrate);
    server.SetPace(options.bPace);

    sigset_t stopSignals = BlockStopSignals();
    StartAndAnnounce(server, std::to_string(nodes.size()) + " drive(s) on a " + std::to_string(options.nBitrate)
                                 + " kbit/s CAN bus" + (options.bPace ? " (paced)" : "") + " behind SLCAN");
    WaitForStop(stopSignals);
    server.Stop();
    if (!options.sFlash.empty() && !SaveFlash(*first, options.sFlash)) {
        std::fprintf(stderr, "tessitor sim: cannot write %s: %s\n", options.sFlash.c_str(), std::strerror(errno));
        return 1;
    }
    return 0;
}

// The network device face: prints HOST:PORT, serves until SIGINT or SIGTERM.
int ServeTcp(const std::string& where, const std::string& product, const SimOptions& options,
             const std::vector<sim::FaultRule>& faults)
{
    if (options.bPace || !options.sFlash.empty())
        throw UsageError("--pace and --flash go with --serial or --slcan");
    if (options.nMaxClients < 1)
        throw UsageError("--max-clients takes a number of 1 or more");
    std::string host = "127.0.0.1";
    std::string port = where;
    if (size_t colon = where.rfind(':'); colon != std::string::npos) {
        host = where.substr(0, colon);
        port = where.substr(colon + 1);
    }
    // An IPv6 address comes in brackets, as the client's --tcp takes it.
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    char* end = nullptr;
    long number = std::strtol(port.c_str(), &end, 10);
    if (host.empty() || port.empty() || *end != '\0' || number < 0 || number > 65535)
        throw UsageError("bad --tcp '" + where + "': [HOST:]PORT with PORT 0 to 65535 is expected");

    std::unique_ptr<sim::CSimTcpServer> server;
    try {
        server = std::make_unique<sim::CSimTcpServer>(product, options.sVersion);
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    } catch (const std::runtime_error& e) {
        throw ConnectError(std::string("tessitor sim: ") + e.what());
    }
    for (const sim::FaultRule& rule : faults)
        server->Faults().Add(rule);
    // Opened now: at the descriptor limit, when its lines matter most, the trace could not open.
    Trace::Enabled();
    sim::SimTcpLimits limits;
    limits.nMaxClients = options.nMaxClients;
    limits.nIdleTimeoutMs = options.nIdleTimeoutS * 1000;
    limits.nStallTimeoutMs =
        1000 * (options.nIdleTimeoutS > 0 ? std::min(options.nIdleTimeoutS, kStallTimeoutS) : kStallTimeoutS);
    server->SetLimits(limits);

    sigset_t stopSignals = BlockStopSignals();
    try {
        server->Start(host, static_cast<std::uint16_t>(number));
    } catch (const std::system_error& e) {
        throw ConnectError(std::string("tessitor sim: ") + e.what());
    }
    // HOST:PORT as --tcp takes it back: an IPv6 address in brackets.
    std::string served = server->Host();
    if (served.find(':') != std::string::npos)
        served = "[" + served + "]";
    served += ":" + std::to_string(server->Port());
    std::printf("%s\n", served.c_str());
    std::fflush(stdout);
    if (::isatty(STDERR_FILENO))
        std::fprintf(stderr, "tessitor sim: %s behind %s; stop with Ctrl-C\n",
                     server->Drive("RS232 Port 1")->VersionString().c_str(), served.c_str());

    WaitForStop(stopSignals);
    server->Stop();
    return 0;
}

} // namespace

void RegisterSimCommand(CLI::App& app, CCliContext& context)
{
    auto options = std::make_shared<SimOptions>();
    CLI::App* sub = app.add_subcommand("sim", "Serve a virtual drive on a pseudo-terminal, as a network device or on an SLCAN CAN bus");
    sub->add_flag("--serial", options->bSerial, "Serve the serial face on a new pseudo-terminal");
    sub->add_option("--tcp", options->sTcp,
                    "Serve a network device with the drives \"RS232 Port 1\", \"RS232 Port 2\" and\n"
                    "\"CANopen Bus 1 NodeID 5\" on [HOST:]PORT (host 127.0.0.1 unless given, an IPv6 one in brackets; port 0: a free one)")
        ->type_name("[HOST:]PORT");
    sub->add_option("--firmware", options->sVersion,
                    "Version a.b.c.d of the product (default: its newest in versions.txt)")
        ->type_name("A.B.C.D");
    sub->add_flag("--slcan", options->bSlcan,
                  "Serve drives on a CAN bus behind an SLCAN adapter on a new pseudo-terminal");
    sub->add_option("--node", options->arNodes,
                    "CANopen node id(s) of the --slcan drives, N or N:PRODUCT, comma-separated (default 1)")
        ->delimiter(',')
        ->type_name("N[,N...]");
    sub->add_option("--bitrate", options->nBitrate, "Bit rate of the --slcan bus in kbit/s (default 1000)")
        ->type_name("KBIT");
    CLI::Option* pace = sub->add_option("--pace", options->sPace,
                                        "Make the wire as slow as a real one: --serial at BAUD (10 bits a byte; 0 = no\n"
                                        "limit), --slcan at --bitrate (every frame with worst-case bit stuffing)")
                            ->expected(0, 1)
                            ->type_name("[BAUD]");
    CLI::Option* duplex =
        sub->add_option("--duplex", options->sDuplex,
                        "With --serial: full (RS-232, the default: each byte echoed as it arrives) or half\n"
                        "(RS-485: the answer, echo included, once the whole command is in; nothing overlaps)")
            ->check(CLI::IsMember({"full", "half"}))
            ->type_name("full|half");
    sub->add_option("--fault", options->arFaults,
                    "Inject a fault, KIND:TARGET[:ARG][:once] (repeatable), e.g. drop:3, delay:/PX:1500")
        ->take_all()
        ->type_name("FAULT");
    sub->add_option("--flash", options->sFlash,
                    "Keep the drive's flash (what SV saves) in FILE: loaded at start, written at exit")
        ->type_name("FILE");
    CLI::Option* maxClients = sub->add_option("--max-clients", options->nMaxClients,
                    "With --tcp: connections served at once; one more is closed at once (default 16)")
        ->type_name("N");
    CLI::Option* idleTimeout = sub->add_option("--idle-timeout", options->nIdleTimeoutS,
                    "With --tcp: close a connection that sent no request for SECONDS (default 600;\n"
                    "0 = never); a request stalled halfway is dropped after 10 s (or SECONDS if shorter)")
        ->check(CLI::Range(0, 86400 * 365).description(""))
        ->type_name("SECONDS");
    sub->footer(
        "Prints the pseudo-terminal's path (with --tcp: HOST:PORT) as the first line of stdout,\n"
        "then serves until interrupted (SIGINT or SIGTERM). The product is chosen with --product\n"
        "(default Talvina). With --slcan the pseudo-terminal is an SLCAN (Lawicel) adapter; the\n"
        "drives on its bus send their boot-up message when it first opens.\n\n"
        "Faults: KIND is drop, delay (ARG ms), wrong-echo, cut (ARG bytes kept), garbage (ARG text),\n"
        "error (ARG drive error number), and with --tcp also wrong-function-id, half-header,\n"
        "drop-connection and unasked-frame; TARGET is N (the Nth command), /PATTERN (commands that\n"
        "start with PATTERN) or * (every command); \":once\" removes the fault after it fired.\n"
        "With --slcan the faults act on every node: drop, delay, abort (ARG SDO abort code) and\n"
        "toggle (a segmented transfer repeats a toggle bit) on the answers to requests, which are\n"
        "named 0xINDEX.SUB for SDO (/0x1008, /0x1023.02) and by their command line for the binary\n"
        "interpreter (/KP[2]=7); error and busy (the OS command stays busy, ARG ms or for ever)\n"
        "on the command lines the drive runs (/SR).\n\n"
        "Examples:\n"
        "  tessitor sim --serial\n"
        "  tessitor sim --serial --product Bressa --pace 19200 --duplex half\n"
        "  tessitor sim --serial --fault drop:/SR --fault error:/MO:1\n"
        "  tessitor sim --serial --flash drive.flash\n"
        "  tessitor sim --tcp 0 --fault half-header:/SR:once\n"
        "  tessitor sim --tcp 0 --max-clients 4 --idle-timeout 60\n"
        "  tessitor sim --slcan --node 5,6:Bressa --pace --bitrate 500\n"
        "  tessitor sim --slcan --node 5 --fault abort:/0x1008:0x06040047 --fault busy:/SR\n"
        "Then, from another terminal, with PATH or HOST:PORT as the sim printed it:\n"
        "  tessitor send --serial PATH VR\n"
        "  tessitor send --tcp HOST:PORT --target \"RS232 Port 2\" VR\n"
        "  tessitor --can slcan:PATH --node 5 sdo upload 0x100A 0");
    context.SetAction(sub, [&context, options, maxClients, idleTimeout, pace, duplex] {
        if (options->bSerial + !options->sTcp.empty() + options->bSlcan != 1)
            throw UsageError("choose one face to serve: --serial, --tcp [HOST:]PORT or --slcan");
        if (options->sTcp.empty() && (maxClients->count() != 0 || idleTimeout->count() != 0))
            throw UsageError("--max-clients and --idle-timeout go with --tcp");
        if (!options->bSerial && duplex->count() != 0)
            throw UsageError("--duplex goes with --serial");
        if (context.m_Options.AnyGiven())
            throw UsageError("'sim' serves a drive; it takes no connection options");
        options->bPace = pace->count() > 0;
        if (!options->sPace.empty()) {
            char* end = nullptr;
            unsigned long baud = std::strtoul(options->sPace.c_str(), &end, 10);
            if (!std::isdigit(static_cast<unsigned char>(options->sPace[0])) || *end != '\0' || baud > 100000000ul)
                throw UsageError("bad --pace '" + options->sPace + "': a baud rate 0 to 100000000");
            options->nPace = static_cast<unsigned>(baud);
        } else if (options->bPace && options->bSerial) {
            throw UsageError("--pace needs the BAUD of the --serial line");
        }
        if (!options->bSlcan && (!options->arNodes.empty() || options->nBitrate != 1000))
            throw UsageError("--node and --bitrate go with --slcan");
        std::vector<sim::FaultRule> faults;
        for (const std::string& text : options->arFaults) {
            try {
                faults.push_back(sim::CSimFaults::Parse(text));
            } catch (const std::invalid_argument& e) {
                throw UsageError(e.what());
            }
        }
        if (!options->sTcp.empty())
            return ServeTcp(options->sTcp, context.m_Options.m_sProduct, *options, faults);
        if (options->bSlcan)
            return ServeSlcan(context.m_Options.m_sProduct, *options, faults);
        std::shared_ptr<sim::CSimDrive> drive = MakeDrive(context.m_Options.m_sProduct, options->sVersion);
        if (!options->sFlash.empty()) {
            CheckFlashWritable(options->sFlash);
            LoadFlash(*drive, options->sFlash);
        }

        sigset_t stopSignals = BlockStopSignals();
        sim::CSimSerialServer server(drive);
        for (const sim::FaultRule& rule : faults)
            server.Faults().Add(rule);
        server.SetPace(options->nPace);
        server.SetDuplex(options->sDuplex == "half" ? sim::SimDuplex::kHalf : sim::SimDuplex::kFull);
        StartAndAnnounce(server, drive->VersionString());
        WaitForStop(stopSignals);
        server.Stop();
        if (!options->sFlash.empty() && !SaveFlash(*drive, options->sFlash)) {
            std::fprintf(stderr, "tessitor sim: cannot write %s: %s\n", options->sFlash.c_str(), std::strerror(errno));
            return 1;
        }
        return 0;
    });
}

} // namespace tessitor::cli
