// tessitor sim: serve a virtual drive on a pseudo-terminal, or three behind
// a network device on a TCP port, until SIGINT or SIGTERM. The first line
// of stdout is the device path (or HOST:PORT) a client opens.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
#include "sim/simtcpserver.h"
#include "ui/cli/clicontext.h"

namespace tessitor::cli {

namespace {

struct SimOptions {
    bool bSerial = false;
    std::string sTcp; // [HOST:]PORT of the network device face
    std::string sVersion;
    unsigned nPace = 0;
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

// The network device face: prints HOST:PORT, serves until SIGINT or SIGTERM.
int ServeTcp(const std::string& where, const std::string& product, const SimOptions& options,
             const std::vector<sim::FaultRule>& faults)
{
    if (options.nPace != 0 || !options.sFlash.empty())
        throw UsageError("--pace and --flash go with --serial");
    if (options.nMaxClients < 1)
        throw UsageError("--max-clients takes a number of 1 or more");
    std::string host = "127.0.0.1";
    std::string port = where;
    if (size_t colon = where.rfind(':'); colon != std::string::npos) {
        host = where.substr(0, colon);
        port = where.substr(colon + 1);
    }
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

    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    try {
        server->Start(host, static_cast<std::uint16_t>(number));
    } catch (const std::system_error& e) {
        throw ConnectError(std::string("tessitor sim: ") + e.what());
    }
    std::printf("%s:%u\n", server->Host().c_str(), server->Port());
    std::fflush(stdout);
    if (::isatty(STDERR_FILENO))
        std::fprintf(stderr, "tessitor sim: %s behind %s:%u; stop with Ctrl-C\n",
                     server->Drive("RS232 Port 1")->VersionString().c_str(), server->Host().c_str(), server->Port());

    int received = 0;
    while (sigwait(&stopSignals, &received) != 0) {
    }
    server->Stop();
    return 0;
}

} // namespace

void RegisterSimCommand(CLI::App& app, CCliContext& context)
{
    auto options = std::make_shared<SimOptions>();
    CLI::App* sub = app.add_subcommand("sim", "Serve a virtual drive on a pseudo-terminal or as a network device");
    sub->add_flag("--serial", options->bSerial, "Serve the serial face on a new pseudo-terminal");
    sub->add_option("--tcp", options->sTcp,
                    "Serve a network device with the drives \"RS232 Port 1\", \"RS232 Port 2\" and\n"
                    "\"CANopen Bus 1 NodeID 5\" on [HOST:]PORT (host 127.0.0.1 unless given; port 0: a free one)")
        ->type_name("[HOST:]PORT");
    sub->add_option("--firmware", options->sVersion,
                    "Version a.b.c.d of the product (default: its newest in versions.txt)")
        ->type_name("A.B.C.D");
    sub->add_option("--pace", options->nPace, "Make the wire as slow as BAUD (10 bits a byte); 0 = no limit")
        ->check(CLI::Range(0u, 100000000u).description(""))
        ->type_name("BAUD");
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
        "(default Talvina).\n\n"
        "Faults: KIND is drop, delay (ARG ms), wrong-echo, cut (ARG bytes kept), garbage (ARG text),\n"
        "error (ARG drive error number), and with --tcp also wrong-function-id, half-header and\n"
        "drop-connection; TARGET is N (the Nth command), /PATTERN (commands that\n"
        "start with PATTERN) or * (every command); \":once\" removes the fault after it fired.\n\n"
        "Examples:\n"
        "  tessitor sim --serial\n"
        "  tessitor sim --serial --product Bressa --pace 19200\n"
        "  tessitor sim --serial --fault drop:/SR --fault error:/MO:1\n"
        "  tessitor sim --serial --flash drive.flash\n"
        "  tessitor sim --tcp 0 --fault half-header:/SR:once\n"
        "  tessitor sim --tcp 0 --max-clients 4 --idle-timeout 60\n"
        "Then, from another terminal, with PATH or HOST:PORT as the sim printed it:\n"
        "  tessitor send --serial PATH VR\n"
        "  tessitor send --tcp HOST:PORT --target \"RS232 Port 2\" VR");
    context.SetAction(sub, [&context, options, maxClients, idleTimeout] {
        if (options->bSerial == !options->sTcp.empty())
            throw UsageError("choose one face to serve: --serial or --tcp [HOST:]PORT");
        if (options->bSerial && (maxClients->count() != 0 || idleTimeout->count() != 0))
            throw UsageError("--max-clients and --idle-timeout go with --tcp");
        if (context.m_Options.m_bSim || !context.m_Options.m_sSerialPath.empty() || !context.m_Options.m_sTcp.empty()
            || !context.m_Options.m_sConnLine.empty() || context.m_Options.m_bLast)
            throw UsageError("'sim' serves a drive; it takes no connection options");
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
        std::shared_ptr<sim::CSimDrive> drive;
        try {
            drive = options->sVersion.empty()
                        ? std::make_shared<sim::CSimDrive>(context.m_Options.m_sProduct)
                        : std::make_shared<sim::CSimDrive>(context.m_Options.m_sProduct, options->sVersion);
        } catch (const std::invalid_argument& e) {
            throw UsageError(e.what());
        } catch (const std::runtime_error& e) {
            throw ConnectError(std::string("tessitor sim: ") + e.what());
        }
        if (!options->sFlash.empty()) {
            CheckFlashWritable(options->sFlash);
            LoadFlash(*drive, options->sFlash);
        }

        // Block the stop signals before the serving thread starts, so that it
        // inherits the mask and only sigwait below sees them.
        sigset_t stopSignals;
        sigemptyset(&stopSignals);
        sigaddset(&stopSignals, SIGINT);
        sigaddset(&stopSignals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

        sim::CSimSerialServer server(drive);
        for (const sim::FaultRule& rule : faults)
            server.Faults().Add(rule);
        server.SetPace(options->nPace);
        try {
            server.Start();
        } catch (const std::system_error& e) {
            throw ConnectError(std::string("tessitor sim: ") + e.what());
        }
        std::printf("%s\n", server.SlavePath().c_str());
        std::fflush(stdout);
        if (::isatty(STDERR_FILENO))
            std::fprintf(stderr, "tessitor sim: %s on %s; stop with Ctrl-C\n", drive->VersionString().c_str(),
                         server.SlavePath().c_str());

        int received = 0;
        while (sigwait(&stopSignals, &received) != 0) {
        }
        server.Stop();
        if (!options->sFlash.empty() && !SaveFlash(*drive, options->sFlash)) {
            std::fprintf(stderr, "tessitor sim: cannot write %s: %s\n", options->sFlash.c_str(), std::strerror(errno));
            return 1;
        }
        return 0;
    });
}

} // namespace tessitor::cli
