#include "ui/gui/drivesession.h"

#include <pthread.h>

#include <QPointer>

#include "communication/lastconnection.h"
#include "core/trace.h"
#include "core/ui.h"
#include "sim/simdrive.h"
#include "sim/simserialserver.h"
#include "ui/gui/qtwindow.h"

namespace tessitor::gui {

bool CDriveSession::IsDriveRefusal(const CCommunication::CExceptionComm& e)
{
    return e.m_nErrorSource == kErrSrcDrive || e.m_nErrorSource == kErrSrcCanDrive
        || e.m_nErrorSource == kErrSrcSdoAbort;
}

CDriveSession::CDriveSession(CConnectRequest request, CQtWindow* frame, QObject* parent)
    : QObject(parent), m_Request(std::move(request)), m_pFrame(frame)
{
}

CDriveSession::~CDriveSession()
{
    StopWorker();
    // A connect under way ends within the link's time-outs.
    if (m_Connector.joinable())
        m_Connector.join();
    for (std::unique_ptr<CCommunication>* link : {&m_pLink, &m_pConnectedLink}) {
        if (!*link)
            continue;
        (*link)->RemoveListenerCom(this);
        if ((*link)->IsConnected())
            (*link)->Disconnect();
    }
}

void CDriveSession::Connect()
{
    if (m_bConnected || m_bConnecting)
        return;
    StopWorker();
    if (m_Connector.joinable())
        m_Connector.join();
    if (m_pLink)
        m_pLink->RemoveListenerCom(this);
    m_pLink.reset();
    m_bConnecting = true;

    LinkOptions options = m_Request.options;
    if (m_Request.bVirtual) {
        try {
            if (!m_pVirtualDrive)
                m_pVirtualDrive = std::make_shared<sim::CSimDrive>(m_Request.sProduct);
            // A stopped virtual drive comes back on a new pseudo-terminal,
            // as an unplugged drive comes back on its port.
            m_pVirtualServer = std::make_shared<sim::CSimSerialServer>(m_pVirtualDrive);
            m_pVirtualServer->Start();
        } catch (const std::exception& e) {
            m_sConnectError = std::string("Create Communication Device Fault. ") + e.what();
            QMetaObject::invokeMethod(this, [this] { ConnectDone(); }, Qt::QueuedConnection);
            return;
        }
        options.sSerialPath = m_pVirtualServer->SlavePath();
    }

    m_Connector = std::thread([this, info = m_Request.info, options, bRemember = !m_Request.bVirtual] {
        pthread_setname_np(pthread_self(), kConnectThreadName);
        std::unique_ptr<CCommunication> link;
        std::string error;
        try {
            link = CreateLink(info, options);
            if (int result = link->Connect()) {
                error = ConnectFaultText(*link, result);
            } else {
                link->Identify();
                // An open port with nothing answering behind it is no drive.
                if (!link->IsIdentified())
                    error = CCommunication::CExceptionComm(COM_TIMEOUT, link.get(), kErrSrcTransport).FillMessage()
                        + "\n" + link->DeviceName() + ": no answer to \"VR\".";
            }
        } catch (CCommunication::CExceptionComm& e) {
            error = e.FillMessage();
        }
        if (!error.empty() && link && link->IsConnected())
            link->Disconnect();
        std::string saveError;
        if (error.empty() && bRemember && !SaveLastConnection(info, options, saveError))
            Trace::Printf("CDriveSession::Connect: %s\n", saveError.c_str());
        {
            std::lock_guard lock(m_csJobs);
            m_sConnectError = error;
            if (error.empty())
                m_pConnectedLink = std::move(link);
        }
        QMetaObject::invokeMethod(this, [this] { ConnectDone(); }, Qt::QueuedConnection);
    });
}

void CDriveSession::ConnectDone()
{
    if (m_Connector.joinable())
        m_Connector.join();
    std::string error;
    {
        std::lock_guard lock(m_csJobs);
        error = std::move(m_sConnectError);
        m_sConnectError.clear();
        m_pLink = std::move(m_pConnectedLink);
    }
    m_bConnecting = false;
    if (!m_pLink) {
        emit ConnectFinished(QString::fromStdString(error));
        return;
    }
    m_pLink->AddListenerCom(this);
    m_bConnected = true;
    m_bWasConnected = true;
    m_bPollSuspended = false;
    StartWorker();
    emit ConnectedChanged(true);
    emit ConnectFinished({});
}

void CDriveSession::Disconnect()
{
    Post([](CCommunication& link) { link.Disconnect(); });
}

QString CDriveSession::Title() const
{
    std::string where = m_Request.bVirtual ? "virtual drive" : m_Request.info.GetDisplayText();
    if (m_pLink && !m_pLink->GetVersionText().empty())
        return QString::fromStdString(m_pLink->GetVersionText() + " - " + where);
    return QString::fromStdString(where);
}

void CDriveSession::Post(Job job)
{
    if (!m_bConnected)
        return;
    {
        std::lock_guard lock(m_csJobs);
        m_arJobs.push_back(std::move(job));
    }
    m_cvJobs.notify_one();
}

void CDriveSession::SetPollInterval(std::chrono::milliseconds interval)
{
    {
        std::lock_guard lock(m_csJobs);
        m_PollInterval = interval;
    }
    m_cvJobs.notify_one();
}

void CDriveSession::StartWorker()
{
    m_bStop = false;
    m_Worker = std::thread([this] {
        pthread_setname_np(pthread_self(), kThreadName);
        WorkerLoop();
        Trace::Printf("The thread %s has exited with code %d\n", kThreadName, 0);
    });
}

void CDriveSession::StopWorker()
{
    {
        std::lock_guard lock(m_csJobs);
        m_bStop = true;
        m_arJobs.clear();
    }
    m_cvJobs.notify_one();
    if (m_Worker.joinable())
        m_Worker.join();
}

void CDriveSession::WorkerLoop()
{
    using Clock = std::chrono::steady_clock;
    auto nextPoll = Clock::now();
    std::unique_lock lock(m_csJobs);
    while (!m_bStop) {
        // The user's commands go first: a poll waits for an empty queue.
        if (!m_arJobs.empty()) {
            Job job = std::move(m_arJobs.front());
            m_arJobs.pop_front();
            lock.unlock();
            RunJob(job, true);
            lock.lock();
            continue;
        }
        bool bPolling = m_PollInterval.count() > 0 && !m_bPollSuspended;
        if (bPolling && Clock::now() >= nextPoll) {
            lock.unlock();
            Poll();
            lock.lock();
            nextPoll = Clock::now() + m_PollInterval;
            continue;
        }
        if (bPolling)
            m_cvJobs.wait_until(lock, nextPoll);
        else
            m_cvJobs.wait(lock);
    }
}

void CDriveSession::RunJob(const Job& job, bool bResumesPolling)
{
    if (!m_pLink->IsConnected())
        return;
    try {
        job(*m_pLink);
        std::lock_guard lock(m_csJobs);
        if (bResumesPolling)
            m_bPollSuspended = false;
    } catch (CCommunication::CExceptionComm& e) {
        if (IsDriveRefusal(e)) {
            Trace::Printf("CDriveSession::RunJob: %s\n", e.FillMessage().c_str());
            return;
        }
        if (e.ReportError(m_pFrame) == IDYES && m_pLink->IsConnected())
            m_pLink->Disconnect();
    }
}

void CDriveSession::Poll()
{
    RunJob([this](CCommunication& link) {
        std::string value;
        int result = -1;
        try {
            result = link.SendCommandGetValue("SR", value, kCommandTimeoutMs);
        } catch (...) {
            // One box for a drive that stopped answering, not one a poll.
            std::lock_guard lock(m_csJobs);
            m_bPollSuspended = true;
            throw;
        }
        if (result != 0) { // the link is broken and its failure was reported already
            std::lock_guard lock(m_csJobs);
            m_bPollSuspended = true;
            return;
        }
        long sr = std::strtol(value.c_str(), nullptr, 10);
        QMetaObject::invokeMethod(
            this,
            [this, sr] {
                m_nLastStatus = sr;
                emit StatusRead(sr);
            },
            Qt::QueuedConnection);
    }, false);
}

void CDriveSession::OnCommunicationDestroy(CCommunication*) {}

void CDriveSession::OnCommunicationDisconnect(CCommunication*)
{
    // Told on whichever thread closed the link; the state belongs to the GUI.
    QMetaObject::invokeMethod(this, [this] { LinkWentDown(); }, Qt::QueuedConnection);
}

void CDriveSession::LinkWentDown()
{
    if (!m_bConnected)
        return;
    m_bConnected = false;
    {
        std::lock_guard lock(m_csJobs);
        m_bStop = true;
        m_arJobs.clear();
    }
    m_cvJobs.notify_one();
    emit ConnectedChanged(false);
}

} // namespace tessitor::gui
