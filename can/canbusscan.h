// Which nodes answer on a CAN bus: each node id in turn is asked for its
// device type (an SDO upload of 0x1000, sub 0) with a short time-out. Runs
// on the caller's thread, with progress after each node and an abort flag
// another thread may set; the adapter is shared with the process's links.
//
//   CCanBusScan scan(choice, 7);                        // 1000 kbit/s
//   scan.SetProgress([](int node) { ... node of 127 asked ... });
//   if (!scan.Run()) ... scan.Error()
//   for (const CanNodeFound& node : scan.Found()) ... node.nNode, node.nDeviceType
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "can/canadapterchoice.h"

namespace tessitor {

class CCanAdapter;

/// A node that answered.
struct CanNodeFound {
    std::uint8_t nNode = 0;
    bool bDeviceType = false;     ///< it sent its device type (else it refused the upload)
    std::uint32_t nDeviceType = 0;
    std::string sText;            ///< a device type sent as text (segmented), as some firmware keeps its "VR" there
    std::uint32_t nAbortCode = 0; ///< the refusal's SDO abort code, when it refused
};

class CCanBusScan {
public:
    /// How long each node has to answer, in ms.
    static constexpr std::uint32_t kNodeTimeoutMs = 50;
    /// The object asked for: the device type.
    static constexpr std::uint16_t kScanIndex = 0x1000;
    /// The most of a text device type read.
    static constexpr std::size_t kMaxTextBytes = 64;

    /// A scan of the bus behind choice at the descriptor's bit-rate index.
    CCanBusScan(CanAdapterChoice choice, std::uint8_t bitRateIndex);

    /// The node ids asked, first..last within 1..127 (default all).
    void SetRange(int first, int last);
    void SetNodeTimeout(std::uint32_t timeoutMs) { m_nTimeoutMs = timeoutMs; }
    /// Called on the scanning thread after each node was asked.
    void SetProgress(std::function<void(int node)> progress) { m_Progress = std::move(progress); }
    /// Set to 1 (from any thread) to end the scan after the node being asked.
    std::atomic<std::int32_t>& AbortFlag() { return m_nAbort; }

    /// Asks the nodes in order. False, with Error(), when the adapter cannot
    /// be opened or fails during the scan; a stopped scan is true, with
    /// IsStopped() and the nodes found until then.
    bool Run();
    const std::vector<CanNodeFound>& Found() const { return m_arFound; }
    bool IsStopped() const { return m_bStopped; }
    const std::string& Error() const { return m_sError; }
    /// Nodes to ask in the range.
    int Nodes() const { return m_nLast - m_nFirst + 1; }

    /// "Node 5: device type 0x00020192", "Node 6: device type \"Bressa 1.0.0.0\"" or
    /// "Node 5: refused (SDO abort 0x06020000)".
    static std::string Describe(const CanNodeFound& node);

private:
    // The rest of a segmented upload into node's text; what came before a
    // silence or a refusal is kept.
    void ReadText(CCanAdapter& adapter, CanNodeFound& node);

    CanAdapterChoice m_Choice;
    std::uint8_t m_nBitRateIndex;
    int m_nFirst = 1;
    int m_nLast = 127;
    std::uint32_t m_nTimeoutMs = kNodeTimeoutMs;
    std::function<void(int)> m_Progress;
    std::atomic<std::int32_t> m_nAbort{0};
    std::vector<CanNodeFound> m_arFound;
    bool m_bStopped = false;
    std::string m_sError;
};

} // namespace tessitor
