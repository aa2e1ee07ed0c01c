// Faults the virtual drive injects into its replies, so that every failure
// path of a client can be tested. Rules are checked in the order added; the
// first that matches a command decides. Thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace tessitor::sim {

enum class FaultKind {
    kNone,
    kDrop,        ///< send nothing back (no echo, no reply)
    kDelay,       ///< answer after nDelayMs
    kWrongEcho,   ///< echo a changed command
    kCut,         ///< send only the first nCutBytes of the reply
    kGarbage,     ///< send sGarbage before the reply
    kDriveError,  ///< refuse with drive error nErrorNumber
    // Faults of the network device face.
    kWrongFunctionId, ///< answer with another function ID
    kHalfHeader,      ///< send half a header and stop
    kDropConnection,  ///< close the connection in the middle of the reply
    kUnaskedFrame,    ///< send an answer to the previous request before the reply
    // Faults of the CAN face.
    kAbort,           ///< answer an SDO request with abort code nAbortCode
    kToggle,          ///< a segmented transfer repeats the toggle bit of its first segment
    kBusy,            ///< the OS command stays busy for nDelayMs (0: for ever)
};

struct FaultRule {
    FaultKind eKind = FaultKind::kNone;
    int nNth = 0;            ///< match the Nth command (1-based) only; 0 = by pattern
    std::string sPattern;    ///< match commands starting with this text; "" = every command
    int nDelayMs = 0;
    int nCutBytes = 0;
    std::string sGarbage = "#garbage#";
    int nErrorNumber = 2;
    std::uint32_t nAbortCode = 0;
    bool bOnce = false;      ///< remove the rule after it fired once
};

class CSimFaults {
public:
    void Add(const FaultRule& rule);
    void Clear();
    /// True when no rule is set (the serial face then echoes at once).
    bool Empty();
    /// Counts the command and returns the rule that applies (kind kNone if none).
    FaultRule Next(const std::string& command);
    /// Parses the command-line form KIND:TARGET[:ARGUMENT][:once], e.g.
    /// "drop:3", "drop:/SR", "delay:/PX:1500", "wrong-echo:/VR", "cut:/BH:10",
    /// "garbage:5", "garbage:*:xyz", "error:/MO:1", "abort:/0x1008:0x06040047",
    /// "toggle:/0x2030", "busy:/SR", "busy:*:300"; TARGET is the Nth command,
    /// /PATTERN (commands starting with it) or * (every command);
    /// throws std::invalid_argument with a message on a bad form.
    static FaultRule Parse(const std::string& text);

private:
    std::mutex m_csRules;
    std::vector<FaultRule> m_arRules;
    int m_nCommands = 0;
};

} // namespace tessitor::sim
