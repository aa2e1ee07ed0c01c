// The virtual drive's speed: commands a second through the client's serial
// link against the unpaced and the paced virtual drive on a pseudo-terminal,
// reported beside the wire limit of the paced line (what a real line of
// that baud rate and duplex could carry at best), the drive model on its
// own, and a query after the drive was left alone.
#include <benchmark/benchmark.h>

#include <chrono>

#include "communication/rs232.h"
#include "sim/simserialserver.h"

using namespace tessitor;

namespace {

// "SP\r" (3 bytes) is answered "SP\r100000;": the echo, then 7 bytes.
constexpr char kCommand[] = "SP";
constexpr double kCommandBytes = 3;
constexpr double kValueBytes = 7;

// Byte times one command takes on the line at best. Full duplex: the three
// bytes in, the echo of the carriage return, the value; half duplex: every
// byte both ways one after the other.
double BytesPerCommand(sim::SimDuplex duplex)
{
    return duplex == sim::SimDuplex::kFull ? kCommandBytes + 1 + kValueBytes : 2 * kCommandBytes + kValueBytes;
}

void RoundTrips(benchmark::State& state, unsigned baud, sim::SimDuplex duplex = sim::SimDuplex::kFull)
{
    auto drive = std::make_shared<sim::CSimDrive>("Talvina");
    sim::CSimSerialServer server(drive);
    server.SetPace(baud);
    server.SetDuplex(duplex);
    server.Start();
    CRs232 link{CCommunicationInfo{}};
    link.SetDevicePath(server.SlavePath());
    if (link.Connect() != 0) {
        state.SkipWithError("cannot open the pseudo-terminal");
        return;
    }
    std::string value;
    auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        link.SendCommandGetValue(kCommand, value, 2000);
        benchmark::DoNotOptimize(value);
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    double rate = static_cast<double>(state.iterations()) / seconds;
    state.counters["commands/s"] = rate;
    if (baud) {
        double wireLimit = baud / 10.0 / BytesPerCommand(duplex);
        state.counters["wire_limit/s"] = wireLimit;
        state.counters["of_wire_limit"] = rate / wireLimit;
    }
    link.Disconnect();
}

} // namespace

static void BM_SimUnpaced(benchmark::State& state)
{
    RoundTrips(state, 0);
}
BENCHMARK(BM_SimUnpaced)->UseRealTime()->MinTime(1.0);

// range(0) baud, range(1) 0 full duplex, 1 half duplex.
static void BM_SimPaced(benchmark::State& state)
{
    RoundTrips(state, static_cast<unsigned>(state.range(0)),
               state.range(1) ? sim::SimDuplex::kHalf : sim::SimDuplex::kFull);
}
BENCHMARK(BM_SimPaced)->ArgsProduct({{19200, 115200}, {0, 1}})->UseRealTime()->MinTime(2.0);

// The model alone: parse, check and answer, advancing the motor in real time.
static void BM_SimDriveExecute(benchmark::State& state)
{
    sim::CSimDrive drive("Talvina");
    drive.Execute("MO=1");
    for (auto _ : state)
        benchmark::DoNotOptimize(drive.Execute(kCommand));
    state.counters["commands/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SimDriveExecute)->UseRealTime();

// A query after the drive was left alone for range(0) seconds of simulated
// time, jogging, beside the same query to a drive at rest over the same
// time: catching up must not grow with the time left alone.
static void BM_SimQueryAfterUnattendedJog(benchmark::State& state)
{
    const double seconds = static_cast<double>(state.range(0));
    auto jogClock = std::make_shared<sim::CSimManualClock>();
    auto restClock = std::make_shared<sim::CSimManualClock>();
    sim::CSimDrive jogging("Talvina"), resting("Talvina");
    jogging.SetClock(jogClock);
    resting.SetClock(restClock);
    for (const char* command : {"MO=1", "JV=50000", "BG"})
        jogging.Execute(command);
    using Clock = std::chrono::steady_clock;
    Clock::duration jogTime{}, restTime{};
    for (auto _ : state) {
        jogClock->Advance(seconds);
        restClock->Advance(seconds);
        auto t0 = Clock::now();
        benchmark::DoNotOptimize(jogging.Execute("PX"));
        auto t1 = Clock::now();
        benchmark::DoNotOptimize(resting.Execute("PX"));
        auto t2 = Clock::now();
        jogTime += t1 - t0;
        restTime += t2 - t1;
    }
    auto perQuery = [&state](Clock::duration total) {
        return std::chrono::duration<double, std::micro>(total).count() / static_cast<double>(state.iterations());
    };
    state.counters["jogging_us"] = perQuery(jogTime);
    state.counters["at_rest_us"] = perQuery(restTime);
    state.counters["of_at_rest"] = perQuery(jogTime) / perQuery(restTime);
}
BENCHMARK(BM_SimQueryAfterUnattendedJog)->Arg(1)->Arg(60)->Arg(3600);
