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
#include <unistd.h>

#include <string>

#include "bench/benchturns.h"
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
    bench::CTurns floorTurns, linkTurns;
    std::string reply;
    std::string value;
    auto floorCommand = [&] { return floor.Command("PX\r", reply) && reply == "PX\r1234;"; };
    auto linkCommand = [&] { return link.SendCommandGetValue("PX", value, 1000) == 0 && value == "1234"; };
    bool linkFirst = false;
    for (auto _ : state) {
        bool ok = linkFirst ? linkTurns.Batch(kBatch, linkCommand) && floorTurns.Batch(kBatch, floorCommand)
                            : floorTurns.Batch(kBatch, floorCommand) && linkTurns.Batch(kBatch, linkCommand);
        if (!ok) {
            state.SkipWithError("a command failed");
            break;
        }
        linkFirst = !linkFirst;
    }
    link.Disconnect();
    if (floorTurns.Commands() == 0 || linkTurns.Commands() == 0)
        return;
    state.counters["floor_cmd/s"] = floorTurns.Rate();
    state.counters["link_cmd/s"] = linkTurns.Rate();
    state.counters["throughput_ratio"] = linkTurns.Rate() / floorTurns.Rate();
    state.counters["floor_cpu_us/cmd"] = floorTurns.CpuMicroseconds();
    state.counters["link_cpu_us/cmd"] = linkTurns.CpuMicroseconds();
    state.counters["cpu_ratio"] = linkTurns.CpuMicroseconds() / floorTurns.CpuMicroseconds();
}
BENCHMARK(BM_SerialLinkAgainstFloor)->UseRealTime()->MinTime(4.0)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
