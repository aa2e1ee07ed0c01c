#include "sim/simfaults.h"

#include <cctype>
#include <cstdlib>
#include <stdexcept>

namespace tessitor::sim {

namespace {

struct KindName {
    const char* pName;
    FaultKind eKind;
};
constexpr KindName kKinds[] = {
    {"drop", FaultKind::kDrop},
    {"delay", FaultKind::kDelay},
    {"wrong-echo", FaultKind::kWrongEcho},
    {"cut", FaultKind::kCut},
    {"garbage", FaultKind::kGarbage},
    {"error", FaultKind::kDriveError},
    {"wrong-function-id", FaultKind::kWrongFunctionId},
    {"half-header", FaultKind::kHalfHeader},
    {"drop-connection", FaultKind::kDropConnection},
    {"unasked-frame", FaultKind::kUnaskedFrame},
    {"abort", FaultKind::kAbort},
    {"toggle", FaultKind::kToggle},
    {"busy", FaultKind::kBusy},
};

bool Matches(const FaultRule& rule, const std::string& command, int number)
{
    if (rule.nNth > 0)
        return rule.nNth == number;
    return command.compare(0, rule.sPattern.size(), rule.sPattern) == 0;
}

[[noreturn]] void Bad(const std::string& text, const std::string& why)
{
    throw std::invalid_argument("bad fault \"" + text + "\": " + why);
}

int Number(const std::string& text, const std::string& field, const char* what, int lo, int hi)
{
    if (field.empty() || field.find_first_not_of("0123456789") != std::string::npos || field.size() > 9)
        Bad(text, std::string(what) + " must be a number");
    int value = std::atoi(field.c_str());
    if (value < lo || value > hi)
        Bad(text, std::string(what) + " must be " + std::to_string(lo) + " to " + std::to_string(hi));
    return value;
}

} // namespace

void CSimFaults::Add(const FaultRule& rule)
{
    std::lock_guard lock(m_csRules);
    m_arRules.push_back(rule);
}

void CSimFaults::Clear()
{
    std::lock_guard lock(m_csRules);
    m_arRules.clear();
}

bool CSimFaults::Empty()
{
    std::lock_guard lock(m_csRules);
    return m_arRules.empty();
}

FaultRule CSimFaults::Next(const std::string& command)
{
    std::lock_guard lock(m_csRules);
    int number = ++m_nCommands;
    for (auto it = m_arRules.begin(); it != m_arRules.end(); ++it) {
        if (!Matches(*it, command, number))
            continue;
        FaultRule rule = *it;
        if (rule.bOnce || rule.nNth > 0)
            m_arRules.erase(it);
        return rule;
    }
    return FaultRule{};
}

FaultRule CSimFaults::Parse(const std::string& text)
{
    // KIND:TARGET[:ARGUMENT][:once]; TARGET is N (the Nth command), /PATTERN
    // (commands that start with PATTERN) or * (every command).
    std::vector<std::string> fields;
    std::size_t start = 0;
    while (true) {
        auto colon = text.find(':', start);
        fields.push_back(text.substr(start, colon - start));
        if (colon == std::string::npos)
            break;
        start = colon + 1;
    }
    FaultRule rule;
    bool known = false;
    for (const KindName& k : kKinds)
        if (fields[0] == k.pName) {
            rule.eKind = k.eKind;
            known = true;
        }
    if (!known)
        Bad(text, "unknown kind \"" + fields[0]
                      + "\" (drop, delay, wrong-echo, cut, garbage, error, wrong-function-id, half-header, drop-connection,"
                      " unasked-frame, abort, toggle, busy)");
    if (fields.size() > 1 && fields.back() == "once") {
        rule.bOnce = true;
        fields.pop_back();
    }
    if (fields.size() < 2 || fields[1].empty())
        Bad(text, "a target is needed: N, /PATTERN or *");
    const std::string& target = fields[1];
    if (target == "*")
        rule.sPattern.clear();
    else if (target[0] == '/')
        rule.sPattern = target.substr(1);
    else
        rule.nNth = Number(text, target, "the command number", 1, 1000000000);

    std::string argument = fields.size() > 2 ? fields[2] : std::string();
    if (fields.size() > 3)
        Bad(text, "too many fields");
    switch (rule.eKind) {
    case FaultKind::kDelay:
        rule.nDelayMs = Number(text, argument, "the delay in ms", 0, 600000);
        break;
    case FaultKind::kCut:
        rule.nCutBytes = Number(text, argument, "the byte count", 0, 8192);
        break;
    case FaultKind::kDriveError:
        rule.nErrorNumber = Number(text, argument, "the drive error number", 1, 255);
        // These values would end or break the reply's framing.
        if (rule.nErrorNumber == 8 || rule.nErrorNumber == 13 || rule.nErrorNumber == 59 || rule.nErrorNumber == 63)
            Bad(text, "the drive error number cannot be 8, 13, 59 or 63");
        break;
    case FaultKind::kAbort: {
        // An SDO abort code, hexadecimal with 0x (as CiA 301 writes them) or decimal.
        char* end = nullptr;
        unsigned long long code = std::strtoull(argument.c_str(), &end, 0);
        if (argument.empty() || *end != '\0' || argument[0] == '-' || code > 0xFFFFFFFFull)
            Bad(text, "the abort code must be a 32-bit number, e.g. 0x06040047");
        rule.nAbortCode = static_cast<std::uint32_t>(code);
        break;
    }
    case FaultKind::kBusy:
        if (!argument.empty())
            rule.nDelayMs = Number(text, argument, "the busy time in ms", 1, 600000);
        break;
    case FaultKind::kGarbage:
        if (!argument.empty())
            rule.sGarbage = argument;
        break;
    default:
        if (!argument.empty())
            Bad(text, "this kind takes no argument");
        break;
    }
    return rule;
}

} // namespace tessitor::sim
