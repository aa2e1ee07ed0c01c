// Command round trips per second over a pseudo-terminal against the
// fastest possible peer: the link's own overhead, without a drive's.
#include <benchmark/benchmark.h>

#include "communication/rs232.h"
#include "tests/support/scriptedpeer.h"

using namespace tessitor;

static void BM_SerialRoundTrip(benchmark::State& state)
{
    test::CScriptedPeer peer;
    peer.SetHandler([](const std::string& line) { return test::CScriptedPeer::Answer(line, "1234"); });
    CRs232 link{CCommunicationInfo{}};
    link.SetDevicePath(peer.Path());
    if (link.Connect() != 0) {
        state.SkipWithError("cannot open the pseudo-terminal");
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
BENCHMARK(BM_SerialRoundTrip)->UseRealTime()->MinTime(2.0);

BENCHMARK_MAIN();
