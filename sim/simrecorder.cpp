#include "sim/simrecorder.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace tessitor::sim {

namespace {

// Trigger types of "RP[3]".
constexpr int kTrigNone = 0;
constexpr int kTrigBeginMotion = 1;
constexpr int kTrigRising = 2;
constexpr int kTrigFalling = 3;
constexpr int kTrigWindow = 4;
constexpr int kTrigEvent = 5;

// The "BreNol" drives name their trigger source by a bit of their own
// table instead of a slot; bit 3 stands for the input events of "RP[7]".
struct BreNolSource {
    unsigned nBit;
    SimSignal eSignal;
};
constexpr BreNolSource kBreNolSources[] = {
    {0x0001, SimSignal::kVelocity},
    {0x0002, SimSignal::kPosition},
    {0x0004, SimSignal::kPositionCommand},
    {0x0020, SimSignal::kCurrentCommand},
    {0x0080, SimSignal::kAuxPosition},
    {0x0100, SimSignal::kAuxVelocity},
    {0x0200, SimSignal::kActiveCurrent},
    {0x0400, SimSignal::kReactiveCurrent},
    {0x2000, SimSignal::kPhaseA},
    {0x4000, SimSignal::kPhaseB},
    {0x8000, SimSignal::kVelocityCommand},
};

std::uint32_t FloatBits(float value)
{
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

} // namespace

int CSimRecorder::Start(const SimRecorderSetup& setup, const SimSnapshot& now)
{
    if (setup.nMask == 0 || setup.nMask >= (1u << kRecorderSlots))
        return 20;
    std::array<const SimSignalInfo*, kRecorderSlots> slots{};
    for (int slot = 0; slot < kRecorderSlots; ++slot)
        slots[slot] = FindSignal(setup.sFamily, setup.arSlotCodes[slot]);
    for (int slot = 0; slot < kRecorderSlots; ++slot)
        if ((setup.nMask >> slot & 1u) && !slots[slot])
            return 21;

    int type = setup.nStartMode == 3 ? setup.nTriggerType : kTrigNone;
    SimSignal triggerSignal = SimSignal::kDigitalInputs;
    if (type == kTrigRising || type == kTrigFalling || type == kTrigWindow) {
        bool found = false;
        if (setup.sFamily == "BreNol" && setup.nSource == 0) {
            // These drives watch their first analog input when no source is named.
            triggerSignal = SimSignal::kAnalog1;
            found = true;
        } else if (std::popcount(setup.nSource) != 1) {
            return 22;
        } else if (setup.sFamily == "BreNol") {
            for (const BreNolSource& source : kBreNolSources)
                if (source.nBit == setup.nSource) {
                    triggerSignal = source.eSignal;
                    found = true;
                }
        } else {
            int slot = std::countr_zero(setup.nSource);
            if (slot < kRecorderSlots && slots[slot]) {
                triggerSignal = slots[slot]->eSignal;
                found = true;
            }
        }
        if (!found)
            return 22;
    } else if (type == kTrigEvent && setup.nEvents == 0) {
        return 22;
    }

    m_Setup = setup;
    m_Setup.nTriggerType = type;
    m_arSlotInfo = slots;
    m_eTriggerSignal = triggerSignal;
    for (auto& data : m_arData)
        data.clear();
    m_arPre.clear();
    m_nRecorded = 0;
    m_nGapCounter = 0;
    m_bHavePrevious = true;
    m_dPrevious = SignalValue(now, triggerSignal);
    m_bBeginMotion = false;
    m_nTriggerIndex = 0;
    if (type == kTrigNone) {
        m_nPreSamples = 0;
        m_nState = kRecRecording;
    } else {
        m_nPreSamples = static_cast<int>(static_cast<long long>(setup.nLength) * setup.nPreTrigger / 100);
        m_nPreSamples = std::min(m_nPreSamples, setup.nLength - 1);
        m_nState = kRecWaiting;
    }
    return 0;
}

void CSimRecorder::Stop()
{
    if (Busy()) {
        for (auto& data : m_arData)
            data.clear();
        m_nRecorded = 0;
    }
    m_arPre.clear();
    m_nState = kRecIdle;
}

int CSimRecorder::SamplesRecorded() const
{
    return m_nState == kRecWaiting ? static_cast<int>(m_arPre.size()) : m_nRecorded;
}

bool CSimRecorder::Triggered(const SimSnapshot& snapshot, bool armed)
{
    double value = SignalValue(snapshot, m_eTriggerSignal);
    bool had = m_bHavePrevious;
    double previous = m_dPrevious;
    m_bHavePrevious = true;
    m_dPrevious = value;
    if (!armed) {
        m_bBeginMotion = false; // a motion before the trigger was armed does not count
        return false;
    }
    switch (m_Setup.nTriggerType) {
    case kTrigBeginMotion:
        return std::exchange(m_bBeginMotion, false);
    case kTrigRising:
        return had && previous < m_Setup.dLevel && value >= m_Setup.dLevel;
    case kTrigFalling:
        return had && previous > m_Setup.dLevel && value <= m_Setup.dLevel;
    case kTrigWindow: {
        double high = std::max(m_Setup.dLevel, m_Setup.dLowLevel);
        double low = std::min(m_Setup.dLevel, m_Setup.dLowLevel);
        return value > high || value < low;
    }
    case kTrigEvent: {
        if (!had)
            return false;
        auto now = static_cast<unsigned>(value);
        auto changed = (now ^ static_cast<unsigned>(previous)) & m_Setup.nEvents;
        unsigned rising = changed & now & m_Setup.nEdges;
        unsigned falling = changed & ~now & ~m_Setup.nEdges;
        return (rising | falling) != 0;
    }
    default:
        return true;
    }
}

void CSimRecorder::Record(const SimSnapshot& snapshot)
{
    for (int slot = 0; slot < kRecorderSlots; ++slot)
        if (m_Setup.nMask >> slot & 1u)
            m_arData[slot].push_back(SignalValue(snapshot, m_arSlotInfo[slot]->eSignal));
    if (++m_nRecorded == m_Setup.nLength) {
        m_nState = kRecComplete;
        ++m_nCompleted;
    }
}

void CSimRecorder::Sample(const SimSnapshot& snapshot)
{
    if (!Busy())
        return;
    bool take = m_nGapCounter == 0;
    m_nGapCounter = (m_nGapCounter + 1) % m_Setup.nGap;
    if (!take)
        return;
    if (m_nState == kRecRecording) {
        Record(snapshot);
        return;
    }
    // Waiting: the trigger is armed once the pre-trigger part is full.
    bool armed = static_cast<int>(m_arPre.size()) >= m_nPreSamples;
    bool fired = Triggered(snapshot, armed);
    if (!fired) {
        m_arPre.push_back(snapshot);
        if (static_cast<int>(m_arPre.size()) > m_nPreSamples)
            m_arPre.pop_front();
        return;
    }
    m_nState = kRecRecording;
    m_nTriggerIndex = static_cast<int>(m_arPre.size());
    for (const SimSnapshot& earlier : m_arPre)
        Record(earlier);
    m_arPre.clear();
    if (m_nState == kRecRecording)
        Record(snapshot);
}

int CSimRecorder::Upload(unsigned mask, int first, int last, std::string& text, int maxCount) const
{
    if (Busy())
        return 17;
    if (std::popcount(mask) != 1 || mask >= (1u << kRecorderSlots))
        return 20;
    int slot = std::countr_zero(mask);
    if (m_nRecorded == 0)
        return 23;
    if (!(m_Setup.nMask & mask))
        return 20;
    const std::vector<double>& data = m_arData[slot];
    if (last < 0)
        last = static_cast<int>(data.size()) - 1;
    int count = last - first + 1;
    if (first < 0 || last < first || last >= static_cast<int>(data.size()) || count > maxCount)
        return 24;
    const SimSignalInfo& info = *m_arSlotInfo[slot];
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%02X%02X%04X%04X%08X", info.nDataType, info.nDigits, count,
                  m_Setup.nGap & 0xFFFF, FloatBits(info.nDataType == 3 ? 1.0f : info.fScale));
    text = buffer;
    text.reserve(text.size() + static_cast<std::size_t>(count) * info.nDigits);
    for (int i = first; i <= last; ++i) {
        double value = data[i];
        std::uint32_t raw;
        if (info.nDataType == 3) {
            raw = FloatBits(static_cast<float>(value));
        } else {
            double counts = std::round(value / info.fScale);
            if (info.nDigits == 4)
                raw = static_cast<std::uint16_t>(static_cast<std::int16_t>(std::clamp(counts, -32768.0, 32767.0)));
            else
                raw = static_cast<std::uint32_t>(static_cast<std::int32_t>(
                    std::clamp(counts, -2147483648.0, 2147483647.0)));
        }
        std::snprintf(buffer, sizeof buffer, info.nDigits == 4 ? "%04X" : "%08X", static_cast<unsigned>(raw));
        text += buffer;
    }
    return 0;
}

} // namespace tessitor::sim
