// Command round trips per second over loopback TCP against the virtual
// network device: the value request, the raw request under the shared
// transaction, and three drives behind one device used from three threads.
#include <benchmark/benchmark.h>

#include <memory>
#include <thread>
#include <vector>

#include "communication/tcp.h"
#include "sim/simtcpserver.h"

using namespace tessitor;

namespace {

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

void CountCommands(benchmark::State& state, std::int64_t commands)
{
    state.counters["commands/s"] = benchmark::Counter(static_cast<double>(commands), benchmark::Counter::kIsRate);
}

// One command at a time on "RS232 Port 1": send(link, reply) makes one round trip.
template <class Send>
void RoundTrips(benchmark::State& state, Send send)
{
    sim::CSimTcpServer device;
    device.Start();
    auto link = Connected(state, device, "RS232 Port 1");
    if (!link)
        return;
    std::string reply;
    for (auto _ : state) {
        send(*link, reply);
        benchmark::DoNotOptimize(reply);
    }
    CountCommands(state, state.iterations());
    link->Disconnect();
}

} // namespace

static void BM_TcpValueRoundTrip(benchmark::State& state)
{
    RoundTrips(state, [](CTCP& link, std::string& value) { link.SendCommandGetValue("PX", value, 1000); });
}
BENCHMARK(BM_TcpValueRoundTrip)->UseRealTime()->MinTime(2.0);

static void BM_TcpRawRoundTrip(benchmark::State& state)
{
    RoundTrips(state, [](CTCP& link, std::string& reply) { link.SendCommand("PX", reply, 1000, 0); });
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
        links.push_back(Connected(state, device, target));
        if (!links.back())
            return;
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
    CountCommands(state, commands);
}
BENCHMARK(BM_TcpSharedDeviceThreeThreads)->UseRealTime()->MinTime(2.0);
