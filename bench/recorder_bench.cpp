// The recorder's upload of a 4096-sample recording of two signals (position
// and velocity, 32-bit samples) from the virtual drive: over a serial line
// paced at 115200 baud, and over an SLCAN bus paced at 1000 kbit/s. Each
// beside the wire or bus limit measured from what the upload needed: the
// drive's bytes on the line, or the CAN frames on the bus at their longest.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "can/can.h"
#include "bench/pacedserialdrive.h"
#include "recorder/recorder.h"
#include "sim/simslcanserver.h"

using namespace tessitor;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSamples = 4096;
constexpr unsigned kBaud = 115200;
constexpr unsigned kBitsPerByte = 10; // start, eight data bits, stop
constexpr double kCanBitsPerSecond = 1e6;

// A standard frame of n data bytes at its longest, stuff bits included (55
// bits with none, 135 with eight); the bus carries one frame at a time.
double CanFrameBits(int n)
{
    return 55.0 + 10.0 * n;
}

// Records position and velocity on drive for kSamples samples through link,
// as the recorder does; the recorder, ready to upload, or null.
std::unique_ptr<CRecorder> Recorded(CCommunication& link)
{
    link.Identify();
    auto rec = CRecorder::Create(&link);
    if (!rec)
        return nullptr;
    rec->AddDisplay("Position");
    rec->AddDisplay("Velocity");
    rec->Settings().sLength = std::to_string(kSamples);
    rec->SetPollInterval(std::chrono::milliseconds(20));
        if (!rec->RunPhase(CRecorder::kPhaseClear) || !rec->RunPhase(CRecorder::kPhaseWait))
        return nullptr;
    return rec;
}

// The drive's bytes of one serial upload: per chunk the echoes of the
// window commands with their terminators, and the "BH" echo, answer and
// terminator (20 header characters and eight a sample).
double SerialDriveBytes()
{
    double bytes = 0;
    for (int display = 0; display < 2; ++display)
        for (int first = 0; first < kSamples; first += CCommunication::kRecordChunkSamples) {
            int last = std::min(first + CCommunication::kRecordChunkSamples, kSamples) - 1;
            bytes += static_cast<double>(("RP[8]=" + std::to_string(first) + "\r;").size());
            bytes += static_cast<double>(("RP[9]=" + std::to_string(last) + "\r;").size());
            bytes += static_cast<double>(std::string("BH=1\r;").size()) + 20 + 8.0 * (last - first + 1);
        }
    return bytes;
}

// The bits of one CAN upload: per signal "RP[8]=0" and "RP[9]=0" through
// the binary interpreter (an 8-byte request, a 4-byte reply each), then the
// SDO record: initiate request and response, and a request and a response
// per seven bytes of the "BH" text, all 8-byte frames.
double CanBits()
{
    const int record = 20 + 8 * kSamples;
    const int segments = (record + 6) / 7;
    const double window = 2 * (CanFrameBits(8) + CanFrameBits(4));
    return 2 * (window + (2.0 + 2.0 * segments) * CanFrameBits(8));
}

void Upload(benchmark::State& state, CRecorder& rec, double limitSeconds)
{
    auto start = Clock::now();
    for (auto _ : state) {
        if (!rec.RunPhase(CRecorder::kPhaseUpload)) {
            state.SkipWithError(("the upload failed: " + rec.LastError()).c_str());
            return;
        }
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    state.counters["uploads/s"] = static_cast<double>(state.iterations()) / seconds;
    state.counters["samples/s"] = 2.0 * kSamples * static_cast<double>(state.iterations()) / seconds;
    state.counters["of_limit"] = limitSeconds * static_cast<double>(state.iterations()) / seconds;
}

} // namespace

static void BM_RecorderUploadPaced115200(benchmark::State& state)
{
    bench::CPacedSerialDrive drive(kBaud);
    if (!drive.bConnected) {
        state.SkipWithError("cannot open the pseudo-terminal");
        return;
    }
    std::unique_ptr<CRecorder> rec = Recorded(drive.link);
    if (!rec) {
        state.SkipWithError("the drive did not record");
        return;
    }
    Upload(state, *rec, SerialDriveBytes() / (kBaud / static_cast<double>(kBitsPerByte)));
    rec.reset();
    drive.link.Disconnect();
}
BENCHMARK(BM_RecorderUploadPaced115200)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(2);

static void BM_RecorderUploadSlcan1000(benchmark::State& state)
{
    auto drive = std::make_shared<sim::CSimDrive>("Talvina");
    sim::CSimSlcanServer bus;
    bus.AddNode(drive, 1);
    bus.SetPace(true);
    bus.Start();
    CCommunicationInfo info;
    info.m_sCommType = "CAN";
    info.sManufacture = "SLCAN";
    info.sBoardType = bus.SlavePath();
    info.mNodeID = 1;
    info.mBaudRateIndex = 7; // 1000 kbit/s
    CCan link(info);
    if (link.Connect() != 0) {
        state.SkipWithError(("cannot open the bus: " + link.GetConnectError()).c_str());
        return;
    }
    std::unique_ptr<CRecorder> rec = Recorded(link);
    if (!rec) {
        state.SkipWithError("the drive did not record");
        return;
    }
    Upload(state, *rec, CanBits() / kCanBitsPerSecond);
    rec.reset();
    link.Disconnect();
}
BENCHMARK(BM_RecorderUploadSlcan1000)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(2);
