#include "recorder/rectalvina.h"

#include <cstdlib>

#include "core/strformat.h"
#include "recorder/vectorsini.h"

namespace tessitor {

namespace {

constexpr int kDigitalInputs = 6;

} // namespace

CRecTalvina::CRecTalvina(CCommunication* pCom) : CRecorder(pCom)
{
    ReadSlots();
}

void CRecTalvina::ReadSlot(int slot)
{
    std::string value = Send(StrFormat("RV[%d]", slot));
    auto code = static_cast<std::uint32_t>(std::strtol(value.c_str(), nullptr, 10));
    m_arSlots[slot].nCode = code;
    m_arSlots[slot].sName = code == kNoCode ? std::string() : CVectorsIni::Default()->Name(kFamily, static_cast<int>(code));
}

void CRecTalvina::ReadSlots()
{
    for (int slot = 0; slot < kSlots; ++slot)
        ReadSlot(slot);
    BuildTriggerList();
}

void CRecTalvina::MapSlot(int slot, std::int32_t code)
{
    Send(StrFormat("RV[%d]=%d", slot, code));
    ReadSlot(slot);
    BuildTriggerList();
}

void CRecTalvina::BuildTriggerList()
{
    m_arTriggerSources.clear();
    AddTriggerRow("(No Trigger)", kTrigNone, -1);
    AddTriggerRow("Begin Motion", kTrigBeginMotion, -1);
    for (int input = 1; input <= kDigitalInputs; ++input)
        AddTriggerRow(StrFormat("Digital Input %d", input), kTrigInput, input);
    for (int slot = 0; slot < kSlots; ++slot)
        if (m_arSlots[slot].IsUsable())
            AddTriggerRow(m_arSlots[slot].sName, m_arSlots[slot].nCode == kInputsCode ? kTrigCombination : kTrigSignal,
                          static_cast<std::int32_t>(1u << slot));
}

int CRecTalvina::SetupTrigger()
{
    m_nSourceMask = m_nEventMask = m_nEdgeMask = 0;
    const CRecordSettings& settings = Settings();
    const std::int32_t row = settings.nTrigger;
    const bool known = row >= 0 && static_cast<std::size_t>(row) < m_arTriggerSources.size();
    const TriggerSource none{"", kTrigNone, -1};
    const TriggerSource& source = known ? *m_arTriggerSources[static_cast<std::size_t>(row)] : none;

    // A level trigger picks its levels by the level mode; every other row by
    // its kind, so a digital input also sends the second level.
    std::int32_t selector = source.nKind;
    switch (source.nKind) {
    case kTrigNone:
        Send(StrFormat("RP[3]=%d", 0));
        return 2;
    case kTrigBeginMotion:
        Send(StrFormat("RP[3]=%d", 1));
        break;
    case kTrigInput: {
        Send(StrFormat("RP[3]=%d", 5));
        const std::int32_t n = source.nValue;
        const std::uint16_t event = n >= 1 && n <= 16 ? static_cast<std::uint16_t>(1u << (n - 1)) : 0;
        m_nEventMask = event;
        m_nEdgeMask = settings.nLevelMode == kLevelRising ? event : 0;
        Send(StrFormat("RP[7]=%d", m_nEventMask));
        Send(StrFormat("RP[6]=%d", m_nEdgeMask));
        break;
    }
    case kTrigSignal:
        Send(StrFormat("RP[3]=%d", settings.nLevelMode));
        m_nSourceMask = source.nValue;
        Send(StrFormat("RP[1]=%d", m_nSourceMask));
        selector = settings.nLevelMode;
        break;
    case kTrigWindow:
        break;
    case kTrigCombination:
        Send(StrFormat("RP[3]=%d", 5));
        return 2;
    default:
        break;
    }

    SendPreTrigger();
    switch (selector) {
    case kLevelRising:
        Send(StrFormat("RP[4]=%f", settings.dLevel2));
        break;
    case kLevelFalling:
        Send(StrFormat("RP[4]=%f", settings.dLevel1));
        break;
    case kLevelWindow:
        if (RefuseEqualLevels())
            return 0;
        Send(StrFormat("RP[4]=%f", settings.dLevel2));
        Send(StrFormat("RP[5]=%f", settings.dLevel1));
        break;
    default:
        break;
    }
    return 3;
}

} // namespace tessitor
