#include "recorder/recorder.h"

#include <pthread.h>

#include <cstdlib>

#include "core/strformat.h"
#include "core/trace.h"
#include "core/ui.h"
#include "core/window.h"
#include "recorder/recbrenol.h"
#include "recorder/rectalvina.h"
#include "recorder/scopefile.h"

namespace tessitor {

namespace {

constexpr char kThreadName[] = "RecorderThread";
constexpr char kErrorCaption[] = "Error";
constexpr char kScopeCaption[] = "Scope Message";

// Drive recorder states, "SR" bits 16-17.
constexpr int kSrStateShift = 16;
constexpr unsigned long kSrStateMask = 3;
constexpr int kStateIdle = 0;
constexpr int kStateWaiting = 1;
constexpr int kStateComplete = 2;
constexpr int kStateRecording = 3;

// The drive's sample time when it does not tell it ("RP[12]", microseconds
// between two recorded samples): one servo period of 100 us per gap step.
constexpr double kServoPeriodSeconds = 100e-6;

} // namespace

std::unique_ptr<CRecorder> CRecorder::Create(CCommunication* pCom)
{
    if (!pCom)
        return nullptr;
    const std::string& family = pCom->GetProcessorType();
    if (family == "DSP" || family == "STP")
        return std::make_unique<CRecTalvina>(pCom);
    if (family == "BreNol")
        return std::make_unique<CRecBreNol>(pCom);
    return nullptr;
}

CRecorder::CRecorder(CCommunication* pCom) : m_pCom(pCom)
{
    if (m_pCom) {
        m_sVersion = m_pCom->GetVersionText();
        m_pCom->AddListenerCom(this);
    }
}

CRecorder::~CRecorder()
{
    StopWorker();
    std::lock_guard lock(m_csCom);
    if (m_pCom)
        m_pCom->RemoveListenerCom(this);
}

void CRecorder::StopWorker()
{
    m_nDone = 1;
    if (m_Worker.joinable())
        m_Worker.join();
}

void CRecorder::SetWindows(Window* pScopeWnd, Window* pFrameWnd)
{
    m_pScopeWnd = pScopeWnd;
    m_pFrameWnd = pFrameWnd;
}

CCommunication* CRecorder::GetCommunication() const
{
    std::lock_guard lock(m_csCom);
    return m_pCom;
}

void CRecorder::OnCommunicationDestroy(CCommunication* pCom)
{
    OnCommunicationDisconnect(pCom);
}

void CRecorder::OnCommunicationDisconnect(CCommunication* pCom)
{
    // Waits for a command or upload in flight: the link stays whole until
    // this returns, and the worker finds no link afterwards.
    std::lock_guard lock(m_csCom);
    if (m_pCom == pCom) {
        m_pCom->RemoveListenerCom(this);
        m_pCom = nullptr;
    }
}

// --------------------------------------------------------------- trigger list

void CRecorder::AddTriggerRow(const std::string& name, std::int32_t kind, std::int32_t value)
{
    m_arTriggerSources.push_back(std::make_unique<TriggerSource>(TriggerSource{name, kind, value}));
}

int CRecorder::FindTriggerRow(const std::string& name) const
{
    for (std::size_t row = 0; row < m_arTriggerSources.size(); ++row)
        if (m_arTriggerSources[row]->sName == name)
            return static_cast<int>(row);
    return -1;
}

void CRecorder::SelectTrigger(int row)
{
    m_Settings.nTrigger = TriggerSetting(row);
    m_sTriggerName = m_arTriggerSources.at(static_cast<std::size_t>(row))->sName;
}

// -------------------------------------------------------------- slots, displays

std::uint32_t CRecorder::SlotMask(const std::string& signal) const
{
    if (signal == kNoSignal)
        return 0;
    for (int slot = 0; slot < kSlots; ++slot)
        if (m_arSlots[slot].sName == signal)
            return 1u << slot;
    return 0;
}

std::uint32_t CRecorder::RecordedMask() const
{
    std::uint32_t mask = 0;
    for (const CRecordSettings::Display& display : m_Settings.arDisplays)
        mask |= SlotMask(display.sSignal);
    return mask;
}

CViewWindow& CRecorder::AddDisplay(const std::string& signal)
{
    m_arVectors.push_back(std::make_unique<CVector>());
    CVector* store = m_arVectors.back().get();
    m_arViews.push_back(std::make_unique<CViewWindow>(static_cast<int>(m_arViews.size()) + 1, signal, store));
    m_Settings.arDisplays.push_back({signal, store});
    return *m_arViews.back();
}

// ------------------------------------------------------------------ commands

std::string CRecorder::Send(const std::string& command)
{
    std::lock_guard lock(m_csCom);
    if (!m_pCom)
        throw CCommunication::CExceptionComm(3, nullptr, kErrSrcSetup);
    std::string value;
    if (m_pCom->SendCommandGetValue(command, value, kStartTimeoutMs) != 0)
        throw CCommunication::CExceptionComm(3, m_pCom, kErrSrcSetup); // the link check found it broken
    return value;
}

void CRecorder::SendPreTrigger()
{
    const std::string& text = m_Settings.sPreTrigger;
    // The field ends in its unit ("25%"), which the drive does not take.
    Send("RP[2]=" + text.substr(0, text.empty() ? 0 : text.size() - 1));
}

bool CRecorder::RefuseEqualLevels()
{
    if (m_Settings.dLevel1 != m_Settings.dLevel2)
        return false;
    Ui::Current().MessageBox(m_pScopeWnd, kEqualLevelsText, kScopeCaption, MB_OK | MB_ICONERROR);
    m_nAbort = 1;
    return true;
}

int CRecorder::StartRecording()
{
    m_nStartMode = 0;
    try {
        Send("RR=0");
        Send(StrFormat("RC=%d", static_cast<int>(RecordedMask())));
        int mode = SetupTrigger();
        if (mode == 0)
            return 0;
        Send("RG=" + m_Settings.sGap);
        Send("RL=" + m_Settings.sLength);
        Send(StrFormat("RR=%d", mode));
        m_nStartMode = mode;
        return mode;
    } catch (CCommunication::CExceptionComm& e) {
        Post(m_pScopeWnd, kMsgRecStartFailed, 0);
        e.ReportError(m_pFrameWnd);
        Post(m_pScopeWnd, kMsgRecStartFailed, 1);
        return 0;
    }
}

// -------------------------------------------------------------------- worker

void CRecorder::Post(Window* pWnd, unsigned message, std::uintptr_t wParam)
{
    if (pWnd)
        pWnd->PostMessage(message, wParam, 0);
}

void CRecorder::ShowError(const std::string& text)
{
    Ui::Current().MessageBox(m_pScopeWnd, text, kErrorCaption, MB_OK | MB_ICONERROR);
}

void CRecorder::StartPhase(int phase)
{
    if (m_Worker.joinable())
        m_Worker.join();
    m_nDone = 0;
    m_nPhaseResult = 0;
    m_Worker = std::thread([this, phase] {
        pthread_setname_np(pthread_self(), kThreadName);
        int result = RunPhase(phase);
        m_nPhaseResult = result;
        m_nDone = 1;
        Trace::Printf("The thread %s has exited with code %d\n", kThreadName, result);
    });
}

int CRecorder::WaitPhase()
{
    if (m_Worker.joinable())
        m_Worker.join();
    return m_nPhaseResult.load();
}

int CRecorder::RunPhase(int phase)
{
    m_nDone = 0;
    m_sLastError.clear();
    int result = 0;
    try {
        switch (phase) {
        case kPhaseClear: result = Clear(); break;
        case kPhaseWait: result = WaitForRecording(); break;
        case kPhaseUpload: result = Upload(); break;
        case kPhaseFinish: result = Finish(); break;
        default: break;
        }
    } catch (CCommunication::CExceptionComm& e) {
        m_sLastError = e.FillMessage();
        Trace::Printf("CRecorder::RunPhase(%d): %s\n", phase, m_sLastError.c_str());
        ShowError(kProblemText);
        result = 0;
    }
    m_nDone = 1;
    return result;
}

int CRecorder::Clear()
{
    m_bTriggerSeen = false;
    for (auto& vector : m_arVectors)
        vector->Clear();
    return StartRecording() != 0 ? 1 : 0;
}

int CRecorder::WaitForRecording()
{
    int state = -1;
    while (state != kStateComplete && m_nDone == 0 && m_nAbort == 0) {
        std::string value;
        {
            std::lock_guard lock(m_csCom);
            if (!m_pCom || m_pCom->SendCommandGetValue("SR", value, kPollTimeoutMs) != 0)
                throw CCommunication::CExceptionComm(3, m_pCom, kErrSrcSetup);
        }
        unsigned long sr = std::strtoul(value.c_str(), nullptr, 10);
        state = static_cast<int>(sr >> kSrStateShift & kSrStateMask);
        if (state == kStateWaiting && !m_bTriggerSeen) {
            Post(m_pScopeWnd, kMsgRecWaitTrigger);
            m_bTriggerSeen = true;
        } else if (state == kStateRecording && m_bTriggerSeen) {
            Post(m_pScopeWnd, kMsgRecProgress);
            m_bTriggerSeen = false;
        } else if (state == kStateIdle && sr != 0) {
            // Idle with a live status word: the recorder was stopped or never started.
            ShowError(kNotReadyText);
            return 0;
        }
        if (m_nAbort != 0)
            return 0;
        if (state != kStateComplete)
            std::this_thread::sleep_for(m_PollInterval);
    }
    return state == kStateComplete ? 1 : 0;
}

int CRecorder::Upload()
{
    Post(m_pFrameWnd, kMsgRecUpload);
    const auto length = static_cast<std::int32_t>(std::strtol(m_Settings.sLength.c_str(), nullptr, 10));
    for (const CRecordSettings::Display& display : m_Settings.arDisplays) {
        if (m_nAbort != 0)
            return 0;
        std::uint32_t mask = SlotMask(display.sSignal);
        if (mask == 0 || !display.pStore)
            continue;
        int result;
        {
            std::lock_guard lock(m_csCom);
            if (!m_pCom)
                throw CCommunication::CExceptionComm(3, nullptr, kErrSrcSetup);
            result = m_pCom->UploadRecordedData(length, mask, *display.pStore, m_pScopeWnd, &m_nAbort);
        }
        if (m_nAbort != 0)
            return 0;
        if (result != 0) {
            Trace::Printf("The return of ReadVecRecord is %d\n", result);
            ShowError(kCorruptedText);
            return 0;
        }
    }
    return 1;
}

double CRecorder::QuerySampleTime()
{
    double gap = std::strtod(m_Settings.sGap.c_str(), nullptr);
    double fallback = (gap >= 1 ? gap : 1) * kServoPeriodSeconds;
    std::lock_guard lock(m_csCom);
    if (!m_pCom)
        return fallback;
    try {
        std::string value;
        if (m_pCom->SendCommandGetValue("RP[12]", value, kPollTimeoutMs) == 0) {
            char* end = nullptr;
            double micros = std::strtod(value.c_str(), &end);
            if (end != value.c_str() && micros > 0)
                return micros * 1e-6;
        }
    } catch (const CCommunication::CExceptionComm& e) {
        Trace::Printf("CRecorder: the drive does not tell its sample time (%s)\n", e.what());
    }
    return fallback;
}

int CRecorder::Finish()
{
    Post(m_pFrameWnd, kMsgRecFinished);
    std::this_thread::sleep_for(kFinishPause);
    m_dSampleTime = QuerySampleTime();
    CScopeFile file = CScopeFile::FromRecorder(*this);
    if (!file.SaveMat(m_sScopeFile)) {
        m_sLastError = file.Error();
        ShowError(kStorageFailedText);
        return 0;
    }
    return 1;
}

} // namespace tessitor
