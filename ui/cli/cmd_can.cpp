// The CAN face of the command line: the --can, --node, --bitrate and
// --trace-frames connection options, and `tessitor can dump`, which prints
// every frame on the bus with a CANopen reading of it until interrupted.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "can/can.h"
#include "can/canadapterchoice.h"
#include "can/canopenreading.h"
#include "core/settings.h"
#include "core/strformat.h"
#include "ui/cli/clicontext.h"

namespace tessitor::cli {
namespace {

constexpr unsigned kDefaultBitrateKbit = 1000;
constexpr int kDumpPollMs = 200; // how often dump looks whether the adapter went away

// Time stamps count seconds from the first frame shown.
std::string TimedFrame(const CanFrame& frame, const char* direction)
{
    static const auto start = frame.tStamp;
    double seconds = std::chrono::duration<double>(frame.tStamp - start).count();
    return StrFormat("(%.6f) %s%s", seconds, direction, FormatCanFrame(frame).c_str());
}

std::uint8_t BitRateIndex(unsigned kbit)
{
    // Validation keeps only indices 0..7, so 800 kbit/s is not offered.
    for (std::uint8_t i = 0; i < 8; ++i)
        if (std::to_string(kbit) == g_szCanBitRates[i])
            return i;
    throw UsageError("--bitrate " + std::to_string(kbit) + " is not one of 10, 20, 50, 100, 125, 250, 500, 1000");
}

CanAdapterChoice ParseCan(const std::string& text)
{
    CanAdapterChoice choice;
    if (!choice.FromName(text))
        throw UsageError("--can '" + text + "': slcan:PATH or socketcan:IFACE is expected");
    return choice;
}

} // namespace

void CConnectionOptions::AddCanOptionsTo(CLI::App& app, const char* group)
{
    app.add_option("--can", m_sCan, "CAN adapter: slcan:PATH (a serial SLCAN adapter) or socketcan:IFACE")
        ->type_name("ADAPTER")
        ->group(group);
    app.add_option("--node", m_nNode, "CANopen node id of the drive, 1..127 (with --can)")
        ->type_name("N")
        ->check(NumberIn(1, kMaxNodeId))
        ->group(group);
    app.add_option("--bitrate", m_nBitrateKbit, "CAN bit rate in kbit/s: 10, 20, 50, 100, 125, 250, 500, 1000")
        ->default_val(kDefaultBitrateKbit)
        ->type_name("KBIT")
        ->group(group);
    app.add_flag("--trace-frames", m_bTraceFrames, "Print every CAN frame sent (TX) and received (RX) on stderr (a CAN link: --can, or --conn/--last of one)")
        ->group(group);
}

void CConnectionOptions::ResolveCan(CCommunicationInfo& info)
{
    if (m_nNode == 0)
        throw UsageError("--can needs --node N (1..127)");
    CanAdapterChoice choice = ParseCan(m_sCan);
    info.m_sCommType = "CAN";
    info.mNodeID = static_cast<std::uint8_t>(m_nNode);
    info.mBaudRateIndex = BitRateIndex(m_nBitrateKbit);
    Settings settings = Settings::User();
    SetCanAdapter(info, choice, settings);
    // A device path too long for the descriptor got a board key: keep it,
    // so the one-line form and --last can name the device again.
    if (info.sBoardType != choice.sDevice && !settings.Save())
        std::fprintf(stderr, "tessitor: cannot write %s: %s\n", settings.Path().c_str(), std::strerror(errno));
}

void CConnectionOptions::PrepareCanLink(CCommunication& link)
{
    if (!m_bTraceFrames)
        return;
    auto* can = dynamic_cast<CCan*>(&link);
    if (!can)
        throw UsageError("--trace-frames needs a CAN connection; this one is " + link.GetInfo().m_sCommType);
    auto lock = std::make_shared<std::mutex>();
    can->SetFrameMonitor([lock](const CanFrame& frame, bool bSent) {
        std::lock_guard guard(*lock);
        std::fprintf(stderr, "%s\n", TimedFrame(frame, bSent ? "TX " : "RX ").c_str());
    });
}

void RegisterCanCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* can = app.add_subcommand("can", "Watch a CAN bus");
    can->require_subcommand(1);
    can->footer("Example:\n  tessitor can dump --can slcan:/dev/ttyACM0 --bitrate 500");
    CLI::App* dump = can->add_subcommand("dump", "Print every frame on the bus with its CANopen reading");
    dump->footer("Prints one line a frame until interrupted (Ctrl-C):\n"
                 "  (SECONDS) ID#DATA  READING\n"
                 "with the seconds since the first frame, the frame in the ID#DATA notation and what it\n"
                 "means in CANopen (NMT, SYNC, EMCY, heartbeat, PDO, SDO request or response, abort).\n"
                 "--node N shows only the frames of node N; without it every frame is shown.\n\n"
                 "Examples:\n"
                 "  tessitor can dump --can slcan:/dev/ttyACM0 --bitrate 500\n"
                 "  tessitor can dump --can socketcan:can0 --node 5");
    context.SetAction(dump, [&context] {
        CConnectionOptions& options = context.m_Options;
        if (options.m_sCan.empty())
            throw UsageError("can dump needs --can slcan:PATH or --can socketcan:IFACE");
        CanAdapterChoice choice = ParseCan(options.m_sCan);
        std::uint8_t bitRate = BitRateIndex(options.m_nBitrateKbit);
        std::uint8_t node = static_cast<std::uint8_t>(options.m_nNode);

        // Ctrl-C (or SIGTERM) ends the wait below, not the program.
        CSignalThread::CStopRequest stop;

        std::shared_ptr<CCanAdapter> adapter = AcquireCanAdapter(choice);
        adapter->AttachNode(node);
        std::mutex output;
        int monitor = adapter->AddMonitor([&output, node](const CanFrame& frame, bool bSent) {
            if (bSent || (node != 0 && (frame.bExtended || (frame.nId & kCobNodeMask) != node)))
                return;
            std::string reading = ReadCanOpenFrame(frame);
            std::lock_guard guard(output);
            std::printf("%-32s %s\n", TimedFrame(frame, "").c_str(), reading.c_str());
            std::fflush(stdout);
        });
        if (int error = adapter->Open(bitRate)) {
            adapter->RemoveMonitor(monitor);
            (void)error;
            throw ConnectError("Create Communication Device Fault. " + choice.Name() + ": " + adapter->LastError());
        }
        while (!stop.Wait(std::chrono::milliseconds(kDumpPollMs))) {
            if (!adapter->IsOpen()) {
                adapter->RemoveMonitor(monitor);
                throw ConnectError("tessitor can dump: " + choice.Name() + " went away: " + adapter->LastError());
            }
        }
        adapter->RemoveMonitor(monitor);
        adapter->Close();
        return 0;
    }, CommandUse::kConnection);
    RegisterCanScanCommand(*can, context, ParseCan, BitRateIndex);
}

} // namespace tessitor::cli
