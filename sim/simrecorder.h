// The virtual drive's signal recorder: sixteen slots mapped to signals,
// a recorded-signal mask, a gap and a length, a trigger on a recorded
// signal, an input event or the begin of a motion, with a pre-trigger part;
// states idle, waiting for trigger, recording, complete; and the "BH"
// upload of one signal's samples as hexadecimal text.
#pragma once

#include <array>
#include <deque>
#include <string>
#include <vector>

#include "sim/simsignals.h"

namespace tessitor::sim {

constexpr int kRecorderSlots = 16;
/// The longest "BH" window: its reply must stay below the 8192-byte limit.
constexpr int kMaxUploadSamples = 1000;

/// Recorder states as "SR" bits 16-17 report them.
enum SimRecorderState {
    kRecIdle = 0,
    kRecWaiting = 1,
    kRecComplete = 2,
    kRecRecording = 3,
};

/// What a start takes from the drive's parameters.
struct SimRecorderSetup {
    std::string sFamily;
    std::array<int, kRecorderSlots> arSlotCodes{}; ///< "RV[n]"; -1 no signal
    unsigned nMask = 0;       ///< "RC"
    int nGap = 1;             ///< "RG"
    int nLength = 1000;       ///< "RL"
    int nStartMode = 2;       ///< "RR": 2 at once, 3 on trigger
    unsigned nSource = 0;     ///< "RP[1]"
    int nPreTrigger = 0;      ///< "RP[2]", percent
    int nTriggerType = 0;     ///< "RP[3]"
    double dLevel = 0;        ///< "RP[4]"
    double dLowLevel = 0;     ///< "RP[5]"
    unsigned nEdges = 0;      ///< "RP[6]"
    unsigned nEvents = 0;     ///< "RP[7]"
};

class CSimRecorder {
public:
    /// Checks setup and starts; returns 0 or the drive error (20 bad mask,
    /// 21 slot not mapped, 22 bad trigger set-up). now holds the signals at
    /// the start: the drive samples them all the time, so an edge between
    /// the start and the first recorder sample still fires the trigger.
    int Start(const SimRecorderSetup& setup, const SimSnapshot& now);
    /// Stops; a recording in progress is discarded, a complete one is kept.
    void Stop();
    int State() const { return m_nState; }
    bool Busy() const { return m_nState == kRecWaiting || m_nState == kRecRecording; }
    /// Feeds one servo period's snapshot.
    void Sample(const SimSnapshot& snapshot);
    /// A motion began (the "begin motion" trigger).
    void NotifyBeginMotion() { m_bBeginMotion = true; }

    /// The "BH" text of the one slot in mask, samples first..last (last < 0:
    /// to the last sample recorded), at most maxCount samples; returns 0 or
    /// the drive error (17 busy, 20 bad mask, 23 nothing recorded, 24 bad window).
    int Upload(unsigned mask, int first, int last, std::string& text, int maxCount = kMaxUploadSamples) const;

    int TriggerIndex() const { return m_nTriggerIndex; }
    int SamplesRecorded() const;
    int Completed() const { return m_nCompleted; }

private:
    bool Triggered(const SimSnapshot& snapshot, bool armed);
    void Record(const SimSnapshot& snapshot);

    SimRecorderSetup m_Setup;
    std::array<const SimSignalInfo*, kRecorderSlots> m_arSlotInfo{};
    int m_nState = kRecIdle;
    int m_nGapCounter = 0;
    int m_nPreSamples = 0;
    SimSignal m_eTriggerSignal = SimSignal::kPosition;
    bool m_bHavePrevious = false;
    double m_dPrevious = 0;
    bool m_bBeginMotion = false;
    std::deque<SimSnapshot> m_arPre;
    std::array<std::vector<double>, kRecorderSlots> m_arData;
    int m_nRecorded = 0;
    int m_nTriggerIndex = 0;
    int m_nCompleted = 0;
};

} // namespace tessitor::sim
