#include "ui/gui/mainframe.h"

#include <QApplication>
#include <QDockWidget>
#include <QHeaderView>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QStatusBar>
#include <QToolBar>
#include <QTreeWidget>
#include <algorithm>

#include "communication/drivestatus.h"
#include "core/ui.h"
#include "ui/gui/applicationswindow.h"
#include "ui/gui/connectdialog.h"
#include "ui/gui/monitorwindow.h"
#include "ui/gui/parameterswindow.h"
#include "ui/gui/qtwindow.h"
#include "ui/gui/scopewindow.h"
#include "ui/gui/terminalwindow.h"

namespace tessitor::gui {

namespace {

constexpr int kSessionRole = Qt::UserRole;
constexpr int kKindRole = Qt::UserRole + 1;
constexpr char kConnectFaultCaption[] = "Communication Device Error";

const char* ChildName(int kind)
{
    switch (kind) {
    case CMainFrame::kTerminal:
        return "Terminal";
    case CMainFrame::kScope:
        return "Scope";
    case CMainFrame::kMonitor:
        return "Motion Monitor";
    case CMainFrame::kParameters:
        return "Parameters";
    default:
        return "Applications";
    }
}

} // namespace

CMainFrame::CMainFrame()
{
    setWindowTitle("Tessitor");
    m_pFrameWindow = new CQtWindow(this, [](unsigned, std::uintptr_t, std::intptr_t) -> std::intptr_t { return 0; });
    m_pMdi = new QMdiArea;
    m_pMdi->setViewMode(QMdiArea::SubWindowView);
    setCentralWidget(m_pMdi);

    m_pTree = new QTreeWidget;
    m_pTree->setObjectName("driveTree");
    m_pTree->setHeaderLabels({"Drive", "State"});
    m_pTree->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_pTree->setMinimumWidth(380);
    auto* dock = new QDockWidget("Drives");
    dock->setObjectName("drivesDock");
    dock->setWidget(m_pTree);
    dock->setFeatures(QDockWidget::DockWidgetMovable);
    addDockWidget(Qt::LeftDockWidgetArea, dock);
    connect(m_pTree, &QTreeWidget::itemDoubleClicked, this, [this](QTreeWidgetItem* item) {
        auto* session = item->data(0, kSessionRole).value<CDriveSession*>();
        if (session && session->IsConnected())
            ShowChild(session, static_cast<ChildKind>(item->parent() ? item->data(0, kKindRole).toInt() : kTerminal));
    });

    QMenu* drive = menuBar()->addMenu("&Drive");
    QToolBar* tools = addToolBar("Drive");
    tools->setObjectName("driveTools");
    QAction* virtualAction = drive->addAction("Open &Virtual Drive", this, [this] { OpenVirtualDrive(); });
    QAction* connectAction = drive->addAction("&Connect...", this, &CMainFrame::ConnectDialog);
    connectAction->setShortcut(QKeySequence("Ctrl+N"));
    drive->addSeparator();
    QAction* disconnectAction = drive->addAction("&Disconnect", this, [this] {
        if (CDriveSession* session = CurrentSession())
            session->Disconnect();
    });
    QAction* reconnectAction = drive->addAction("&Reconnect", this, [this] {
        if (CDriveSession* session = CurrentSession())
            Reconnect(session);
    });
    QAction* closeAction = drive->addAction("C&lose Drive", this, [this] {
        if (CDriveSession* session = CurrentSession())
            CloseDrive(session);
    });
    drive->addSeparator();
    drive->addAction("E&xit", this, &QWidget::close);
    tools->addAction(virtualAction);
    tools->addAction(connectAction);
    tools->addAction(disconnectAction);
    tools->addAction(reconnectAction);
    tools->addAction(closeAction);

    QMenu* windows = menuBar()->addMenu("&Window");
    for (int kind = kTerminal; kind <= kApplications; ++kind)
        windows->addAction(ChildName(kind), this, [this, kind] {
            CDriveSession* session = CurrentSession();
            if (session && session->IsConnected())
                ShowChild(session, static_cast<ChildKind>(kind));
        });
    windows->addSeparator();
    windows->addAction("&Tile", m_pMdi, &QMdiArea::tileSubWindows);
    windows->addAction("&Cascade", m_pMdi, &QMdiArea::cascadeSubWindows);
    statusBar()->showMessage("Open a drive: Drive > Open Virtual Drive needs no hardware.");
    resize(1200, 800);
}

CMainFrame::~CMainFrame()
{
    // The windows go before the drives they use.
    m_pMdi->closeAllSubWindows();
    for (QMdiSubWindow* child : m_pMdi->subWindowList())
        delete child;
    m_arChildren.clear();
    m_arSessions.clear();
}

void CMainFrame::ConnectDialog()
{
    CConnectDialog dialog(this);
    if (dialog.exec() == QDialog::Accepted)
        OpenDrive(dialog.Request());
}

CDriveSession* CMainFrame::OpenVirtualDrive(const std::string& product)
{
    CConnectRequest request;
    request.bVirtual = true;
    request.sProduct = product;
    request.info.wBaudRate = 115200;
    return OpenDrive(request);
}

CDriveSession* CMainFrame::OpenDrive(const CConnectRequest& request)
{
    m_arSessions.push_back(std::make_unique<CDriveSession>(request, m_pFrameWindow));
    CDriveSession* raw = m_arSessions.back().get();

    auto* item = new QTreeWidgetItem(m_pTree);
    item->setData(0, kSessionRole, QVariant::fromValue(raw));
    for (int kind = kTerminal; kind <= kApplications; ++kind) {
        auto* child = new QTreeWidgetItem(item, {ChildName(kind)});
        child->setData(0, kSessionRole, QVariant::fromValue(raw));
        child->setData(0, kKindRole, kind);
    }
    item->setExpanded(true);
    m_pTree->setCurrentItem(item);
    connect(raw, &CDriveSession::StatusRead, this, [this, raw] { UpdateItem(raw); });
    connect(raw, &CDriveSession::ConnectedChanged, this, [this, raw](bool connected) {
        UpdateItem(raw);
        statusBar()->showMessage(raw->Title() + (connected ? ": connected" : ": disconnected"));
    });
    connect(raw, &CDriveSession::ConnectFinished, this,
            [this, raw](const QString& error) { ConnectFinished(raw, error); });
    raw->Connect();
    UpdateItem(raw);
    statusBar()->showMessage(raw->Title() + ": connecting...");
    return raw;
}

void CMainFrame::ConnectFinished(CDriveSession* session, const QString& error)
{
    // This runs inside the session's own signal: a session to close goes
    // once that has returned.
    auto closeLater = [this, session] {
        QMetaObject::invokeMethod(this, [this, session] {
            if (Owns(session))
                CloseDrive(session);
        }, Qt::QueuedConnection);
    };
    if (auto closing = std::find(m_arClosing.begin(), m_arClosing.end(), session); closing != m_arClosing.end()) {
        m_arClosing.erase(closing);
        closeLater();
        return;
    }
    UpdateItem(session);
    if (!error.isEmpty()) {
        statusBar()->showMessage(session->Title() + ": not connected");
        Ui::Current().MessageBox(m_pFrameWindow, error.toStdString(), kConnectFaultCaption, MB_OK | MB_ICONSTOP);
        // A drive that never opened leaves no trace; one that did stays, to be reconnected.
        if (!session->WasConnected())
            closeLater();
        return;
    }
    statusBar()->showMessage(session->Title() + ": connected");
    if (!m_arChildren.count({session, kTerminal}))
        ShowChild(session, kTerminal);
}

bool CMainFrame::Owns(CDriveSession* session) const
{
    return std::any_of(m_arSessions.begin(), m_arSessions.end(),
                       [session](const auto& owned) { return owned.get() == session; });
}

void CMainFrame::Reconnect(CDriveSession* session)
{
    if (session->IsConnected() || session->IsConnecting())
        return;
    session->Connect();
    UpdateItem(session);
}

void CMainFrame::CloseDrive(CDriveSession* session)
{
    for (auto it = m_arChildren.begin(); it != m_arChildren.end();) {
        if (it->first.first == session) {
            delete it->second;
            it = m_arChildren.erase(it);
        } else {
            ++it;
        }
    }
    delete ItemOf(session);
    if (session->IsConnecting()) {
        // Its connect thread holds on to it until the link's time-outs end.
        m_arClosing.push_back(session);
        return;
    }
    std::erase_if(m_arSessions, [session](const auto& owned) { return owned.get() == session; });
}

CDriveSession* CMainFrame::CurrentSession() const
{
    QTreeWidgetItem* item = m_pTree->currentItem();
    if (!item && m_pTree->topLevelItemCount() == 1)
        item = m_pTree->topLevelItem(0);
    return item ? item->data(0, kSessionRole).value<CDriveSession*>() : nullptr;
}

QTreeWidgetItem* CMainFrame::ItemOf(CDriveSession* session) const
{
    for (int i = 0; i < m_pTree->topLevelItemCount(); ++i)
        if (m_pTree->topLevelItem(i)->data(0, kSessionRole).value<CDriveSession*>() == session)
            return m_pTree->topLevelItem(i);
    return nullptr;
}

void CMainFrame::UpdateItem(CDriveSession* session)
{
    QTreeWidgetItem* item = ItemOf(session);
    if (!item)
        return;
    item->setText(0, session->Title());
    QString state = session->IsConnecting() ? "connecting..." : session->IsConnected() ? "connected" : "disconnected";
    if (session->IsConnected() && session->LastStatus() >= 0) {
        auto sr = static_cast<unsigned long>(session->LastStatus());
        state += ", " + QString::fromStdString(CDriveStatus::Decode(sr).Text());
    }
    item->setText(1, state);
    item->setForeground(1, session->IsConnected() || session->IsConnecting() ? palette().text() : QBrush(Qt::red));
}

QWidget* CMainFrame::ShowChild(CDriveSession* session, ChildKind kind)
{
    auto key = std::make_pair(session, static_cast<int>(kind));
    if (auto it = m_arChildren.find(key); it != m_arChildren.end()) {
        m_pMdi->setActiveSubWindow(it->second);
        return it->second->widget();
    }
    QWidget* child = MakeChild(session, kind);
    if (!child)
        return nullptr;
    const QSize preferred = child->size(); // each window sets the size it wants
    QMdiSubWindow* sub = m_pMdi->addSubWindow(child);
    sub->setAttribute(Qt::WA_DeleteOnClose);
    sub->resize(sub->sizeHint().expandedTo(preferred));
    m_arChildren[key] = sub;
    connect(sub, &QObject::destroyed, this, [this, key] { m_arChildren.erase(key); });
    sub->show();
    return child;
}

QWidget* CMainFrame::MakeChild(CDriveSession* session, ChildKind kind)
{
    switch (kind) {
    case kTerminal:
        return new CTerminalWindow(session);
    case kScope:
        return new CScopeWindow(session);
    case kMonitor:
        return new CMonitorWindow(session);
    case kParameters:
        return new CParametersWindow(session);
    case kApplications:
        return new CApplicationsWindow(session);
    default:
        return nullptr;
    }
}

} // namespace tessitor::gui
