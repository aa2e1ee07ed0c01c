// The drive's signal recorder (its "scope"): which signals are recorded,
// the trigger, starting a recording with "RC", "RP[n]", "RG", "RL" and "RR",
// watching it with "SR" polls on the "RecorderThread" worker, uploading it
// with "BH" through the link, and saving it to a scope data file. One
// recorder per link, made by the link's family; it listens to its link and
// drops it when the link disconnects.
//
//   std::unique_ptr<CRecorder> rec = CRecorder::Create(link);  // null: no recorder for this family
//   rec->SetWindows(&scope, &frame);                           // the posted messages go there
//   rec->AddDisplay("Position");
//   rec->SelectTrigger(rec->FindTriggerRow("Begin Motion"));
//   rec->StartPhase(CRecorder::kPhaseClear);                   // arms the drive's recorder
//   if (rec->WaitPhase()) { ...start the motion...; then kPhaseWait, kPhaseUpload, kPhaseFinish }
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "communication/communication.h"
#include "recorder/recordsettings.h"
#include "recorder/vector.h"
#include "recorder/viewwindow.h"

namespace tessitor {

class Window;

/// Messages of the recorder (both parameters 0 unless said). To the scope
/// window: kMsgRecProgress (0x401), the trigger came and the drive records,
/// and during the upload one chunk arrived; then these.
constexpr unsigned kMsgRecWaitTrigger = 0x402; ///< the drive waits for the trigger
constexpr unsigned kMsgRecStartFailed = 0x403; ///< a start command failed: wParam 0 before its error is shown, 1 after
/// To the frame window.
constexpr unsigned kMsgRecUpload = 0x409;   ///< the upload begins
constexpr unsigned kMsgRecFinished = 0x46e; ///< the recording is uploaded and is being saved

class CRecorder : public CCommunication::CListenerComm {
public:
    /// One row of the trigger list shown to the user.
    struct TriggerSource {
        std::string sName;
        std::int32_t nKind;  ///< TriggerKind
        std::int32_t nValue; ///< input number or one-bit mask; -1 where the kind needs none
    };
    enum TriggerKind : std::int32_t {
        kTrigNone = 0,
        kTrigBeginMotion = 1,
        kTrigInput = 2,       ///< a digital input (value: its number) or a drive event (-1)
        kTrigSignal = 3,      ///< a recorded signal crossing a level
        kTrigWindow = 4,
        kTrigCombination = 5, ///< a combination of inputs or a bit-field signal
    };
    /// One of the sixteen recorder slots.
    struct SignalSlot {
        std::uint32_t nCode = kNoCode; ///< the signal's code; kNoCode: no signal
        std::string sName;             ///< "unused": not offered
        bool IsUsable() const { return nCode != kNoCode && sName != kUnusedName; }
    };
    /// The worker's phases, run one at a time in this order.
    enum Phase : int { kPhaseClear = 1, kPhaseWait = 2, kPhaseUpload = 3, kPhaseFinish = 4 };

    static constexpr int kSlots = 16;
    static constexpr std::uint32_t kNoCode = 0xFFFFFFFF;
    static constexpr char kUnusedName[] = "unused";
    static constexpr char kDefaultScopeFile[] = "Scope.sdv";
    /// Reply time-outs: every start command, and each "SR" poll.
    static constexpr std::uint32_t kStartTimeoutMs = 5000;
    static constexpr std::uint32_t kPollTimeoutMs = 1000;
    /// Pause between two "SR" polls, and before the save.
    static constexpr std::chrono::milliseconds kPollInterval{300};
    static constexpr std::chrono::milliseconds kFinishPause{100};
    /// Messages the worker shows.
    static constexpr char kNotReadyText[] = "The Record is not Ready! Please Try again! ";
    static constexpr char kCorruptedText[] = "The Data of the Record was Corrupted! Please Try again! ";
    static constexpr char kProblemText[] = "Recorder Problem";
    static constexpr char kStorageFailedText[] = "Matlab storage failed";
    static constexpr char kEqualLevelsText[] =
        "Please enter different value into High and Low Level windows and start again";

    /// The recorder of pCom's family: "DSP" and "STP" a CRecTalvina, "BreNol"
    /// a CRecBreNol, any other (or an unidentified link) none. Reads the
    /// slot mapping of the drive where the family maps its slots (thrown
    /// CExceptionComm on failure).
    static std::unique_ptr<CRecorder> Create(CCommunication* pCom);

    /// Binds pCom (not owned) and listens to it.
    explicit CRecorder(CCommunication* pCom);
    /// Ends the worker (a waiting phase stops at its next poll) and stops
    /// listening.
    ~CRecorder() override;
    CRecorder(const CRecorder&) = delete;
    CRecorder& operator=(const CRecorder&) = delete;

    /// The family's name in "Vectors.ini" ("Talvina", "BreNol").
    virtual const char* FamilyName() const = 0;
    /// Where the posted messages go (not owned; either may be null).
    void SetWindows(Window* pScopeWnd, Window* pFrameWnd);
    /// The link, or null once it was dropped.
    CCommunication* GetCommunication() const;
    /// The drive's "VR" text when the recorder was made.
    const std::string& GetVersionText() const { return m_sVersion; }

    CRecordSettings& Settings() { return m_Settings; }
    const CRecordSettings& Settings() const { return m_Settings; }

    /// The trigger list, in the family's order.
    const std::vector<std::unique_ptr<TriggerSource>>& TriggerSources() const { return m_arTriggerSources; }
    /// The row named name, or -1.
    int FindTriggerRow(const std::string& name) const;
    /// Makes row of the trigger list the recording's trigger.
    void SelectTrigger(int row);
    /// The name of the chosen trigger row.
    const std::string& TriggerName() const { return m_sTriggerName; }

    const std::array<SignalSlot, kSlots>& Slots() const { return m_arSlots; }
    /// 1 << the first slot showing signal; 0 for "(None)" or no such slot.
    std::uint32_t SlotMask(const std::string& signal) const;
    /// The OR of the slot masks of all displays, sent as "RC".
    std::uint32_t RecordedMask() const;

    /// Adds display n + 1 ("Display %d") showing signal ("(None)" for none)
    /// with a sample store of its own.
    CViewWindow& AddDisplay(const std::string& signal);
    const std::vector<std::unique_ptr<CViewWindow>>& Displays() const { return m_arViews; }

    /// Sends the start: "RR=0", "RC", the trigger set-up, "RG", "RL",
    /// "RR=<start mode>". Returns the start mode (2 at once, 3 on the
    /// trigger) or 0 when it failed: a refused set-up, or a link failure,
    /// which posts kMsgRecStartFailed (0, then 1 after showing the error).
    int StartRecording();
    /// The start mode of the last start (0 when it failed).
    int GetStartMode() const { return m_nStartMode; }

    /// Runs phase on the "RecorderThread" worker, after the last one ended.
    void StartPhase(int phase);
    /// Waits for the phase started last; 1 when it did its work, 0 when it
    /// failed or was stopped.
    int WaitPhase();
    /// Runs phase on this thread (the worker's body); result as WaitPhase.
    int RunPhase(int phase);
    /// Set when a phase ended; setting it ends the wait for the recording.
    bool IsDone() const { return m_nDone.load() != 0; }
    void SetDone() { m_nDone = 1; }

    /// The scope data file phase 4 writes ("Scope.sdv" by default).
    void SetScopeFile(const std::string& path) { m_sScopeFile = path; }
    const std::string& GetScopeFile() const { return m_sScopeFile; }
    /// Seconds between two recorded samples, as phase 4 asked the drive.
    double GetSampleTime() const { return m_dSampleTime; }
    /// What lies behind the last phase's "Recorder Problem" (the link's
    /// failure) or "Matlab storage failed" (the file and why); empty when
    /// the phase's own message says it all.
    const std::string& LastError() const { return m_sLastError; }

    /// Set to 1 (from any thread) to stop this recorder at its next check;
    /// a trigger set-up that refuses its levels sets it too. The front end
    /// clears it before a new recording. Other recorders are not affected.
    std::atomic<std::int32_t>& AbortFlag() { return m_nAbort; }

    /// Tests poll faster than a drive needs.
    void SetPollInterval(std::chrono::milliseconds interval) { m_PollInterval = interval; }

    void OnCommunicationDestroy(CCommunication* pCom) override;
    void OnCommunicationDisconnect(CCommunication* pCom) override;

protected:
    /// Fills the trigger list from the slots, in the family's order.
    virtual void BuildTriggerList() = 0;
    /// The recording's trigger setting for row (see CRecordSettings::nTrigger).
    virtual std::int32_t TriggerSetting(int row) const = 0;
    /// Sends the family's trigger set-up; the start mode, or 0 when refused.
    virtual int SetupTrigger() = 0;

    /// Sends command with kStartTimeoutMs and returns its value; failures
    /// (a drive refusal, a broken or dropped link) are thrown.
    std::string Send(const std::string& command);
    /// Sends "RP[2]=" and the pre-trigger text less its final character.
    void SendPreTrigger();
    /// With equal levels: shows the refusal, sets the abort flag, true.
    bool RefuseEqualLevels();
    void AddTriggerRow(const std::string& name, std::int32_t kind, std::int32_t value);
    /// Ends the worker; derived destructors call it before their parts go.
    void StopWorker();

    std::array<SignalSlot, kSlots> m_arSlots;
    std::vector<std::unique_ptr<TriggerSource>> m_arTriggerSources;
    // The trigger set-up's masks, cleared at each set-up.
    std::int32_t m_nSourceMask = 0; ///< "RP[1]"
    std::int32_t m_nEventMask = 0;  ///< "RP[7]"
    std::int32_t m_nEdgeMask = 0;   ///< "RP[6]"

private:
    int Clear();
    int WaitForRecording();
    int Upload();
    int Finish();
    void Post(Window* pWnd, unsigned message, std::uintptr_t wParam = 0);
    void ShowError(const std::string& text);
    double QuerySampleTime();

    mutable std::recursive_mutex m_csCom; // held while the link is used, so a drop waits for it
    CCommunication* m_pCom;
    std::string m_sVersion;
    Window* m_pScopeWnd = nullptr;
    Window* m_pFrameWnd = nullptr;
    std::atomic<std::int32_t> m_nDone{0};
    std::atomic<std::int32_t> m_nAbort{0};
    bool m_bTriggerSeen = false; // the drive was last seen waiting for its trigger
    CRecordSettings m_Settings;
    std::string m_sTriggerName = "(No Trigger)";
    std::vector<std::unique_ptr<CVector>> m_arVectors;
    std::vector<std::unique_ptr<CViewWindow>> m_arViews;
    int m_nStartMode = 0;
    std::string m_sScopeFile = kDefaultScopeFile;
    double m_dSampleTime = 0;
    std::string m_sLastError;
    std::chrono::milliseconds m_PollInterval = kPollInterval;
    std::thread m_Worker;
    std::atomic<int> m_nPhaseResult{0};
};

} // namespace tessitor
