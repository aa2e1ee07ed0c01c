// The serial link end to end: CRs232 over a real pseudo-terminal against a
// scripted drive.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <regex>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "communication/rs232.h"
#include "core/trace.h"
#include "core/ui.h"
#include "tests/support/scriptedpeer.h"
#include "tests/support/tracecapture.h"

using namespace tessitor;
using tessitor::test::CScriptedPeer;
using Exc = CCommunication::CExceptionComm;

namespace {

constexpr std::uint32_t kShortTimeoutMs = 150;

class Rs232Test : public ::testing::Test {
protected:
    void SetUp() override
    {
        CCommunicationInfo info;
        m_pLink = std::make_unique<CRs232>(info);
        m_pLink->SetDevicePath(m_Peer.Path());
        ASSERT_EQ(m_pLink->Connect(), 0);
    }

    // Runs fn, which must throw; returns the exception with its message filled.
    template <class Fn>
    Exc Thrown(Fn fn)
    {
        try {
            fn();
        } catch (Exc& e) {
            e.FillMessage();
            return e;
        }
        ADD_FAILURE() << "nothing was thrown";
        return Exc(0, nullptr, -100);
    }

    std::string Value(const std::string& command, std::uint32_t timeoutMs = 2000)
    {
        std::string value;
        EXPECT_EQ(m_pLink->SendCommandGetValue(command, value, timeoutMs), 0);
        return value;
    }

    CScriptedPeer m_Peer;
    std::unique_ptr<CRs232> m_pLink;
};

class CRecordingListener : public CCommunication::CListenerComm {
public:
    CRecordingListener(std::vector<std::string>& log, std::string name) : m_Log(log), m_sName(std::move(name)) {}
    void OnCommunicationDestroy(CCommunication*) override { m_Log.push_back("destroy " + m_sName); }
    void OnCommunicationDisconnect(CCommunication*) override { m_Log.push_back("disconnect " + m_sName); }

private:
    std::vector<std::string>& m_Log;
    std::string m_sName;
};

class CCountingUi : public Ui {
public:
    int MessageBox(Window*, const std::string& text, const std::string& caption, unsigned) override
    {
        m_arShown.push_back(caption + ": " + text);
        return IDOK;
    }
    std::vector<std::string> m_arShown;
};


} // namespace

TEST_F(Rs232Test, ValuesAndAssignmentsCrossTheWire)
{
    m_Peer.SetHandler([](const std::string& line) {
        if (line == "PX\r")
            return CScriptedPeer::Answer(line, "1234");
        if (line == "KP[2]\r")
            return CScriptedPeer::Answer(line, "5.500");
        return CScriptedPeer::Answer(line, "");
    });

    std::string traced = test::TraceOf([&] { EXPECT_EQ(Value("PX"), "1234"); });
    EXPECT_EQ(Value("KP[2]"), "5.500");
    EXPECT_EQ(Value("MO=1"), ";") << "no value: one character is taken";
    std::string reply;
    EXPECT_EQ(m_pLink->SendCommand("PX", reply, 1000, 0), 0);
    EXPECT_EQ(reply, "PX\r1234;");

    EXPECT_EQ(m_Peer.Count("MO=1\r"), 1);
    EXPECT_TRUE(m_pLink->IsStateChanged()) << "MO=1 changes the drive's state";
    // Every write and read on the wire, time-stamped, direction, escaped bytes.
    std::regex wire("[0-9]+\\.[0-9]{6} " + m_Peer.Path() + " -> \"PX\\\\r\"\n"
                    "[0-9]+\\.[0-9]{6} " + m_Peer.Path() + " <- \"PX\\\\r1234;\"\n");
    EXPECT_TRUE(std::regex_search(traced, wire)) << traced;
}

TEST_F(Rs232Test, DriveErrorsCarryTheirNumberAndText)
{
    m_Peer.SetHandler([](const std::string& line) {
        if (line == "XX\r")
            return CScriptedPeer::Refusal(line, 5);
        return CScriptedPeer::Refusal(line, 0);
    });

    Exc e = Thrown([&] { Value("XX"); });
    EXPECT_EQ(e.m_nErrorSource, kErrSrcDrive);
    EXPECT_EQ(e.m_nErrorCode, -1);
    EXPECT_EQ(e.m_pCom, m_pLink.get());
    EXPECT_EQ(e.m_sMessage, "Error (5) :  'XX' : " + m_pLink->GetDriveErrorText(5) + " !");
    EXPECT_NE(m_pLink->GetDriveErrorText(5), "Unknown Error");

    EXPECT_EQ(Value("YY"), std::string("\0?", 2)) << "a byte 0 before '?' is no error";
}

TEST_F(Rs232Test, SilentDriveTimesOutAfterThreeAttemptsAndLatches)
{
    m_Peer.SetHandler([](const std::string&) { return std::string(); });
    auto ui = std::make_unique<test::CWaitRecorder>();

    Exc e = Thrown([&] { Value("PX", kShortTimeoutMs); });
    std::vector<std::string> waits = ui->arWaits;
    ui.reset();
    const std::string wait = "wait PX " + m_Peer.Path() + " ";
    EXPECT_EQ(waits, (std::vector<std::string>{wait + "1/3", "end", wait + "2/3", "end", wait + "3/3", "end"}));
    EXPECT_EQ(m_pLink->DeviceName(), m_Peer.Path());
    EXPECT_EQ(e.m_nErrorCode, COM_TIMEOUT);
    EXPECT_EQ(e.m_nErrorSource, kErrSrcTransport);
    EXPECT_EQ(e.m_sMessage, "Time Out Waiting for Response from Controller");
    EXPECT_EQ(m_Peer.Count("PX\r"), 3);
    EXPECT_TRUE(m_pLink->IsTimeoutLatched());

    Exc refused = Thrown([&] { Value("SR", 5000); });
    EXPECT_EQ(refused.m_nErrorCode, COM_TIMEOUT);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(m_Peer.Count("SR\r"), 0) << "a latched link does not touch the wire";

    m_Peer.SetHandler([](const std::string& line) { return CScriptedPeer::Answer(line, line == "SR\r" ? "16" : ""); });
    EXPECT_EQ(m_pLink->CheckLink(), 1) << "the forced echo probe clears the latch, then SR goes out";
    EXPECT_FALSE(m_pLink->IsTimeoutLatched());
    EXPECT_EQ(m_Peer.Count("\\COMMUNICATION\r"), 1);
    EXPECT_EQ(m_Peer.Count("SR\r"), 1);
    EXPECT_EQ(Value("PX"), ";");
}

TEST_F(Rs232Test, WrongEchoIsBadOnlyWhenEchoesAreChecked)
{
    m_Peer.SetHandler([](const std::string&) { return std::string("QX\r77;"); });

    Exc e = Thrown([&] { Value("PX", kShortTimeoutMs); });
    EXPECT_EQ(e.m_nErrorCode, COM_BAD_ECHO);
    EXPECT_EQ(e.m_sMessage, "Bad Echo from Controller");
    EXPECT_EQ(m_Peer.Count("PX\r"), 3);
    EXPECT_FALSE(m_pLink->IsTimeoutLatched());

    m_pLink->SetCheckEcho(0);
    EXPECT_EQ(Value("PX"), "77");
}

TEST_F(Rs232Test, RepliesOf8192BytesOrMoreAreRefusedWhole)
{
    auto replyOfSize = [](const std::string& line, size_t total) {
        return line + std::string(total - line.size() - 1, '7') + ";";
    };
    m_Peer.SetHandler([&](const std::string& line) { return replyOfSize(line, 8191); });
    EXPECT_EQ(Value("BH=1").size(), 8191u - 6u);

    for (size_t size : {8192u, 9000u, 20000u}) {
        m_Peer.SetHandler([&, size](const std::string& line) { return replyOfSize(line, size); });
        Exc e = Thrown([&] { Value("BH=1"); });
        EXPECT_EQ(e.m_nErrorCode, COM_BUFFER_TOO_BIG) << size;
        EXPECT_EQ(e.m_sMessage, "Input or Output Buffers larger then 8196 bytes");
    }
    m_Peer.SetHandler([](const std::string& line) { return CScriptedPeer::Answer(line, "1"); });
    EXPECT_EQ(Value("SR"), "1") << "the link recovers after an oversized reply";
}

TEST_F(Rs232Test, StaleBytesBeforeACommandAreNotItsReply)
{
    m_Peer.SetHandler([](const std::string& line) { return CScriptedPeer::Answer(line, "42"); });
    m_Peer.SendRaw("VX\r999;");
    m_Peer.SendRaw("noise without terminator");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    EXPECT_EQ(Value("VX"), "42");
    EXPECT_EQ(m_Peer.Count("VX\r"), 1);
}

TEST_F(Rs232Test, RepliesThatDoNotEndAtTheirOnlyTerminatorAreBadData)
{
    m_Peer.SetHandler([](const std::string& line) { return line + "12;34"; });
    Exc bad = Thrown([&] { Value("PX", kShortTimeoutMs); });
    EXPECT_EQ(bad.m_nErrorCode, COM_BAD_DATA);
    EXPECT_EQ(bad.m_sMessage, "Bad Data received from Controller");

    // An unasked answer glued to the real one is no value, not even the
    // second; the next attempt gets a clean one.
    int sent = 0;
    m_Peer.SetHandler([&sent](const std::string& line) {
        return (++sent < 3 ? line + "Talvina 0.9.0.0;" : "") + CScriptedPeer::Answer(line, "Talvina 1.2.0.0");
    });
    EXPECT_EQ(Value("VR"), "Talvina 1.2.0.0");
    EXPECT_EQ(m_Peer.Count("VR\r"), 3);
    m_Peer.SetHandler([](const std::string& line) { return line + "1;" + CScriptedPeer::Answer(line, "0"); });
    Exc glued = Thrown([&] { m_pLink->CheckLink(); });
    EXPECT_EQ(glued.m_nErrorCode, COM_BAD_DATA) << "the link check does not call such a link healthy";

    m_Peer.SetHandler([](const std::string& line) { return line + "1234"; });
    Exc silent = Thrown([&] { Value("PY", kShortTimeoutMs); });
    EXPECT_EQ(silent.m_nErrorCode, COM_TIMEOUT) << "without any terminator the reply never completes";
}

TEST_F(Rs232Test, DrippingDriveFailsWithinTheRequestsTimeOut)
{
    // Each byte comes well within the time-out, the whole answer far
    // beyond it: the deadline is the request's, not each read's.
    // The flag outlives this test's frame: the peer may still be dripping.
    auto stop = std::make_shared<std::atomic<bool>>(false);
    m_Peer.SetHandler([this, stop](const std::string& line) {
        if (m_Peer.Count(line) == 1)
            for (char byte : CScriptedPeer::Answer(line, std::string(60, '7'))) {
                if (*stop)
                    break;
                m_Peer.SendRaw(std::string(1, byte));
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        return std::string();
    });

    Exc e = Thrown([&] { Value("PX", 250); });
    *stop = true;

    EXPECT_EQ(e.m_nErrorCode, COM_TIMEOUT);
    EXPECT_TRUE(m_pLink->IsTimeoutLatched());
}

TEST_F(Rs232Test, CommandLengthLimit)
{
    Exc e = Thrown([&] { Value(std::string(8191, 'A')); });
    EXPECT_EQ(e.m_nErrorCode, -1);
    EXPECT_EQ(e.m_nErrorSource, kErrSrcLink);
    EXPECT_EQ(e.m_sMessage, "Output buffer is too long!");
    EXPECT_TRUE(m_Peer.Lines().empty()) << "a refused command is not sent";

    // Its echo alone would overflow the reply buffer: answer without one.
    m_Peer.SetHandler([](const std::string&) { return std::string(";"); });
    m_pLink->SetCheckEcho(0);
    std::string longest(8190, 'A');
    Value(longest);
    EXPECT_EQ(m_Peer.Count(longest + "\r"), 1);
}

TEST_F(Rs232Test, LongCommandsGetLongerTimeOuts)
{
    m_Peer.SetHandler([](const std::string& line) {
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        return CScriptedPeer::Answer(line, "");
    });
    for (const char* command : {"SV", "BH=3"}) {
        std::string reply;
        EXPECT_NO_THROW(m_pLink->SendCommand(command, reply, 50, 0)) << command;
        EXPECT_EQ(m_Peer.Count(std::string(command) + "\r"), 1) << command << " waited for its one reply";
    }
}

TEST_F(Rs232Test, ListingsAndDownloadLinesSwitchTheTerminatorOnListingFamilies)
{
    m_Peer.SetHandler([](const std::string& line) {
        std::string end = line.rfind("DL", 0) == 0 || line == "LS\r" || line == "CC\r" ? "\x08" : ";";
        return line + (line == "LS\r" ? "MO=1\r\nXQ;comment\r\n" : "") + end;
    });
    m_pLink->SetProcessorType("BreNol");

    std::string reply;
    m_pLink->SendCommand("LS", reply, 1000, 0);
    EXPECT_EQ(reply, "LS\rMO=1\r\nXQ;comment\r\n\x08") << "a ';' inside a listing does not end it";
    m_pLink->SendCommand("DL##MAIN\\", reply, 1000, 0);
    EXPECT_EQ(m_Peer.Count("DL##MAIN\\"), 1) << "a download line goes out without CR";
    EXPECT_TRUE(m_pLink->IsStateChanged());
    m_pLink->SendCommand("CC", reply, 1000, 0);
    m_pLink->SendCommand("SR", reply, 1000, 0);
    EXPECT_EQ(reply, "SR\r;") << "the terminator is switched back after each listing";

    m_pLink->SetProcessorType("DSP");
    m_Peer.SetHandler([](const std::string& line) { return line + "MO=1\r\n;"; });
    m_pLink->SendCommand("LS", reply, 1000, 0);
    EXPECT_EQ(reply, "LS\rMO=1\r\n;");
}

TEST_F(Rs232Test, LinkCheckResults)
{
    m_Peer.SetHandler([](const std::string& line) {
        return line == "SR\r" ? CScriptedPeer::Refusal(line, 2) : CScriptedPeer::Answer(line, "");
    });
    EXPECT_EQ(m_pLink->CheckLink(), -2) << "SR answered with an error";

    m_Peer.SetHandler([](const std::string& line) {
        return line == "SR\r" ? CScriptedPeer::Answer(line, "0") : std::string("\\COMMUNICATIOX\r;");
    });
    m_pLink->SetCheckEcho(0);
    EXPECT_EQ(m_pLink->CheckLink(), 0) << "a wrong probe echo marks the link broken";
    EXPECT_TRUE(m_pLink->IsLinkBroken());
    std::string value;
    EXPECT_EQ(m_pLink->SendCommandGetValue("SR", value, 1000), -1) << "a broken link sends nothing";

    m_pLink->SetEchoMode(1);
    size_t sent = m_Peer.Lines().size();
    EXPECT_EQ(m_pLink->CheckLink(), 1) << "Don't Check Echo: no probe, SR decides";
    EXPECT_EQ(m_Peer.Lines().size(), sent + 1);
    EXPECT_FALSE(m_pLink->IsLinkBroken());
}

TEST_F(Rs232Test, IdentificationAndTheBreNolWarning)
{
    namespace fs = std::filesystem;
    fs::path config = fs::temp_directory_path() / ("tessitor-id-" + std::to_string(::getpid()) + ".ini");
    ::setenv("TESSITOR_CONFIG", config.c_str(), 1);
    CCountingUi ui;
    Ui::Install(&ui);
    auto answerVersion = [this](std::string version) {
        m_Peer.SetHandler([version](const std::string& line) { return CScriptedPeer::Answer(line, version); });
    };
    answerVersion("Talvina 2.1.0.0");

    m_pLink->Identify();
    EXPECT_EQ(m_pLink->GetVersionText(), "Talvina 2.1.0.0");
    EXPECT_EQ(m_pLink->GetProcessorType(), "DSP");
    EXPECT_TRUE(ui.m_arShown.empty());

    answerVersion("Bressa 1.4.0.0");
    m_pLink->Identify();
    EXPECT_EQ(m_pLink->GetProcessorType(), "BreNol");
    ASSERT_EQ(ui.m_arShown.size(), 1u);
    EXPECT_EQ(ui.m_arShown[0], "Tessitor: Some of the Tessitor's features might not be supported by this product.\n\n"
                               "For this product it is recommended to use Tessitor VERSION 2_12_0_2_October2004 "
                               "or earlier");

    std::ofstream(config) << "[Settings]\nDon't show not support NOL/BRE message=1\n";
    m_pLink->Identify();
    EXPECT_EQ(ui.m_arShown.size(), 1u) << "the setting turns the warning off";

    answerVersion("Vosk 3.0.1.2");
    m_pLink->Identify();
    EXPECT_EQ(m_pLink->GetProcessorType(), "STP");

    m_Peer.SetHandler([](const std::string&) { return std::string("XX\r;"); });
    m_pLink->Identify();
    EXPECT_EQ(m_pLink->GetVersionText(), "Unknown version") << "a failed VR leaves the version unknown";
    EXPECT_EQ(m_pLink->GetProcessorType(), "");

    Ui::Install(nullptr);
    ::unsetenv("TESSITOR_CONFIG");
    fs::remove(config);
}

TEST_F(Rs232Test, ListenersHearOfDisconnectAndDestructionLastFirst)
{
    std::vector<std::string> log;
    CRecordingListener a(log, "a"), b(log, "b");
    m_pLink->AddListenerCom(&a);
    m_pLink->AddListenerCom(&b);
    m_pLink->AddListenerCom(&a);

    m_pLink->Disconnect();
    EXPECT_EQ(log, (std::vector<std::string>{"disconnect b", "disconnect a"}));
    EXPECT_FALSE(m_pLink->IsConnected());
    std::string reply;
    Exc e = Thrown([&] { m_pLink->SendCommand("SR", reply, 1000, 0); });
    EXPECT_EQ(e.m_sMessage, "Communication must be Established.");

    m_pLink->RemoveListenerCom(&a);
    m_pLink.reset();
    EXPECT_EQ(log.back(), "destroy b");
    EXPECT_EQ(log.size(), 3u);

    // Destroyed while connected: a listener still finds the link whole.
    m_Peer.SetHandler([](const std::string& line) { return CScriptedPeer::Answer(line, "7"); });
    test::CLastWordListener last;
    auto link = std::make_unique<CRs232>(CCommunicationInfo{});
    link->SetDevicePath(m_Peer.Path());
    ASSERT_EQ(link->Connect(), 0);
    link->AddListenerCom(&last);
    link.reset();
    EXPECT_TRUE(last.bConnected);
    EXPECT_EQ(last.sValue, "7");
}

TEST_F(Rs232Test, RecordingIsUploadedInChunksAndAChunkThatDoesNotDecodeIsAskedForAgain)
{
    m_Peer.SetHandler([](const std::string& line) {
        static std::string window;
        if (line.rfind("RP[8]=", 0) == 0)
            window = line.substr(6, line.size() - 7);
        else if (line.rfind("RP[9]=", 0) == 0)
            window += "-" + line.substr(6, line.size() - 7);
        return CScriptedPeer::Answer(line, line == "BH=3\r" ? "chunk " + window : "");
    });
    test::CChunkRecorder store;
    store.nRefuse = 1;
    test::CPostCounter progress;

    std::string traced =
        test::TraceOf([&] { EXPECT_EQ(m_pLink->UploadRecordedData(250, 3, store, &progress, nullptr), 0); });
    EXPECT_EQ(store.arChunks, (std::vector<std::string>{"chunk 0-99", "chunk 100-199", "chunk 200-249"}));
    EXPECT_EQ(m_Peer.Count("BH=3\r"), 4) << "the refused chunk was asked for once more";
    EXPECT_EQ(m_Peer.Count("RP[8]=0\r"), 1) << "a repeat sends BH alone";
    EXPECT_NE(traced.find("BH command was repeat 1 times\n"), std::string::npos) << traced;
    EXPECT_EQ(progress.nPosted.load(), 3);
    EXPECT_EQ(progress.nLastMessage, kMsgRecProgress);

    std::atomic<std::int32_t> abort{1};
    size_t sent = m_Peer.Lines().size();
    EXPECT_EQ(m_pLink->UploadRecordedData(250, 3, store, nullptr, &abort), 0);
    EXPECT_EQ(m_Peer.Lines().size(), sent) << "an aborted upload sends nothing";

    store.nRefuse = 1000;
    EXPECT_EQ(m_pLink->UploadRecordedData(50, 3, store, nullptr, nullptr), -5);
    EXPECT_EQ(m_Peer.Count("BH=3\r"), 4 + CCommunication::kRecordChunkSends);
    EXPECT_EQ(m_Peer.Count("RP[9]=49\r"), 1);
}

// Opens path as an unprivileged user would (as "nobody" when this test runs
// as root, whom TIOCEXCL does not stop); 0 or the errno of the open.
int OpenAsUnprivileged(const std::string& path)
{
    if (::geteuid() != 0) {
        int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        int error = fd < 0 ? errno : 0;
        if (fd >= 0)
            ::close(fd);
        return error;
    }
    ::chmod(path.c_str(), 0666);
    pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(100);
        int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        ::_exit(fd < 0 ? errno : 0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Rs232Test, PortIsTakenExclusivelyConfiguredAsMappedAndGivenBackAsFound)
{
    m_pLink->Disconnect();
    termios before = m_Peer.Line();
    before.c_iflag |= IXOFF | IXANY; // left by whatever used the port before
    before.c_lflag |= ECHO;
    ::cfsetispeed(&before, B9600);
    ::cfsetospeed(&before, B9600);
    m_Peer.SetLine(before);
    before = m_Peer.Line();
    CCommunicationInfo info;
    info.wBaudRate = 57600;
    info.bParity = 1;
    info.bStopBits = 2;
    info.bFlowCtrl = 0x2;
    CRs232 link(info);
    link.SetDevicePath(m_Peer.Path());

    ASSERT_EQ(link.Connect(), 0);
    termios during = m_Peer.Line();
    CRs232 second{CCommunicationInfo{}};
    second.SetDevicePath(m_Peer.Path());
    int secondLink = second.Connect();
    int unprivilegedWhileOpen = OpenAsUnprivileged(m_Peer.Path());
    link.Disconnect();
    termios after = m_Peer.Line();
    int unprivilegedAfterClose = OpenAsUnprivileged(m_Peer.Path());
    info.bParity = 4;
    info.bFlowCtrl = 0x4;
    CRs232 again(info);
    again.SetDevicePath(m_Peer.Path());
    int reopened = again.Connect();
    termios xonXoff = m_Peer.Line();
    m_Peer.SetHandler([](const std::string& line) { return CScriptedPeer::Answer(line, "9"); });
    std::string value;
    again.SendCommandGetValue("SR", value, 2000);

    // A pseudo-terminal keeps no PARENB; INPCK shows parity was asked for.
    const tcflag_t kept = PARODD | CMSPAR | CSTOPB | CRTSCTS;
    EXPECT_EQ(::cfgetospeed(&during), B57600);
    EXPECT_EQ(during.c_cflag & kept, PARODD | CSTOPB | CRTSCTS);
    EXPECT_EQ(during.c_iflag & INPCK, INPCK);
    EXPECT_EQ(during.c_iflag & (IXON | IXOFF | IXANY), 0u) << "without bit 2 no XON/XOFF either way";
    EXPECT_EQ(during.c_lflag & ECHO, 0u);
    EXPECT_EQ(secondLink, EBUSY);
    EXPECT_EQ(second.GetConnectError(), m_Peer.Path() + " is in use by another program (Device or resource busy)");
    EXPECT_EQ(unprivilegedWhileOpen, EBUSY);
    EXPECT_EQ(std::memcmp(&after, &before, sizeof after), 0) << "the line is as it was found";
    EXPECT_EQ(unprivilegedAfterClose, 0) << "exclusivity given back";
    EXPECT_EQ(reopened, 0);
    EXPECT_EQ(xonXoff.c_cflag & kept, CMSPAR | CSTOPB) << "space parity, two stop bits";
    EXPECT_EQ(xonXoff.c_iflag & (IXON | IXOFF | IXANY), IXON | IXOFF);
    EXPECT_EQ(value, "9");
}

TEST_F(Rs232Test, EveryParityAndStopBitCodeLandsInTermiosAsMapped)
{
    m_pLink->Disconnect();
    struct Case {
        std::uint8_t bParity, bStopBits;
        tcflag_t cflag; // as a pseudo-terminal keeps it: without PARENB
    };
    const Case cases[] = {{0, 0, 0}, {1, 1, PARODD | CSTOPB}, {2, 2, CSTOPB}, {3, 0, CMSPAR | PARODD},
                          {4, 1, CMSPAR | CSTOPB}};
    for (const Case& c : cases) {
        CCommunicationInfo info;
        info.bParity = c.bParity;
        info.bStopBits = c.bStopBits;
        CRs232 link(info);
        link.SetDevicePath(m_Peer.Path());

        ASSERT_EQ(link.Connect(), 0);
        termios line = m_Peer.Line();
        link.Disconnect();

        EXPECT_EQ(line.c_cflag & (PARODD | CMSPAR | CSTOPB), c.cflag) << "parity code " << int(c.bParity);
        EXPECT_EQ((line.c_iflag & INPCK) != 0, c.bParity != 0) << "parity code " << int(c.bParity);
    }
}

TEST(Rs232Open, RefusesWhatIsNotATerminalAndNamesTheFailure)
{
    char file[] = "/tmp/tessitor-not-a-port-XXXXXX";
    int fd = ::mkstemp(file);
    ASSERT_GE(fd, 0);
    ::close(fd);

    CRs232 regular{CCommunicationInfo{}};
    regular.SetDevicePath(file);
    int regularResult = regular.Connect();
    CRs232 null{CCommunicationInfo{}};
    null.SetDevicePath("/dev/null");
    int nullResult = null.Connect();
    CRs232 missing{CCommunicationInfo{}};
    missing.SetDevicePath("/dev/does-not-exist");
    int missingResult = missing.Connect();
    struct stat info{};
    ::stat(file, &info);
    ::unlink(file);

    EXPECT_EQ(regularResult, ENOTTY);
    EXPECT_EQ(regular.GetConnectError(), std::string(file) + " is not a terminal device");
    EXPECT_EQ(info.st_size, 0) << "nothing was written to it";
    EXPECT_EQ(nullResult, ENOTTY);
    EXPECT_EQ(missingResult, ENOENT);
    EXPECT_EQ(missing.GetConnectError(), "/dev/does-not-exist: No such file or directory");
    EXPECT_FALSE(null.IsConnected());
}

TEST_F(Rs232Test, DisconnectFromAnotherThreadEndsAWaitingCommand)
{
    m_Peer.SetHandler([](const std::string&) { return std::string(); });
    std::promise<Exc> failed;
    std::thread waiting([&] {
        try {
            std::string reply;
            m_pLink->SendCommand("PX", reply, 60000, 0);
            failed.set_value(Exc(0, nullptr, -100));
        } catch (const Exc& e) {
            failed.set_value(e);
        }
    });
    while (m_Peer.Count("PX\r") == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));

    m_pLink->Disconnect();
    Exc e = failed.get_future().get();
    waiting.join();

    EXPECT_EQ(e.m_nErrorCode, COM_READ_ERROR);
    EXPECT_EQ(m_Peer.Count("PX\r"), 1) << "no attempt after the close";
    EXPECT_EQ(OpenAsUnprivileged(m_Peer.Path()), 0) << "the port was given back";

    // Idle, the watch thread waits in poll() on the port: closing releases it.
    ASSERT_EQ(m_pLink->Connect(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::string traced = test::TraceOf([&] { m_pLink->Disconnect(); });
    EXPECT_NE(traced.find("The thread CommWatchThread has exited with code 13\n"), std::string::npos) << traced;
}

TEST(Rs232Vanished, DriveThatGoesAwayIsAWriteError)
{
    auto peer = std::make_unique<CScriptedPeer>();
    CRs232 link{CCommunicationInfo{}};
    link.SetDevicePath(peer->Path());
    ASSERT_EQ(link.Connect(), 0);
    peer.reset(); // the far end of the line is gone: writes fail with EIO

    std::string reply;
    try {
        link.SendCommand("SR", reply, 200, 0);
        FAIL() << "nothing was thrown";
    } catch (Exc& e) {
        EXPECT_EQ(e.m_nErrorCode, COM_WRITE_ERROR);
        EXPECT_EQ(e.FillMessage(), "Communication Write Error");
    }
    link.Disconnect();
}
