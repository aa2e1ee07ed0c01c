// The GUI against the virtual drive: the windows a user opens, the replies
// they show, a drive that stops answering, connecting to ports that do not
// answer, and the connection dialog asking a network device and a CAN bus.
#include <QAction>
#include <QApplication>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPointer>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeWidget>
#include <QWheelEvent>

#include "sim/simserialserver.h"
#include "tests/gui/guitesthelpers.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"
#include "tests/support/scriptedpeer.h"
#include "ui/gui/applicationswindow.h"
#include "ui/gui/connectdialog.h"
#include "ui/gui/mainframe.h"
#include "ui/gui/monitorwindow.h"
#include "ui/gui/parameterswindow.h"
#include "ui/gui/qtui.h"
#include "ui/gui/scopeview.h"
#include "ui/gui/scopewindow.h"
#include "ui/gui/terminalwindow.h"

namespace tessitor::gui::test {

using tessitor::test::CBackgroundProcess;
using tessitor::test::CScriptedPeer;
using tessitor::test::TessitorPath;

namespace {

// Generous: several builds share this machine's two cores.
constexpr int kWaitMs = 20000;
// A connect to a port with no drive lasts the link's identify attempts.
constexpr int kConnectWaitMs = 60000;

} // namespace

class CGuiTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        UseFreshSettings();
        Ui::Install(&m_Ui);
    }
    void cleanupTestCase()
    {
        m_Ui.Close();
        Ui::Install(nullptr);
    }
    void init()
    {
        m_pFrame = std::make_unique<CMainFrame>();
        m_pFrame->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_pFrame.get()));
    }
    void cleanup() { m_pFrame.reset(); }

    void TerminalShowsValuesAndTheDrivesErrors()
    {

        CDriveSession* session = OpenVirtual();
        QVERIFY(session);
        auto* terminal = Show<CTerminalWindow>(session, CMainFrame::kTerminal);
        QVERIFY(terminal);
        terminal->Send("VR");
        terminal->Send("KP[2]=7");
        terminal->Send("KP[2]");
        terminal->Send("KP[7]=1");

        QTRY_VERIFY_WITH_TIMEOUT(terminal->Transcript().contains("> KP[7]=1\n"), kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(terminal->Transcript().count('\n') >= 7, kWaitMs);
        QStringList lines = terminal->Transcript().split('\n');
        QVERIFY2(lines[1].startsWith("Talvina "), qPrintable(lines[1]));
        QCOMPARE(lines[3], QString(""));
        QCOMPARE(lines[5], QString("7"));
        QCOMPARE(lines[7], QString("Error (3) : 'KP[7]=1' : Bad index !"));
        QTRY_VERIFY_WITH_TIMEOUT(m_pFrame->DriveTree()->topLevelItem(0)->text(1).startsWith("connected, motor off"), kWaitMs);
        Shoot(m_pFrame.get(), "terminal");
    }

    void StoppedDriveShowsOneBoxAndOthersGoOn()
    {
        CDriveSession* first = OpenVirtual();
        CDriveSession* second = OpenVirtual("Vosk");
        QVERIFY(first && second);
        auto* firstTerminal = Show<CTerminalWindow>(first, CMainFrame::kTerminal);
        auto* secondTerminal = Show<CTerminalWindow>(second, CMainFrame::kTerminal);
        CBoxWatcher boxes(QMessageBox::Yes, "communication-error");

        first->VirtualDrive()->Stop();
        firstTerminal->Send("PX");

        QTRY_VERIFY_WITH_TIMEOUT(!first->IsConnected(), kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(firstTerminal->Transcript().contains("Disconnected."), kWaitMs);
        QCOMPARE(boxes.m_arSeen.size(), 1);
        QVERIFY2(boxes.m_arSeen[0].startsWith("Communication Device Error|"), qPrintable(boxes.m_arSeen[0]));
        QVERIFY(boxes.m_arSeen[0].endsWith("\nWould you like to disconnect now ?"));
        QTRY_VERIFY_WITH_TIMEOUT(m_pFrame->DriveTree()->topLevelItem(0)->text(1) == "disconnected", kWaitMs);
        Shoot(m_pFrame.get(), "disconnected");

        secondTerminal->Send("VR");
        QTRY_VERIFY_WITH_TIMEOUT(secondTerminal->Transcript().contains("\nVosk "), kWaitMs);
        QVERIFY(second->IsConnected());

        m_pFrame->DriveTree()->setCurrentItem(m_pFrame->DriveTree()->topLevelItem(0));
        Action("&Reconnect")->trigger();
        QTRY_VERIFY_WITH_TIMEOUT(first->IsConnected(), kWaitMs);
        firstTerminal->Send("VR");
        QTRY_VERIFY_WITH_TIMEOUT(firstTerminal->Transcript().contains("\nTalvina "), kWaitMs);
        QCOMPARE(boxes.m_arSeen.size(), 1);
    }

    void ConnectingKeepsTheWindowAnsweringAndAFailureIsOneBox()
    {
        // Two ports with no drive behind them: the link asks "VR" for several
        // seconds on each. The second is closed while it connects.
        CScriptedPeer silent, closed;
        for (CScriptedPeer* peer : {&silent, &closed})
            peer->SetHandler([](const std::string&) { return std::string(); });
        CConnectRequest request;
        request.info.m_sCommType = "RS_232";
        request.options.nTimeoutMs = 300;
        CBoxWatcher boxes(QMessageBox::Ok, "connect-failed");
        int ticks = 0;
        QTimer clock;
        clock.start(20);

        request.options.sSerialPath = silent.Path();
        CDriveSession* session = m_pFrame->OpenDrive(request);
        request.options.sSerialPath = closed.Path();
        m_pFrame->CloseDrive(m_pFrame->OpenDrive(request));
        QPointer<CDriveSession> watched(session); // gone once the failure was shown
        connect(&clock, &QTimer::timeout, [&] { ticks += watched && watched->IsConnecting() ? 1 : 0; });

        QCOMPARE(m_pFrame->DriveTree()->topLevelItemCount(), 1);
        QCOMPARE(m_pFrame->DriveTree()->topLevelItem(0)->text(1), QString("connecting..."));
        QTRY_COMPARE_WITH_TIMEOUT(boxes.m_arSeen.size(), 1, kConnectWaitMs);
        QVERIFY2(ticks >= 5, "the event loop ran while the port was asked");
        QVERIFY2(boxes.m_arSeen[0].startsWith("Communication Device Error|"), qPrintable(boxes.m_arSeen[0]));
        QVERIFY2(boxes.m_arSeen[0].endsWith(silent.Path().c_str() + QString(": no answer to \"VR\".")),
                 qPrintable(boxes.m_arSeen[0]));
        QTRY_COMPARE_WITH_TIMEOUT(m_pFrame->DriveTree()->topLevelItemCount(), 0, kWaitMs);
        QTRY_COMPARE_WITH_TIMEOUT(m_pFrame->Sessions().size(), std::size_t(0), kConnectWaitMs);
        QCOMPARE(boxes.m_arSeen.size(), 1);
    }

    void CanScanListsTheNodesAndConnectsToTheOneChosen()
    {
        CBackgroundProcess bus({TessitorPath(), "sim", "--slcan", "--node", "3,5:Bressa"});
        const QString path = QString::fromStdString(bus.FirstLine());
        QVERIFY(!path.isEmpty());
        CConnectDialog dialog(m_pFrame.get());
        dialog.show();
        dialog.Pages()->setCurrentIndex(2);
        dialog.CanDeviceEdit()->setText(path);

        dialog.ScanButton()->click();
        dialog.ScanButton()->click(); // stops it at once
        QTRY_VERIFY_WITH_TIMEOUT(!dialog.IsBusy(), kWaitMs);
        QVERIFY2(dialog.ErrorText().startsWith("Scan stopped"), qPrintable(dialog.ErrorText()));

        // Generous time-outs for a loaded machine, over a few nodes only.
        dialog.ScanLastBox()->setValue(6);
        dialog.ScanTimeoutBox()->setValue(1000);
        dialog.ScanButton()->click();
        QTRY_VERIFY_WITH_TIMEOUT(!dialog.IsBusy(), kWaitMs);

        QCOMPARE(dialog.ErrorText(), QString());
        QCOMPARE(dialog.ScanProgress()->value(), 6);
        QListWidget* found = dialog.ScanList();
        QCOMPARE(found->count(), 2);
        QVERIFY2(found->item(0)->text().startsWith("Node 3: device type 0x"), qPrintable(found->item(0)->text()));
        QVERIFY2(found->item(1)->text().startsWith("Node 5: device type \"Bressa "), qPrintable(found->item(1)->text()));
        found->setCurrentRow(1);
        QCOMPARE(dialog.CanNodeBox()->value(), 5);
        Shoot(&dialog, "connect-can");
        CBoxWatcher boxes(QMessageBox::Ok);
        emit found->itemDoubleClicked(found->item(1));
        QCOMPARE(dialog.result(), int(QDialog::Accepted));
        CDriveSession* session = m_pFrame->OpenDrive(dialog.Request());
        QTRY_VERIFY_WITH_TIMEOUT(session->IsConnected(), kWaitMs);
        QVERIFY2(session->Title().startsWith("Bressa "), qPrintable(session->Title()));
        // The family's warning, asked on the connect thread, shown on the GUI's.
        QCOMPARE(boxes.m_arSeen.size(), 1);
        QVERIFY(boxes.m_arSeen[0].startsWith("Tessitor|Some of the Tessitor's features might not be supported"));
    }

    void NetworkDeviceListsItsDrivesAside()
    {
        CBackgroundProcess device({TessitorPath(), "sim", "--tcp", "0"});
        const QString where = QString::fromStdString(device.FirstLine());
        QVERIFY2(where.startsWith("127.0.0.1:"), qPrintable(where));
        CConnectDialog dialog(m_pFrame.get());
        dialog.show();
        dialog.Pages()->setCurrentIndex(1);
        dialog.TcpPortBox()->setValue(where.section(':', 1).toInt());
        dialog.TcpTargetBox()->clear();

        dialog.ListButton()->click();

        QVERIFY(dialog.IsBusy() || dialog.TcpTargetBox()->count() > 0);
        QTRY_VERIFY_WITH_TIMEOUT(!dialog.IsBusy(), kWaitMs);
        QCOMPARE(dialog.ErrorText(), QString());
        QCOMPARE(dialog.TcpTargetBox()->itemText(0), QString("RS232 Port 1"));
        Shoot(&dialog, "connect-tcp");
    }

    void ScopeRecordsAMoveAndPlotsTheFilesData()
    {
        QTemporaryDir folder;
        CDriveSession* session = OpenVirtual();
        QVERIFY(session);
        auto* scope = Show<CScopeWindow>(session, CMainFrame::kScope);
        QVERIFY(scope);
        QTRY_VERIFY_WITH_TIMEOUT(scope->IsReady(), kWaitMs);
        QString path = folder.filePath("move.sdv");
        scope->SetScopeFile(path);
        scope->SetSignals({"Position", "Velocity"});
        scope->SetTrigger("Begin Motion");
        scope->SetGap(3);
        scope->SetLength(600);

        scope->Start();

        QTRY_VERIFY_WITH_TIMEOUT(!scope->IsRecording(), kWaitMs);
        QVERIFY2(scope->StateText().startsWith("Recorded and saved to "), qPrintable(scope->StateText()));
        CScopeFile file(0);
        QVERIFY(file.LoadMat(path.toStdString()));
        CScopeView* view = scope->View();
        QCOMPARE(view->Displays(), 2);
        QCOMPARE(file.Rows(), std::size_t(600));
        for (int display = 0; display < 2; ++display) {
            QSharedPointer<QCPGraphDataContainer> data = view->Trace(display)->data();
            QCOMPARE(data->size(), 600);
            for (int row = 0; row < data->size(); ++row) {
                QCOMPARE(data->at(row)->key, file.Value(static_cast<std::size_t>(row), 1));
                QCOMPARE(data->at(row)->value, file.Value(static_cast<std::size_t>(row), static_cast<std::size_t>(display) + 2));
            }
        }
        QVERIFY2(file.Value(599, 2) > file.Value(0, 2) + 1000, "the recording shows the move");
        view->SetCursor(0, 0);
        view->SetCursor(1, 599 * file.SampleTime());
        QVERIFY2(view->CursorText().contains(QString("dV=%1").arg(file.Value(599, 2) - file.Value(0, 2))),
                 qPrintable(view->CursorText()));
        m_pFrame->MdiArea()->activeSubWindow()->showMaximized();
        Shoot(m_pFrame.get(), "scope");

        // The mouse: the wheel zooms the time of every display, a drag pans it,
        // a click places cursor 1 where it lands.
        QCPAxis* top = view->axisRect(0)->axis(QCPAxis::atBottom);
        QCPAxis* bottom = view->axisRect(1)->axis(QCPAxis::atBottom);
        const QCPRange whole = top->range();
        const QPoint centre = view->axisRect(0)->rect().center();
        QWheelEvent wheel(centre, view->mapToGlobal(centre), QPoint(), QPoint(0, 120), Qt::NoButton, Qt::NoModifier,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(view, &wheel);
        const QCPRange zoomed = top->range();
        QVERIFY2(zoomed.size() < 0.9 * whole.size(), qPrintable(QString::number(zoomed.size())));
        QCOMPARE(bottom->range(), zoomed);
        auto mouse = [view](QEvent::Type type, QPoint at, Qt::MouseButtons held) {
            QMouseEvent event(type, at, view->mapToGlobal(at), Qt::LeftButton, held, Qt::NoModifier);
            QApplication::sendEvent(view, &event);
        };
        const QPoint grab = view->axisRect(1)->rect().center();
        mouse(QEvent::MouseButtonPress, grab, Qt::LeftButton);
        mouse(QEvent::MouseMove, grab - QPoint(100, 0), Qt::LeftButton);
        mouse(QEvent::MouseButtonRelease, grab - QPoint(100, 0), Qt::NoButton);
        QVERIFY2(top->range().lower > zoomed.lower, "dragged left: later times come into view");
        QCOMPARE(top->range().size(), zoomed.size());
        const QString cursorsBefore = view->CursorText();
        const double clickedAt = top->pixelToCoord(centre.x());
        mouse(QEvent::MouseButtonPress, centre, Qt::LeftButton);
        mouse(QEvent::MouseButtonRelease, centre, Qt::NoButton);
        QVERIFY(view->CursorText() != cursorsBefore);
        const double placedAt = view->CursorText().section("T1=", 1).section(' ', 0, 0).toDouble();
        QVERIFY2(qAbs(placedAt - clickedAt) <= file.SampleTime(), qPrintable(view->CursorText()));

        QString csv = folder.filePath("move.csv");
        QCOMPARE(scope->SaveAs(csv), QString());
        QVERIFY(QFile(csv).size() > 0);
        QVERIFY(!scope->SaveAs(folder.filePath("move.txt")).isEmpty());
        QCOMPARE(scope->Open(path), QString());
        QCOMPARE(view->Trace(1)->data()->size(), 600);
    }

    void StopInOneScopeLeavesTheOtherRecording()
    {
        std::vector<CScopeWindow*> scopes;
        for (int i = 0; i < 2; ++i) {
            CDriveSession* session = OpenVirtual();
            QVERIFY(session);
            scopes.push_back(Show<CScopeWindow>(session, CMainFrame::kScope));
            QTRY_VERIFY_WITH_TIMEOUT(scopes.back()->IsReady(), kWaitMs);
            scopes.back()->SetAfterArming(""); // no move: the trigger never comes
            scopes.back()->Start();
        }
        for (CScopeWindow* scope : scopes)
            QTRY_COMPARE_WITH_TIMEOUT(scope->StateText(), QString("Waiting for trigger"), kWaitMs);

        scopes[0]->Stop();

        QTRY_VERIFY_WITH_TIMEOUT(!scopes[0]->IsRecording(), kWaitMs);
        QCOMPARE(scopes[0]->StateText(), QString("Stopped: the recorder was stopped (RR=0)."));
        // Long enough for the other recorder to poll a few times: a stop
        // that reached it too would show by now.
        QTest::qWait(static_cast<int>(3 * CRecorder::kPollInterval.count()));
        QVERIFY(scopes[1]->IsRecording());
        QCOMPARE(scopes[1]->StateText(), QString("Waiting for trigger"));
        scopes[1]->Stop();
        QTRY_VERIFY_WITH_TIMEOUT(!scopes[1]->IsRecording(), kWaitMs);
    }

    void PlotRendersAScopeFileWithoutADisplay()
    {
        QTemporaryDir folder;
        CScopeFile file(0.001);
        file.AddSignal("Position", {0, 10, 40, 90, 160});
        QVERIFY(file.SaveMat(folder.filePath("in.sdv").toStdString()));
        const QString program = TESSITOR_GUI_BIN;
        QProcessEnvironment headless = QProcessEnvironment::systemEnvironment();
        headless.remove("DISPLAY");
        headless.remove("QT_QPA_PLATFORM");

        for (const char* out : {"out.png", "out.svg", "out.pdf"}) {
            QProcess plot;
            plot.setProcessEnvironment(headless);
            plot.start(program, {"--plot", folder.filePath("in.sdv"), "-o", folder.filePath(out)});
            QVERIFY(plot.waitForFinished(kWaitMs));
            QCOMPARE(plot.exitCode(), 0);
            QVERIFY2(QFile(folder.filePath(out)).size() > 500, out);
        }
        QVERIFY(QImage(folder.filePath("out.png")).width() == CScopeView::kRenderWidth);

        QProcess missing;
        missing.start(program, {"--plot", folder.filePath("none.sdv"), "-o", folder.filePath("x.png")});
        QVERIFY(missing.waitForFinished(kWaitMs));
        QCOMPARE(missing.exitCode(), 1);
        QVERIFY(missing.readAllStandardError().contains("none.sdv: not a MAT file"));
        QProcess usage;
        usage.start(program, {"--plot", folder.filePath("in.sdv")});
        QVERIFY(usage.waitForFinished(kWaitMs));
        QCOMPARE(usage.exitCode(), 2);
    }

    void MonitorAndParametersReadTheDrive()
    {
        CDriveSession* session = OpenVirtual();
        QVERIFY(session);
        auto* monitor = Show<CMonitorWindow>(session, CMainFrame::kMonitor);
        auto* parameters = Show<CParametersWindow>(session, CMainFrame::kParameters);
        QVERIFY(monitor && parameters);

        QTRY_VERIFY_WITH_TIMEOUT(monitor->Readings() >= 3, kWaitMs);
        QCOMPARE(monitor->ValueText(3), QString("6")); // SR of a fresh drive: position mode, motor off
        Shoot(monitor, "monitor");

        QTRY_VERIFY_WITH_TIMEOUT(parameters->IsRead(), kWaitMs);
        QTableWidget* table = parameters->Table();
        int row = parameters->RowOf("KP[3]");
        QVERIFY(row >= 0);
        QCOMPARE(table->item(row, CParametersWindow::kColValue)->text().toDouble(), 100.0);
        table->item(row, CParametersWindow::kColValue)->setText("120"); // as the user types it
        QTRY_VERIFY_WITH_TIMEOUT(table->item(row, CParametersWindow::kColName)->background() != QBrush(), kWaitMs);
        QCOMPARE(table->item(row, CParametersWindow::kColValue)->text().toDouble(), 120.0);
        parameters->Write(row, "20000"); // above its maximum
        QTRY_VERIFY_WITH_TIMEOUT(!table->item(row, CParametersWindow::kColNote)->text().isEmpty(), kWaitMs);
        QVERIFY2(table->item(row, CParametersWindow::kColNote)->text().startsWith("Error ("),
                 qPrintable(table->item(row, CParametersWindow::kColNote)->text()));
        QTRY_COMPARE_WITH_TIMEOUT(table->item(row, CParametersWindow::kColValue)->text().toDouble(), 120.0, kWaitMs);
        Shoot(parameters, "parameters");
        parameters->SaveToFlash();
        QTRY_COMPARE_WITH_TIMEOUT(parameters->StateText(), QString("Saved to flash (SV)."), kWaitMs);
        QCOMPARE(table->item(row, CParametersWindow::kColName)->background(), QBrush());
    }

    void SavedApplicationDownloadsBack()
    {
        QTemporaryDir folder;
        CDriveSession* session = OpenVirtual();
        QVERIFY(session);
        auto* apps = Show<CApplicationsWindow>(session, CMainFrame::kApplications);
        auto* terminal = Show<CTerminalWindow>(session, CMainFrame::kTerminal);
        QVERIFY(apps && terminal);
        CBoxWatcher boxes(QMessageBox::Yes);
        QString path = folder.filePath("drive.dat");
        QCOMPARE(apps->ActionCaption(), QString("&Download"));

        apps->Save(path);
        QTRY_VERIFY_WITH_TIMEOUT(!apps->IsBusy(), kWaitMs);
        QCOMPARE(apps->Outcome(), QString("Saved."));
        QVERIFY(QFile(path).size() > 0);
        terminal->Send("KP[3]=250");
        apps->Download(path);
        QTRY_VERIFY_WITH_TIMEOUT(!apps->IsBusy(), kWaitMs);
        terminal->Send("KP[3]");

        QCOMPARE(apps->Outcome(), QString("Downloaded."));
        QCOMPARE(apps->ActionCaption(), QString("&Download"));
        QTRY_VERIFY_WITH_TIMEOUT(terminal->Transcript().endsWith("> KP[3]\n100"), kWaitMs);
        QVERIFY2(boxes.m_arSeen.isEmpty(), qPrintable(boxes.m_arSeen.join("; ")));
        Shoot(apps, "applications");
    }

private:
    // Opens a virtual drive and waits for it; null when it did not connect in time.
    CDriveSession* OpenVirtual(const std::string& product = "Talvina")
    {
        CDriveSession* session = m_pFrame->OpenVirtualDrive(product);
        return QTest::qWaitFor([session] { return session->IsConnected(); }, kWaitMs) ? session : nullptr;
    }
    QAction* Action(const QString& text)
    {
        for (QAction* action : m_pFrame->findChildren<QAction*>())
            if (action->text() == text)
                return action;
        return nullptr;
    }
    template <class Window>
    Window* Show(CDriveSession* session, CMainFrame::ChildKind kind)
    {
        return qobject_cast<Window*>(m_pFrame->ShowChild(session, kind));
    }

    CQtUi m_Ui;
    std::unique_ptr<CMainFrame> m_pFrame;
};

} // namespace tessitor::gui::test

QTEST_MAIN(tessitor::gui::test::CGuiTest)
#include "gui_test.moc"
