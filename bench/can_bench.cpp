// The CAN link over SLCAN against the virtual drives on a CAN bus, unpaced
// and paced at 1000 kbit/s: SDO transfers (expedited per second, segmented
// bytes per second) and drive commands by transfer kind. Each figure comes
// with "bus ratio": the time the run's frames take on the bus (every frame
// with worst-case bit stuffing, as the paced bus sends it) over the run's
// time, so 1.0 is the bus limit and the paced figures show how close the
// link comes to it.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>

#include "can/can.h"
#include "sim/simslcanserver.h"

using namespace tessitor;

namespace {

constexpr double kBitsPerSecond = 1000000.0; // the bus's 1000 kbit/s
constexpr std::uint8_t kTalvinaNode = 5;     // a "DSP" drive
constexpr std::uint8_t kBressaNode = 6;      // a "BreNol" drive

// Bits of a standard data frame of n bytes with the most stuff bits it can need.
unsigned FrameBits(unsigned n)
{
    return 8 * n + 47 + (34 + 8 * n - 1) / 4;
}

// A bus with a Talvina and a Bressa behind an SLCAN pseudo-terminal, and a
// link to one node that counts the bits of every frame it sends and gets.
class CBench {
public:
    CBench(benchmark::State& state, std::uint8_t node)
    {
        m_Bus.AddNode(std::make_shared<sim::CSimDrive>("Talvina"), kTalvinaNode);
        m_Bus.AddNode(std::make_shared<sim::CSimDrive>("Bressa"), kBressaNode);
        m_Bus.SetPace(state.range(0) != 0);
        m_Bus.Start();
        CCommunicationInfo info;
        info.m_sCommType = "CAN";
        info.sManufacture = "SLCAN";
        info.sBoardType = m_Bus.SlavePath();
        info.mNodeID = node;
        info.mBaudRateIndex = 7;
        m_pLink = std::make_unique<CCan>(info);
        m_pLink->SetFrameMonitor([this](const CanFrame& frame, bool) { m_nBits += FrameBits(frame.nLength); });
        if (m_pLink->Connect() != 0) {
            state.SkipWithError(("cannot open the virtual bus: " + m_pLink->GetConnectError()).c_str());
            m_pLink.reset();
            return;
        }
        m_pLink->SetProcessorType(node == kBressaNode ? "BreNol" : "DSP");
    }
    ~CBench()
    {
        if (m_pLink)
            m_pLink->Disconnect();
    }
    CCan* Link() { return m_pLink.get(); }

    // Runs body once per iteration and reports units per second and the bus ratio.
    template <class Body>
    void Run(benchmark::State& state, const char* unit, double unitsPerIteration, Body body)
    {
        if (!m_pLink)
            return;
        body(); // the first transfer opens nothing later ones pay for
        m_nBits = 0;
        auto start = std::chrono::steady_clock::now();
        for (auto _ : state)
            body();
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.counters[unit] =
            benchmark::Counter(unitsPerIteration * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
        state.counters["bus ratio"] = static_cast<double>(m_nBits.load()) / kBitsPerSecond / seconds;
    }

private:
    sim::CSimSlcanServer m_Bus;
    std::unique_ptr<CCan> m_pLink;
    std::atomic<std::uint64_t> m_nBits{0};
};

// The text of the OS command object (0x1023 sub-index 1), long enough for
// many segments; the drive refuses it as a command, which costs nothing here.
const std::string kLongText(210, 'x');

} // namespace

static void BM_CanSdoExpeditedUpload(benchmark::State& state)
{
    CBench bench(state, kTalvinaNode);
    std::string data;
    bench.Run(state, "uploads/s", 1, [&] { bench.Link()->SdoUpload(0x1018, 1, data, 1000); });
}
BENCHMARK(BM_CanSdoExpeditedUpload)->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);

static void BM_CanSdoExpeditedDownload(benchmark::State& state)
{
    CBench bench(state, kTalvinaNode);
    bench.Run(state, "downloads/s", 1, [&] { bench.Link()->SdoDownload(0x1017, 0, std::string(2, '\0'), 1000); });
}
BENCHMARK(BM_CanSdoExpeditedDownload)->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);

static void BM_CanSdoSegmentedUpload(benchmark::State& state)
{
    CBench bench(state, kTalvinaNode);
    if (bench.Link())
        bench.Link()->SdoDownload(0x1023, 1, kLongText, 1000);
    std::string data;
    bench.Run(state, "bytes/s", static_cast<double>(kLongText.size()),
              [&] { bench.Link()->SdoUpload(0x1023, 1, data, 1000); });
}
BENCHMARK(BM_CanSdoSegmentedUpload)->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);

static void BM_CanSdoSegmentedDownload(benchmark::State& state)
{
    CBench bench(state, kTalvinaNode);
    bench.Run(state, "bytes/s", static_cast<double>(kLongText.size()),
              [&] { bench.Link()->SdoDownload(0x1023, 1, kLongText, 1000); });
}
BENCHMARK(BM_CanSdoSegmentedDownload)->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);

// Drive commands, one transfer kind each: the value-returning send as the
// command line's `send` uses it.
static void CanCommand(benchmark::State& state, std::uint8_t node, const char* command)
{
    CBench bench(state, node);
    std::string value;
    bench.Run(state, "commands/s", 1, [&] { bench.Link()->SendCommandGetValue(command, value, 1000); });
}
BENCHMARK_CAPTURE(CanCommand, BinaryQuery_KP2, kTalvinaNode, "KP[2]")
    ->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);
BENCHMARK_CAPTURE(CanCommand, BinaryAssignment_KP2, kTalvinaNode, "KP[2]=7")
    ->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);
BENCHMARK_CAPTURE(CanCommand, OsCommand_VR_Talvina, kTalvinaNode, "VR")
    ->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);
BENCHMARK_CAPTURE(CanCommand, SdoUpload_VR_Bressa, kBressaNode, "VR")
    ->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);
BENCHMARK_CAPTURE(CanCommand, SdoDownload_LD_Bressa, kBressaNode, "LD")
    ->Arg(0)->Arg(1)->ArgName("paced")->UseRealTime()->MinTime(1.0);
