// The GUI against the virtual drive: the windows a user opens, the replies
// they show, and a drive that stops answering.
#include <QMessageBox>
#include <QTest>
#include <QTreeWidget>

#include "sim/simserialserver.h"
#include "tests/gui/guitesthelpers.h"
#include "ui/gui/mainframe.h"
#include "ui/gui/qtui.h"
#include "ui/gui/terminalwindow.h"

namespace tessitor::gui::test {

namespace {

// Generous: several builds share this machine's two cores.
constexpr int kWaitMs = 20000;

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

    void TerminalShowsValuesAndTheDrivesErrors()
    {
        CMainFrame frame;
        frame.show();
        QVERIFY(QTest::qWaitForWindowExposed(&frame));

        CDriveSession* session = frame.OpenVirtualDrive();
        QVERIFY(session);
        auto* terminal = qobject_cast<CTerminalWindow*>(frame.ShowChild(session, CMainFrame::kTerminal));
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
        QTRY_VERIFY_WITH_TIMEOUT(frame.DriveTree()->topLevelItem(0)->text(1).startsWith("connected, motor off"), kWaitMs);
        Shoot(&frame, "terminal");
    }

    void StoppedDriveShowsOneBoxAndOthersGoOn()
    {
        CMainFrame frame;
        frame.show();
        QVERIFY(QTest::qWaitForWindowExposed(&frame));
        CDriveSession* first = frame.OpenVirtualDrive();
        CDriveSession* second = frame.OpenVirtualDrive("Vosk");
        QVERIFY(first && second);
        auto* firstTerminal = qobject_cast<CTerminalWindow*>(frame.ShowChild(first, CMainFrame::kTerminal));
        auto* secondTerminal = qobject_cast<CTerminalWindow*>(frame.ShowChild(second, CMainFrame::kTerminal));
        CBoxWatcher boxes(QMessageBox::Yes, "communication-error");

        first->VirtualDrive()->Stop();
        firstTerminal->Send("PX");

        QTRY_VERIFY_WITH_TIMEOUT(!first->IsConnected(), kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(firstTerminal->Transcript().contains("Disconnected."), kWaitMs);
        QCOMPARE(boxes.m_arSeen.size(), 1);
        QVERIFY2(boxes.m_arSeen[0].startsWith("Communication Device Error|"), qPrintable(boxes.m_arSeen[0]));
        QVERIFY(boxes.m_arSeen[0].endsWith("\nWould you like to disconnect now ?"));
        QTRY_VERIFY_WITH_TIMEOUT(frame.DriveTree()->topLevelItem(0)->text(1) == "disconnected", kWaitMs);
        Shoot(&frame, "disconnected");

        secondTerminal->Send("VR");
        QTRY_VERIFY_WITH_TIMEOUT(secondTerminal->Transcript().contains("\nVosk "), kWaitMs);
        QVERIFY(second->IsConnected());

        QCOMPARE(first->Connect(), std::string());
        firstTerminal->Send("VR");
        QTRY_VERIFY_WITH_TIMEOUT(firstTerminal->Transcript().contains("\nTalvina "), kWaitMs);
        QCOMPARE(boxes.m_arSeen.size(), 1);
    }

private:
    CQtUi m_Ui;
};

} // namespace tessitor::gui::test

QTEST_MAIN(tessitor::gui::test::CGuiTest)
#include "gui_test.moc"
