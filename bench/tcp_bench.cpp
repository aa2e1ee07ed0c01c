// The TCP link against the virtual network device over loopback, measured
// against the floor (the least a program can do per command request,
// bench/tcpfloorclient.h) in the same run, taking turns: the value request
// (SendCommandGetValue), the raw request under the shared transaction
// (SendCommand), and three drives behind one device used from three
// threads at once on the one shared connection. Each command also runs
// through the virtual drive's model, for the floor as for the link.
#include <benchmark/benchmark.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "bench/benchturns.h"
#include "bench/tcpfloorclient.h"
#include "communication/tcp.h"
#include "sim/simtcpserver.h"

using namespace tessitor;

namespace {

constexpr int kBatch = 200;

// A link connected to the drive target behind device; null (and the
// benchmark marked as failed) when it cannot connect.
std::unique_ptr<CTCP> Connected(benchmark::State& state, const sim::CSimTcpServer& device, const std::string& target)
{
    CCommunicationInfo info;
    info.m_sCommType = "TCP";
    info.abIP = {127, 0, 0, 1};
    info.sDesc = target;
    auto link = std::make_unique<CTCP>(info, device.Port());
    if (link->Connect() == 0)
        return link;
    state.SkipWithError("cannot reach the virtual network device");
    return nullptr;
}

} // namespace

static void BM_TcpLinkAgainstFloor(benchmark::State& state)
{
    sim::CSimTcpServer device;
    device.Start();
    auto link = Connected(state, device, "RS232 Port 1");
    if (!link)
        return;
    bench::CTcpFloorClient floor(device.Port(), "RS232 Port 2");
    bench::CTurns floorTurns, valueTurns, rawTurns;
    std::string value;
    auto floorCommand = [&] { return floor.Command("PX", value); };
    auto valueCommand = [&] { return link->SendCommandGetValue("PX", value, 1000) == 0; };
    auto rawCommand = [&] { return link->SendCommand("PX", value, 1000, 0) == 0; };
    // Each in turn goes first, as the first after a switch of connection
    // finds the device's thread for it asleep.
    int first = 0;
    for (auto _ : state) {
        bool ok = true;
        for (int i = 0; i < 3 && ok; ++i) {
            switch ((first + i) % 3) {
            case 0: ok = floorTurns.Batch(kBatch, floorCommand); break;
            case 1: ok = valueTurns.Batch(kBatch, valueCommand); break;
            default: ok = rawTurns.Batch(kBatch, rawCommand); break;
            }
        }
        if (!ok) {
            state.SkipWithError("a command failed");
            break;
        }
        first = (first + 1) % 3;
    }
    link->Disconnect();
    state.counters["floor_cmd/s"] = floorTurns.Rate();
    state.counters["value_cmd/s"] = valueTurns.Rate();
    state.counters["value_ratio"] = valueTurns.Rate() / floorTurns.Rate();
    state.counters["raw_cmd/s"] = rawTurns.Rate();
    state.counters["raw_ratio"] = rawTurns.Rate() / floorTurns.Rate();
}
BENCHMARK(BM_TcpLinkAgainstFloor)->UseRealTime()->MinTime(3.0)->Unit(benchmark::kMillisecond);

// Three drives behind one device, one thread each, one shared connection:
// the device's lock makes them take turns, so this shows its cost against
// one floor client alone. The floor runs on a thread of its own too: a
// thread that is not the benchmark's main one is placed and woken
// differently by the scheduler, which alone moved the floor's rate by a
// factor of four on the loaded build machine.
static void BM_TcpSharedDeviceThreeThreads(benchmark::State& state)
{
    sim::CSimTcpServer device;
    device.Start();
    std::vector<std::unique_ptr<CTCP>> links;
    for (const char* target : {"RS232 Port 1", "RS232 Port 2", "CANopen Bus 1 NodeID 5"}) {
        links.push_back(Connected(state, device, target));
        if (!links.back())
            return;
    }
    bench::CTcpFloorClient floor(device.Port(), "RS232 Port 1");
    const int perTurn = kBatch * static_cast<int>(links.size());
    // Runs each job on a thread of its own; true when all succeeded.
    auto onThreads = [](const std::vector<std::function<bool()>>& jobs) {
        std::atomic<bool> ok{true};
        std::vector<std::thread> threads;
        for (const auto& job : jobs)
            threads.emplace_back([&ok, &job] {
                if (!job())
                    ok = false;
            });
        for (auto& thread : threads)
            thread.join();
        return ok.load();
    };
    std::vector<std::function<bool()>> floorJob{[&] {
        std::string value;
        for (int i = 0; i < perTurn; ++i)
            if (!floor.Command("PX", value))
                return false;
        return true;
    }};
    std::vector<std::function<bool()>> linkJobs;
    for (auto& link : links)
        linkJobs.emplace_back([&link] {
            std::string value;
            for (int i = 0; i < kBatch; ++i)
                if (link->SendCommandGetValue("PX", value, 1000) != 0)
                    return false;
            return true;
        });
    bench::CTurns floorTurns, sharedTurns;
    for (auto _ : state) {
        if (!floorTurns.Batch(1, [&] { return onThreads(floorJob); })
            || !sharedTurns.Batch(1, [&] { return onThreads(linkJobs); })) {
            state.SkipWithError("a command failed");
            break;
        }
    }
    // A turn is perTurn commands, for the floor as for the links together.
    state.counters["floor_cmd/s"] = floorTurns.Rate() * perTurn;
    state.counters["shared_cmd/s"] = sharedTurns.Rate() * perTurn;
    state.counters["shared_ratio"] = sharedTurns.Rate() / floorTurns.Rate();
}
BENCHMARK(BM_TcpSharedDeviceThreeThreads)->UseRealTime()->MinTime(3.0)->Unit(benchmark::kMillisecond);
