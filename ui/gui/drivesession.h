// One open drive of the GUI: its link (and the embedded virtual drive
// behind it, when that is what the user opened), a worker thread that runs
// the windows' commands one after another and polls "SR" when idle, and the
// connected state the drive tree shows. The windows never call the link
// from the GUI thread; they post jobs here.
#pragma once

#include <QObject>
#include <QString>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "communication/communication.h"
#include "communication/linkfactory.h"

namespace tessitor::sim {
class CSimDrive;
class CSimSerialServer;
} // namespace tessitor::sim

namespace tessitor::gui {

class CQtWindow;

/// What the connection dialog asks for.
struct CConnectRequest {
    CCommunicationInfo info;
    LinkOptions options;
    bool bVirtual = false;            ///< the embedded virtual drive on a pseudo-terminal
    std::string sProduct = "Talvina"; ///< product of the virtual drive
};

class CDriveSession : public QObject, public CCommunication::CListenerComm {
    Q_OBJECT
public:
    using Job = std::function<void(CCommunication& link)>;

    /// Reply time-out of the windows' commands and of the status poll, in ms.
    static constexpr std::uint32_t kCommandTimeoutMs = 1000;
    /// How often an idle drive is asked "SR".
    static constexpr std::chrono::milliseconds kDefaultPollInterval{500};
    /// Shown where a command is refused because an earlier failure broke the link.
    static constexpr char kBrokenLinkText[] = "The link is broken: reconnect the drive.";
    /// Names of the worker thread and of the connect thread.
    static constexpr char kThreadName[] = "DriveWorker";
    static constexpr char kConnectThreadName[] = "DriveConnect";

    /// True when e is the drive refusing a command (its error text), not a
    /// failure of the link.
    static bool IsDriveRefusal(const CCommunication::CExceptionComm& e);

    /// Not connected yet; errors are reported over frame (not owned).
    CDriveSession(CConnectRequest request, CQtWindow* frame, QObject* parent = nullptr);
    /// Ends the worker and closes the link.
    ~CDriveSession() override;

    /// Starts the virtual drive (when that is what was asked), then opens
    /// the link and identifies the drive on a thread of its own
    /// ("DriveConnect"), so a port or host that does not answer never holds
    /// the GUI up; on success stores the connection as the last one (not for
    /// the virtual drive). ConnectFinished tells the outcome. Nothing is done
    /// while connected or connecting.
    void Connect();
    /// Closes the link on the worker after the jobs already posted.
    void Disconnect();
    bool IsConnected() const { return m_bConnected; }
    bool IsConnecting() const { return m_bConnecting; }
    /// True once a connect succeeded.
    bool WasConnected() const { return m_bWasConnected; }

    /// "Talvina 1.5.2.0 - /dev/pts/4" once identified, else the descriptor.
    QString Title() const;
    const CConnectRequest& Request() const { return m_Request; }
    /// The link, for the windows' own workers (recorder); null before the
    /// first connect. Only the GUI thread replaces it (on Connect).
    CCommunication* Link() const { return m_pLink.get(); }
    /// The virtual drive served to this session, or null.
    sim::CSimSerialServer* VirtualDrive() const { return m_pVirtualServer.get(); }

    /// Runs job on the worker after the jobs posted before it. A drive's
    /// refusal the job lets escape is traced; a link failure is reported in
    /// the "Communication Device Error" box, and Yes disconnects. Dropped
    /// when the drive is not connected.
    void Post(Job job);
    /// Time between status polls; zero stops them.
    void SetPollInterval(std::chrono::milliseconds interval);
    /// The last "SR" value read, or -1.
    long LastStatus() const { return m_nLastStatus; }

    void OnCommunicationDestroy(CCommunication* pCom) override;
    void OnCommunicationDisconnect(CCommunication* pCom) override;

signals:
    /// A status poll read sr.
    void StatusRead(long sr);
    /// The link opened or closed.
    void ConnectedChanged(bool connected);
    /// A connect ended: error is empty, or why it failed in the system's words.
    void ConnectFinished(const QString& error);

private:
    void StartWorker();
    void StopWorker();
    void WorkerLoop();
    /// A user's job that gets through lets a suspended poll go on.
    void RunJob(const Job& job, bool bResumesPolling);
    void Poll();
    void LinkWentDown();
    /// Takes over what the connect thread left, on the GUI thread.
    void ConnectDone();

    CConnectRequest m_Request;
    CQtWindow* m_pFrame;
    std::shared_ptr<sim::CSimDrive> m_pVirtualDrive;
    std::shared_ptr<sim::CSimSerialServer> m_pVirtualServer;
    std::unique_ptr<CCommunication> m_pLink;
    bool m_bConnected = false;
    bool m_bConnecting = false;
    bool m_bWasConnected = false;
    std::thread m_Connector;
    std::unique_ptr<CCommunication> m_pConnectedLink; // left by the connect thread, under m_csJobs
    std::string m_sConnectError;                      // likewise
    long m_nLastStatus = -1;

    std::mutex m_csJobs;
    std::condition_variable m_cvJobs;
    std::deque<Job> m_arJobs;
    bool m_bStop = false;
    bool m_bPollSuspended = false; // after a failed poll, until a job gets through
    std::chrono::milliseconds m_PollInterval = kDefaultPollInterval;
    std::thread m_Worker;
};

} // namespace tessitor::gui
