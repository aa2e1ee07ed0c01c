// The serial link's own cost, measured against the floor (the least a
// program can do per command, bench/serialfloorclient.h) in the same run:
// batches of commands through each, taking turns, over pseudo-terminals to
// peers in a child process that answer each line at once. Reported as the
// link's throughput and CPU time per command, and their ratios to the
// floor's; the peers' work stays out of this process's CPU time.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "bench/serialfloorclient.h"
#include "communication/rs232.h"

using namespace tessitor;

namespace {

// A drive in a child process on a pseudo-terminal: "PX\r" is answered
// "PX\r1234;" at once.
class CChildPeer {
public:
    CChildPeer()
    {
        int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0)
            return;
        m_sPath = ::ptsname(master);
        // Held open so the line never hangs up between clients.
        m_hKeepSlave = ::open(m_sPath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios tio{};
        ::tcgetattr(m_hKeepSlave, &tio);
        ::cfmakeraw(&tio);
        ::tcsetattr(m_hKeepSlave, TCSANOW, &tio);
        m_nPid = ::fork();
        if (m_nPid == 0)
            Serve(master);
        ::close(master);
    }
    ~CChildPeer()
    {
        if (m_nPid > 0) {
            ::kill(m_nPid, SIGKILL);
            ::waitpid(m_nPid, nullptr, 0);
        }
        if (m_hKeepSlave >= 0)
            ::close(m_hKeepSlave);
    }
    bool Ok() const { return m_nPid > 0 && m_hKeepSlave >= 0; }
    const std::string& Path() const { return m_sPath; }

private:
    [[noreturn]] static void Serve(int master)
    {
        std::string pending;
        char chunk[512];
        for (;;) {
            ssize_t n = ::read(master, chunk, sizeof chunk);
            if (n <= 0) {
                pollfd p{master, POLLIN, 0};
                ::poll(&p, 1, 100);
                continue;
            }
            pending.append(chunk, static_cast<size_t>(n));
            for (size_t end; (end = pending.find('\r')) != std::string::npos;) {
                std::string answer = pending.substr(0, end + 1) + "1234;";
                pending.erase(0, end + 1);
                [[maybe_unused]] ssize_t written = ::write(master, answer.data(), answer.size());
            }
        }
    }

    std::string m_sPath;
    int m_hKeepSlave = -1;
    pid_t m_nPid = -1;
};

double ProcessCpuSeconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double WallSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Totals {
    double dWall = 0;
    double dCpu = 0;
    std::int64_t nCommands = 0;
};

// Runs batch commands through send(), adding its wall and CPU time to totals.
template <class Send>
bool Batch(Totals& totals, int batch, Send send)
{
    double wall = WallSeconds();
    double cpu = ProcessCpuSeconds();
    for (int i = 0; i < batch; ++i)
        if (!send())
            return false;
    totals.dCpu += ProcessCpuSeconds() - cpu;
    totals.dWall += WallSeconds() - wall;
    totals.nCommands += batch;
    return true;
}

} // namespace

static void BM_SerialLinkAgainstFloor(benchmark::State& state)
{
    CChildPeer floorPeer;
    CChildPeer linkPeer;
    if (!floorPeer.Ok() || !linkPeer.Ok()) {
        state.SkipWithError("cannot make the pseudo-terminal peers");
        return;
    }
    bench::CSerialFloorClient floor(floorPeer.Path());
    CRs232 link{CCommunicationInfo{}};
    link.SetDevicePath(linkPeer.Path());
    if (link.Connect() != 0) {
        state.SkipWithError("cannot open the pseudo-terminal");
        return;
    }
    constexpr int kBatch = 200;
    Totals floorTotals, linkTotals;
    std::string reply;
    std::string value;
    auto floorCommand = [&] { return floor.Command("PX\r", reply) && reply == "PX\r1234;"; };
    auto linkCommand = [&] { return link.SendCommandGetValue("PX", value, 1000) == 0 && value == "1234"; };
    bool linkFirst = false;
    for (auto _ : state) {
        // Taking turns spreads the machine's changing load over both alike.
        bool ok = linkFirst ? Batch(linkTotals, kBatch, linkCommand) && Batch(floorTotals, kBatch, floorCommand)
                            : Batch(floorTotals, kBatch, floorCommand) && Batch(linkTotals, kBatch, linkCommand);
        if (!ok) {
            state.SkipWithError("a command failed");
            break;
        }
        linkFirst = !linkFirst;
    }
    link.Disconnect();
    if (floorTotals.nCommands == 0 || linkTotals.nCommands == 0)
        return;

    const double floorRate = static_cast<double>(floorTotals.nCommands) / floorTotals.dWall;
    const double linkRate = static_cast<double>(linkTotals.nCommands) / linkTotals.dWall;
    const double floorCpu = floorTotals.dCpu / static_cast<double>(floorTotals.nCommands) * 1e6;
    const double linkCpu = linkTotals.dCpu / static_cast<double>(linkTotals.nCommands) * 1e6;
    state.counters["floor_cmd/s"] = floorRate;
    state.counters["link_cmd/s"] = linkRate;
    state.counters["throughput_ratio"] = linkRate / floorRate;
    state.counters["floor_cpu_us/cmd"] = floorCpu;
    state.counters["link_cpu_us/cmd"] = linkCpu;
    state.counters["cpu_ratio"] = linkCpu / floorCpu;
}
BENCHMARK(BM_SerialLinkAgainstFloor)->UseRealTime()->MinTime(4.0)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
