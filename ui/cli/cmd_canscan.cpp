// `tessitor can scan`: which nodes answer on a CAN bus. Each node id in turn
// is asked for its device type (0x1000) with a short time-out; the nodes
// that answered are printed one a line, with progress on a terminal.
#include <atomic>
#include <cstdio>
#include <memory>

#include "can/canbusscan.h"
#include "can/canmessage.h"
#include "ui/cli/clicontext.h"
#include "ui/cli/statusline.h"

namespace tessitor::cli {

void RegisterCanScanCommand(CLI::App& can, CCliContext& context, CanAdapterChoice (*parseCan)(const std::string&),
                            std::uint8_t (*bitRateIndex)(unsigned))
{
    struct ScanOptions {
        unsigned nFrom = 1;
        unsigned nTo = kMaxNodeId;
        unsigned nTimeoutMs = CCanBusScan::kNodeTimeoutMs;
    };
    auto options = std::make_shared<ScanOptions>();
    CLI::App* scan = can.add_subcommand("scan", "List the nodes that answer on the bus (their device type, 0x1000)");
    scan->add_option("--from", options->nFrom, "First node id asked (default 1)")
        ->type_name("N")
        ->check(NumberIn(1, kMaxNodeId));
    scan->add_option("--to", options->nTo, "Last node id asked (default 127)")
        ->type_name("N")
        ->check(NumberIn(1, kMaxNodeId));
    scan->add_option("--node-timeout", options->nTimeoutMs, "How long each node has to answer, in ms (default 50)")
        ->type_name("MS")
        ->check(NumberIn(1, 60000));
    scan->footer("Prints one line a node that answered:\n"
                 "  Node 5: device type 0x00020192\n"
                 "  Node 6: device type \"Bressa 1.0.4.2\"     (firmware that keeps its version text there)\n"
                 "  Node 7: refused (SDO abort 0x06020000)\n"
                 "Exit status: 0 one node or more answered; 1 none did, the adapter failed, or Ctrl-C stopped\n"
                 "the scan (the nodes found until then are printed).\n\n"
                 "Examples:\n"
                 "  tessitor can scan --can slcan:/dev/ttyACM0 --bitrate 500\n"
                 "  tessitor can scan --can socketcan:can0 --from 1 --to 16 --node-timeout 200");
    context.SetAction(scan, [&context, options, parseCan, bitRateIndex] {
        CConnectionOptions& connection = context.m_Options;
        if (connection.m_sCan.empty())
            throw UsageError("can scan needs --can slcan:PATH or --can socketcan:IFACE");
        if (options->nTo < options->nFrom)
            throw UsageError("--to " + std::to_string(options->nTo) + " is below --from "
                             + std::to_string(options->nFrom));
        CCanBusScan busScan(parseCan(connection.m_sCan), bitRateIndex(connection.m_nBitrateKbit));
        busScan.SetRange(static_cast<int>(options->nFrom), static_cast<int>(options->nTo));
        busScan.SetNodeTimeout(options->nTimeoutMs);
        CStatusLine status;
        busScan.SetProgress([&status, &busScan](int node) {
            status.Show("scanning: node " + std::to_string(node) + ", " + std::to_string(busScan.Found().size())
                        + " found");
        });
        std::atomic<std::int32_t>& stop = busScan.AbortFlag();
        bool bOk = false;
        {
            // Ctrl-C ends the scan after the node being asked, not the program.
            CSignalThread::CStopRequest stopOnSignal([&stop] { stop = 1; });
            bOk = busScan.Run();
        }
        status.Show("");
        for (const CanNodeFound& node : busScan.Found())
            std::printf("%s\n", CCanBusScan::Describe(node).c_str());
        std::fflush(stdout);
        if (!bOk)
            throw ConnectError(busScan.Error());
        if (busScan.IsStopped()) {
            std::fprintf(stderr, "Scan stopped: %zu node(s) found.\n", busScan.Found().size());
            return 1;
        }
        if (busScan.Found().empty()) {
            std::fprintf(stderr, "No node answered between %u and %u.\n", options->nFrom, options->nTo);
            return 1;
        }
        return 0;
    }, CommandUse::kConnection);
}

} // namespace tessitor::cli
