// The main window: the open drives in a tree on the left, each drive's
// windows (terminal, scope, motion monitor, parameters, applications) as
// MDI children,
// and the drive menu to connect, disconnect and reconnect.
#pragma once

#include <QMainWindow>
#include <map>
#include <memory>
#include <vector>

#include "ui/gui/drivesession.h"

class QMdiArea;
class QMdiSubWindow;
class QTreeWidget;
class QTreeWidgetItem;

namespace tessitor::gui {

class CQtWindow;

class CMainFrame : public QMainWindow {
    Q_OBJECT
public:
    /// The kinds of a drive's windows, as the tree names them.
    enum ChildKind { kTerminal, kScope, kMonitor, kParameters, kApplications };

    CMainFrame();
    ~CMainFrame() override;

    /// Opens a drive as request says: the new session, in the tree as
    /// "connecting..." while its link opens on a thread of its own. Once
    /// connected its terminal opens; a failure is shown in the
    /// "Communication Device Error" box and the drive leaves the tree.
    CDriveSession* OpenDrive(const CConnectRequest& request);
    /// Opens the embedded virtual drive of product (and then its terminal).
    CDriveSession* OpenVirtualDrive(const std::string& product = "Talvina");
    /// The window of kind for session, opened (or brought forward) now.
    QWidget* ShowChild(CDriveSession* session, ChildKind kind);
    /// Closes session's windows and the session; one still connecting
    /// leaves the tree now and goes when its connect has ended.
    void CloseDrive(CDriveSession* session);

    const std::vector<std::unique_ptr<CDriveSession>>& Sessions() const { return m_arSessions; }
    QTreeWidget* DriveTree() const { return m_pTree; }
    QMdiArea* MdiArea() const { return m_pMdi; }
    /// The Window the drives report their link failures to.
    CQtWindow* FrameWindow() const { return m_pFrameWindow; }

private:
    void ConnectDialog();
    void Reconnect(CDriveSession* session);
    void ConnectFinished(CDriveSession* session, const QString& error);
    bool Owns(CDriveSession* session) const;
    CDriveSession* CurrentSession() const;
    void UpdateItem(CDriveSession* session);
    QTreeWidgetItem* ItemOf(CDriveSession* session) const;
    QWidget* MakeChild(CDriveSession* session, ChildKind kind);

    QMdiArea* m_pMdi;
    QTreeWidget* m_pTree;
    CQtWindow* m_pFrameWindow;
    std::vector<std::unique_ptr<CDriveSession>> m_arSessions;
    std::map<std::pair<CDriveSession*, int>, QMdiSubWindow*> m_arChildren;
    std::vector<CDriveSession*> m_arClosing; // closed while connecting
};

} // namespace tessitor::gui
