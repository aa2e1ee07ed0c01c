#include "recorder/recbrenol.h"

#include <cmath>
#include <utility>

#include "core/strformat.h"

namespace tessitor {

namespace {

// The family's signal table: name to drive signal code.
constexpr std::pair<const char*, std::int32_t> kSignals[] = {
    {"(No Trigger)", 0},
    {"Abort", 1},
    {"Active Current", 2},
    {"Analog Input 1", 3},
    {"Analog Input 2", 4},
    {"Auxiliary Position", 5},
    {"Auxiliary Velocity", 6},
    {"Current - Phase A [A]", 7},
    {"Motor Current", 7},
    {"Current - Phase B", 8},
    {"Current Command [A]", 9},
    {"DC Bus Voltage", 10},
    {"Digital Input 1", 11},
    {"Digital Input 2", 12},
    {"Digital Output 1", 13},
    {"Digital Output 2", 14},
    {"FLS", 15},
    {"Enable", 16},
    {"Position", 17},
    {"Position Command", 18},
    {"Reactive Current", 19},
    {"RLS", 20},
    {"Velocity", 21},
    {"Velocity Command", 22},
    {"Begin Motion", 23},
};

// The drive's fixed slots 0-15, by signal code.
constexpr std::int32_t kSlotCodes[CRecorder::kSlots] = {17, 21, 2, 9, 22, 18, 19, 7, 8, 3, 4, 5, 6, 10, 11, 12};

// Trigger source bits ("RP[1]"); kSourceEvents stands for the input events of "RP[7]".
constexpr std::int32_t kSourceEvents = 0x8;
// Trigger types ("RP[3]").
constexpr std::int32_t kTypeNone = 0;
constexpr std::int32_t kTypeBeginMotion = 1;
constexpr std::int32_t kTypeEvent = 5;

} // namespace

CRecBreNol::CRecBreNol(CCommunication* pCom) : CRecorder(pCom)
{
    for (int slot = 0; slot < kSlots; ++slot) {
        m_arSlots[slot].nCode = static_cast<std::uint32_t>(kSlotCodes[slot]);
        m_arSlots[slot].sName = SignalName(kSlotCodes[slot]);
    }
    BuildTriggerList();
}

std::int32_t CRecBreNol::SignalCode(const std::string& name)
{
    for (const auto& [text, code] : kSignals)
        if (name == text)
            return code;
    return 0;
}

std::string CRecBreNol::SignalName(std::int32_t code)
{
    for (const auto& [text, value] : kSignals)
        if (value == code)
            return text;
    return {};
}

std::int32_t CRecBreNol::LevelHundredths(double level)
{
    return static_cast<std::int32_t>(std::trunc(((level * 10000.0) - std::trunc(level) * 10000) / 100.0));
}

void CRecBreNol::BuildTriggerList()
{
    m_arTriggerSources.clear();
    AddTriggerRow("(No Trigger)", kTrigNone, -1);
    AddTriggerRow("Begin Motion", kTrigBeginMotion, -1);
    AddTriggerRow("Abort", kTrigInput, -1);
    AddTriggerRow("Enable", kTrigInput, -1);
    AddTriggerRow("FLS", kTrigInput, -1);
    AddTriggerRow("RLS", kTrigInput, -1);
    AddTriggerRow("Inputs Combination", kTrigCombination, -1);
    // Unlike the Talvina family, a signal row's bit is its signal code, not its slot.
    for (const SignalSlot& slot : m_arSlots)
        if (slot.IsUsable())
            AddTriggerRow(slot.sName, kTrigSignal, static_cast<std::int32_t>(1u << slot.nCode));
}

std::int32_t CRecBreNol::TriggerSetting(int row) const
{
    return SignalCode(m_arTriggerSources.at(static_cast<std::size_t>(row))->sName);
}

int CRecBreNol::SetupTrigger()
{
    const CRecordSettings& settings = Settings();
    if (settings.nTrigger == 0) {
        Send("RP[3]=0");
        return 2;
    }
    m_nSourceMask = m_nEventMask = m_nEdgeMask = 0;
    std::int32_t type = settings.nLevelMode;
    std::int32_t event = 0;
    if (settings.nLevelMode == kLevelEvent) {
        type = kTypeEvent;
        m_nSourceMask = kSourceEvents;
    } else {
        switch (settings.nTrigger) {
        case 1: type = kTypeEvent; m_nSourceMask = kSourceEvents; event = 0x1000; break; // Abort
        case 2: m_nSourceMask = 0x200; break;
        case 3: case 4: break;
        case 5: m_nSourceMask = 0x80; break;
        case 6: m_nSourceMask = 0x100; break;
        case 7: m_nSourceMask = 0x2000; break;
        case 8: m_nSourceMask = 0x4000; break;
        case 9: m_nSourceMask = 0x20; break;
        case 0: case 10: case 13: case 14: type = kTypeNone; break;
        case 11: type = kTypeEvent; m_nSourceMask = kSourceEvents; event = 0x1; break;
        case 12: type = kTypeEvent; m_nSourceMask = kSourceEvents; event = 0x2; break;
        case 15: type = kTypeEvent; m_nSourceMask = kSourceEvents; event = 0x400; break;
        case 16: type = kTypeEvent; m_nSourceMask = kSourceEvents; event = 0x2000; break;
        case 17: m_nSourceMask = 0x2; break;
        case 18: m_nSourceMask = 0x4; break;
        case 19: m_nSourceMask = 0x400; break;
        case 20: type = kTypeEvent; m_nSourceMask = kSourceEvents; event = 0x800; break;
        case 21: m_nSourceMask = 0x1; break;
        case 22: m_nSourceMask = 0x8000; break;
        case 23: type = kTypeBeginMotion; break;
        default: break;
        }
        m_nEventMask = event;
        if (settings.nLevelMode == kLevelRising)
            m_nEdgeMask = event;
    }

    if (m_nSourceMask != 0)
        Send(StrFormat("RP[1]=%d", m_nSourceMask));
    SendPreTrigger();
    Send(StrFormat("RP[3]=%d", type));
    const std::int32_t level1 = LevelHundredths(settings.dLevel1);
    const std::int32_t level2 = LevelHundredths(settings.dLevel2);
    if (type == kTypeEvent) {
        Send(StrFormat("RP[6]=%d", m_nEdgeMask));
        Send(StrFormat("RP[7]=%d", m_nEventMask));
        return 3;
    }
    switch (settings.nLevelMode) {
    case kLevelRising:
        Send(StrFormat("RP[4]=%f", settings.dLevel2));
        Send(StrFormat("RP[14]=%d", level2));
        break;
    case kLevelFalling:
        Send(StrFormat("RP[4]=%f", settings.dLevel1));
        Send(StrFormat("RP[14]=%d", level1));
        break;
    case kLevelWindow:
        if (RefuseEqualLevels())
            return 0;
        Send(StrFormat("RP[4]=%f", settings.dLevel2));
        Send(StrFormat("RP[14]=%d", level2));
        Send(StrFormat("RP[5]=%f", settings.dLevel1));
        Send(StrFormat("RP[15]=%d", level1));
        break;
    default:
        break;
    }
    return 3;
}

} // namespace tessitor
