// Command round trips per second over loopback TCP against the virtual
// network device: the value request, the raw request under the shared
// transaction, and three drives behind one device used from three threads.
#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>
#include <vector>

#include "communication/tcp.h"
#include "sim/simtcpserver.h"

using namespace tessitor;

namespace {

CCommunicationInfo TcpTarget(const std::string& target)
{
    CCommunicationInfo info;
    info.m_sCommType = "TCP";
    info.abIP = {127, 0, 0, 1};
    info.sDesc = target;
    return info;
}

} // namespace

static void BM_TcpValueRoundTrip(benchmark::State& state)
{
    sim::CSimTcpServer device;
    device.Start();
    CTCP link(TcpTarget("RS232 Port 1"), device.Port());
    if (link.Connect() != 0) {
        state.SkipWithError("cannot reach the virtual network device");
        return;
    }
    std::string value;
    for (auto _ : state) {
        link.SendCommandGetValue("PX", value, 1000);
        benchmark::DoNotOptimize(value);
    }
    state.counters["commands/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    link.Disconnect();
}
BENCHMARK(BM_TcpValueRoundTrip)->UseRealTime()->MinTime(2.0);

static void BM_TcpRawRoundTrip(benchmark::State& state)
{
    sim::CSimTcpServer device;
    device.Start();
    CTCP link(TcpTarget("RS232 Port 1"), device.Port());
    if (link.Connect() != 0) {
        state.SkipWithError("cannot reach the virtual network device");
        return;
    }
    std::string reply;
    for (auto _ : state) {
        link.SendCommand("PX", reply, 1000, 0);
        benchmark::DoNotOptimize(reply);
    }
    state.counters["commands/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    link.Disconnect();
}
BENCHMARK(BM_TcpRawRoundTrip)->UseRealTime()->MinTime(2.0);

// Three drives behind one device, one thread each, one shared connection:
// the device's lock makes them take turns, so this shows its cost.
static void BM_TcpSharedDeviceThreeThreads(benchmark::State& state)
{
    sim::CSimTcpServer device;
    device.Start();
    std::vector<std::unique_ptr<CTCP>> links;
    for (const char* target : {"RS232 Port 1", "RS232 Port 2", "CANopen Bus 1 NodeID 5"}) {
        links.push_back(std::make_unique<CTCP>(TcpTarget(target), device.Port()));
        if (links.back()->Connect() != 0) {
            state.SkipWithError("cannot reach the virtual network device");
            return;
        }
    }
    constexpr int kPerThread = 500;
    std::int64_t commands = 0;
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (auto& link : links) {
            threads.emplace_back([&link] {
                std::string value;
                for (int i = 0; i < kPerThread; ++i)
                    link->SendCommandGetValue("PX", value, 1000);
            });
        }
        for (auto& thread : threads)
            thread.join();
        commands += kPerThread * static_cast<std::int64_t>(links.size());
    }
    state.counters["commands/s"] = benchmark::Counter(static_cast<double>(commands), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_TcpSharedDeviceThreeThreads)->UseRealTime()->MinTime(2.0);
