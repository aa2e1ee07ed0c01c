// The tessitor command end to end, as a careful user meets it: against a
// scripted drive on a pseudo-terminal, the virtual network device, and a
// real terminal for the keys.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <random>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "sim/simtcpserver.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"
#include "tests/support/scriptedpeer.h"
#include "tests/support/terminalprocess.h"

using namespace tessitor::test;
namespace fs = std::filesystem;

namespace {

std::string ReadFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

// True once condition holds; false after 20 s.
bool Eventually(const std::function<bool()>& condition)
{
    for (int i = 0; i < 2000; ++i) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class CliTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "tessitor-cli-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        m_Dir = pattern;
        m_Config = m_Dir / "tessitor.ini";
        m_Peer.SetHandler([](const std::string& line) {
            if (line == "VR\r")
                return CScriptedPeer::Answer(line, "Talvina 2.1.0.0");
            if (line == "PX\r")
                return CScriptedPeer::Answer(line, "1234");
            if (line == "SR\r")
                return CScriptedPeer::Answer(line, "16");
            if (line == "XX\r")
                return CScriptedPeer::Refusal(line, 5);
            if (line == "NOPE\r")
                return std::string("NOPX\r;");
            if (line == "ESC\r") // a value a terminal would obey
                return CScriptedPeer::Answer(line, "A\x1b[2JB\x07");
            return CScriptedPeer::Answer(line, "");
        });
    }
    void TearDown() override { fs::remove_all(m_Dir); }

    std::vector<std::string> Env() const
    {
        return {"TESSITOR_CONFIG=" + m_Config.string(), "XDG_STATE_HOME=" + m_Dir.string(), "HOME=" + m_Dir.string(),
                "TERM=dumb"};
    }
    ProcessResult Run(std::vector<std::string> args, const std::string& input = {},
                      const std::vector<int>& closedFds = {})
    {
        args.insert(args.begin(), TessitorPath());
        return RunProcess(args, Env(), input, 60000, closedFds);
    }
    CTerminalProcess RunOnTerminal(std::vector<std::string> args, bool bStdoutToPipe = false)
    {
        args.insert(args.begin(), TessitorPath());
        return CTerminalProcess(args, Env(), bStdoutToPipe);
    }

    CScriptedPeer m_Peer;
    fs::path m_Dir;
    fs::path m_Config;
};

} // namespace

TEST_F(CliTest, SendPrintsEachValueOnItsOwnLineFromArgumentsAFileOrStdin)
{
    std::ofstream(m_Dir / "setup.txt", std::ios::binary) << "# read the drive\r\nPX\r\n\r\n  SR\t\r\nMO=1\r\n";

    ProcessResult args = Run({"send", "--serial", m_Peer.Path(), "PX", "MO=1", "SR"});
    ProcessResult after = Run({"--timeout", "500", "send", "PX", "--serial", m_Peer.Path()});
    ProcessResult file = Run({"send", "--serial", m_Peer.Path(), "-f", (m_Dir / "setup.txt").string()});
    ProcessResult input = Run({"send", "--serial", m_Peer.Path(), "-f", "-"}, "SR\r\n#MO=0\n");

    EXPECT_EQ(args.nStatus, 0) << args.sErr;
    EXPECT_EQ(args.sOut, "1234\n\n16\n");
    EXPECT_EQ(after.sOut, "1234\n") << "options stand before or after the command: " << after.sErr;
    EXPECT_EQ(file.nStatus, 0) << file.sErr;
    EXPECT_EQ(file.sOut, "1234\n16\n\n");
    EXPECT_EQ(input.sOut, "16\n") << input.sErr;
    EXPECT_EQ(m_Peer.Count("VR\r"), 4) << "the drive is identified on connect";
    EXPECT_EQ(m_Peer.Count("MO=0\r"), 0);
    EXPECT_EQ(m_Peer.Count("SR\r"), 3) << "CR LF lines lose their CR, blanks and tabs around them";
}

TEST_F(CliTest, DriveErrorStopsTheRestAndExitsOne)
{
    ProcessResult r = Run({"send", "--serial", m_Peer.Path(), "PX", "XX", "SR"});

    EXPECT_EQ(r.nStatus, 1);
    EXPECT_EQ(r.sOut, "1234\n");
    EXPECT_EQ(r.sErr, "Error (5) :  'XX' : Command not supported by this product !\n");
    EXPECT_EQ(m_Peer.Count("SR\r"), 0) << "later commands are not sent";
}

TEST_F(CliTest, LinkFailuresNameTheCommandAndTheDevice)
{
    m_Peer.SetHandler([](const std::string& line) {
        return line == "VR\r" ? CScriptedPeer::Answer(line, "Talvina 2.1.0.0") : std::string();
    });
    fs::path trace = m_Dir / "trace";

    ProcessResult silent = RunProcess({TessitorPath(), "send", "--timeout", "100", "--serial", m_Peer.Path(), "PX", "SR"},
                                      {"TESSITOR_CONFIG=" + m_Config.string(), "TESSITOR_TRACE=" + trace.string()});
    ProcessResult overlong = Run({"send", "--serial", m_Peer.Path(), std::string(8191, 'A')});
    ProcessResult missing = Run({"send", "--serial", (m_Dir / "ttyNone").string(), "PX"});
    ProcessResult unknownHost = Run({"send", "--tcp", "no-such-host.invalid", "--target", "RS232 Port 1", "PX"});

    EXPECT_EQ(silent.nStatus, 1);
    EXPECT_EQ(silent.sErr.rfind("Time Out Waiting for Response from Controller (PX on ", 0), 0u) << silent.sErr;
    EXPECT_EQ(m_Peer.Count("PX\r"), 3);
    EXPECT_EQ(m_Peer.Count("SR\r"), 0);
    std::string text = ReadFile(trace);
    auto count = [&text](const std::string& line) {
        int n = 0;
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count("return(COM_TIMEOUT)\n"), 3) << text;
    EXPECT_EQ(count(" -> \"PX\\r\"\n"), 3) << "each write on the wire is traced: " << text;
    EXPECT_NE(text.find("The thread CommWatchThread has exited with code 13\n"), std::string::npos) << text;
    EXPECT_EQ(overlong.nStatus, 1);
    EXPECT_EQ(overlong.sErr.rfind("Output buffer is too long! (AAAA", 0), 0u) << overlong.sErr;
    EXPECT_LT(overlong.sErr.size(), 400u) << "the command is cut in the message";
    EXPECT_EQ(m_Peer.Count(std::string(8191, 'A') + "\r"), 0);
    EXPECT_EQ(missing.nStatus, 1);
    EXPECT_EQ(missing.sErr.rfind("Create Communication Device Fault. ", 0), 0u) << missing.sErr;
    EXPECT_NE(missing.sErr.find("No such file or directory"), std::string::npos) << missing.sErr;
    EXPECT_EQ(unknownHost.nStatus, 1) << "a failed name lookup is a failure, not wrong usage";
    EXPECT_NE(unknownHost.sErr.find("cannot resolve host 'no-such-host.invalid'"), std::string::npos)
        << unknownHost.sErr;
}

TEST_F(CliTest, ControlBytesInACommandAreRefusedWithNothingOnTheWire)
{
    std::ofstream(m_Dir / "cmds.txt", std::ios::binary) << "PX\nSR\nMO=1\x1b\n";

    ProcessResult hidden = Run({"send", "--serial", m_Peer.Path(), "PX", "PX\rMO=1"});
    ProcessResult file = Run({"send", "--serial", m_Peer.Path(), "-f", (m_Dir / "cmds.txt").string()});
    ProcessResult term = Run({"term", "--serial", m_Peer.Path()}, "PX\nMO=1\x7fXQ\nSR\n");

    EXPECT_EQ(hidden.nStatus, 2);
    EXPECT_NE(hidden.sErr.find("'PX\\rMO=1' holds the control byte 0x0D"), std::string::npos) << hidden.sErr;
    EXPECT_EQ(file.nStatus, 2);
    EXPECT_NE(file.sErr.find("line 3 of"), std::string::npos) << file.sErr;
    EXPECT_EQ(term.nStatus, 2) << term.sErr;
    EXPECT_EQ(term.sOut, "1234\n16\n") << "the terminal goes on after the refused line";
    std::vector<std::string> lines = m_Peer.Lines();
    EXPECT_EQ(lines, (std::vector<std::string>{"VR\r", "PX\r", "SR\r"})) << "only the terminal connected";
}

TEST_F(CliTest, WrongUsageIsPreciseExitsTwoAndSendsNothing)
{
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    std::vector<Case> bad = {
        {{"send", "--serial", m_Peer.Path(), "--bogus", "PX"}, "--bogus"},
        {{"send", "--conn", "RS_232 ; COM: 1", "PX"}, "malformed one-line form"},
        {{"send", "--serial", m_Peer.Path(), "--last", "PX"}, "not both --serial and --last"},
        {{"send", "--sim", "--tcp", "localhost:1", "PX"}, "not both --tcp and --sim"},
        {{"send", "PX"}, "no connection given"},
        {{"send", "--serial", m_Peer.Path()}, "give the commands to send"},
        {{"send", "--serial", m_Peer.Path(), "-f", "-", "PX"}, "not both"},
        {{"send", "--serial", m_Peer.Path(), "--timeout", "0", "PX"}, "--timeout: 0 is out of range"},
        {{"send", "--serial", m_Peer.Path(), "--timeout", "1s", "PX"}, "--timeout: '1s' is not a number"},
        {{"send", "--serial", m_Peer.Path(), "--baud", "0", "PX"}, "--baud: 0 is out of range"},
        {{"send", "--serial", m_Peer.Path(), "--baud", "fast", "PX"}, "is not a number"},
        {{"send", "--serial", m_Peer.Path(), "--product", "Vosk", "PX"}, "--product goes with --sim"},
        {{"send", "--last", "--baud", "9600", "PX"}, "--baud goes with --serial or --sim"},
        {{"send", "--product", "Vosk", "PX"}, "--product goes with --sim, which is not given"},
        {{"term", "--serial", m_Peer.Path(), "--yes", "--no"}, "--yes and --no contradict"},
        {{"send", "--can", "slcan:" + m_Peer.Path(), "--node", "five", "PX"}, "--node: 'five' is not a number"},
        {{"send", "--can", "slcan:" + m_Peer.Path(), "--node", "5", "--bitrate", "fast", "PX"},
         "--bitrate: 'fast' is not a number"},
        {{"record", "--serial", m_Peer.Path(), "--gap", "x"}, "--gap: 'x' is not a number"},
        {{"send", "--tcp", "[::1", "--target", "RS232 Port 1", "PX"}, "bad --tcp"},
        {{"send", "--tcp", "localhost:http", "--target", "RS232 Port 1", "PX"}, "the port is not a number"},
        {{"conn", "decode", "not a descriptor"}, "malformed one-line form"},
        {{"conn", "decode", "--serial", m_Peer.Path(), "x"}, "'conn decode' takes no --serial"},
        {{"sned", "--serial", m_Peer.Path(), "PX"}, "unknown command 'sned'"},
        {{"--serial", m_Peer.Path(), "--timeout", "5", "sned", "PX"}, "unknown command 'sned'"},
        {{"conn", "sned"}, "unknown command 'conn sned' (commands: encode, decode, show)"},
        {{"conn"}, "'conn' needs a command"},
        {{}, "a command is required (commands: send, term, info"},
    };
    for (const Case& c : bad) {
        ProcessResult r = Run(c.args);
        std::string shown;
        for (const auto& a : c.args)
            shown += a + " ";
        EXPECT_EQ(r.nStatus, 2) << shown << r.sErr;
        EXPECT_NE(r.sErr.find(c.message), std::string::npos) << shown << r.sErr;
        EXPECT_TRUE(r.sOut.empty()) << shown;
    }
    EXPECT_TRUE(m_Peer.Lines().empty());

    ProcessResult version = Run({"--version"});
    EXPECT_EQ(version.nStatus, 0);
    EXPECT_EQ(version.sOut.rfind("tessitor ", 0), 0u) << version.sOut;
    ProcessResult fullHelp = RunProcess({"/bin/sh", "-c", "exec \"$0\" --help >/dev/full", TessitorPath()}, Env());
    EXPECT_EQ(fullHelp.nStatus, 1);
    EXPECT_NE(fullHelp.sErr.find("cannot write to standard output"), std::string::npos) << fullHelp.sErr;
    const std::string mainHelp = Run({"--help"}).sOut;
    const std::string mainExamples = mainHelp.substr(mainHelp.find("Examples:"));
    for (std::vector<std::string> command : {std::vector<std::string>{"send"}, {"term"}, {"info"}, {"record"},
                                             {"record", "list"}, {"sdo", "upload"}, {"can", "dump"}}) {
        command.push_back("--help");
        ProcessResult help = Run(command);
        EXPECT_EQ(help.nStatus, 0);
        EXPECT_NE(help.sOut.find("Connection:\n  --serial PATH"), std::string::npos) << command[0] << help.sOut;
        EXPECT_NE(help.sOut.find("Example"), std::string::npos) << command[0];
    }
    for (std::vector<std::string> command : {std::vector<std::string>{"conn"}, {"can"}, {"app"}, {"record", "list"}}) {
        command.push_back("--help");
        std::string help = Run(command).sOut;
        EXPECT_NE(help.find("Example"), std::string::npos) << help;
        EXPECT_EQ(help.find(mainExamples), std::string::npos) << "only the command's own examples: " << help;
        EXPECT_EQ(help.find("Levels:"), std::string::npos) << "not those of 'record': " << help;
    }
    EXPECT_EQ(Run({"conn", "decode", "--help"}).sOut.find("Connection:"), std::string::npos);
}

TEST_F(CliTest, TheOneLineFormSurvivesATerminal)
{
    ProcessResult piped = Run({"conn", "encode", "--serial", "/dev/ttyS2", "--baud", "57600"});
    CTerminalProcess shown = RunOnTerminal({"conn", "encode", "--serial", "/dev/ttyS2", "--baud", "57600"});
    std::string onTerminal = shown.ReadUntil("'\r\n");
    int shownStatus = shown.Wait();
    std::string pasted = onTerminal.substr(0, onTerminal.find("\r\n"));

    ASSERT_EQ(piped.nStatus, 0) << piped.sErr;
    EXPECT_EQ(piped.sOut.rfind("RS_232 ; COM: 3 ; 57600 ; 8 ; 0 ; 0 ; 0 ; CAN:", 0), 0u) << piped.sOut;
    EXPECT_NE(piped.sOut.find("iPC-I\x01" "386"), std::string::npos) << "written exactly, with its 0x01 bytes";
    EXPECT_EQ(shownStatus, 0);
    EXPECT_EQ(pasted.rfind("$'RS_232 ; COM: 3 ;", 0), 0u) << onTerminal;
    EXPECT_NE(pasted.find("iPC-I\\001386"), std::string::npos) << pasted;
    std::string line = piped.sOut.substr(0, piped.sOut.size() - 1);
    for (const std::string& form : {line, pasted}) {
        EXPECT_EQ(Run({"conn", "decode", form}).sOut, "RS_232; COM3; 57600[bit/sec]; Parity None\n") << form;
        EXPECT_EQ(Run({"conn", "show", "--conn", form}).sOut, "RS_232; COM3; 57600[bit/sec]; Parity None\n_COM3\n");
    }
}

TEST_F(CliTest, SettingsChangeOnlyAfterASuccessAndStayTheUsers)
{
    const std::string original = "; kept by hand\n[Settings]\nDon't show not support NOL/BRE message=1\n\n"
                                 "[SerialPorts]\n# the test rig\nCOM2=" + m_Peer.Path() + "\n";
    std::ofstream(m_Config) << original;
    ::chmod(m_Config.c_str(), 0640);
    CScriptedPeer unidentified, oneOff;
    unidentified.SetHandler([](const std::string& line) { return CScriptedPeer::Refusal(line, 5); });

    ProcessResult noLast = Run({"send", "--last", "PX"});
    ProcessResult missing = Run({"send", "--serial", (m_Dir / "ttyNone").string(), "PX"});
    ProcessResult silent = Run({"send", "--serial", unidentified.Path(), "PX"});
    std::string afterFailures = ReadFile(m_Config);
    ProcessResult unmapped = Run({"send", "--serial", oneOff.Path(), "PX"});
    std::string afterOneOff = ReadFile(m_Config);
    ProcessResult good = Run({"send", "--serial", m_Peer.Path(), "SR"});
    std::string afterGood = ReadFile(m_Config);
    ProcessResult last = Run({"send", "--last", "PX"});

    EXPECT_EQ(noLast.nStatus, 2) << "nothing has succeeded yet";
    EXPECT_EQ(missing.nStatus, 1);
    EXPECT_EQ(silent.nStatus, 1);
    EXPECT_EQ(afterFailures, original) << "a failed or half-failed connection changes nothing";
    EXPECT_EQ(unmapped.nStatus, 0) << unmapped.sErr;
    EXPECT_EQ(afterOneOff, original) << "a pseudo-terminal is not stored";
    EXPECT_EQ(good.nStatus, 0) << good.sErr;
    EXPECT_EQ(afterGood.rfind(original + "\n[CommunicationInfo]\nLast Success Connect=RS_232 ; COM: 2 ; 115200 ;", 0),
              0u)
        << "comments, order and the port's number kept: " << afterGood;
    EXPECT_EQ(last.sOut, "1234\n") << last.sErr;
    struct stat st {};
    ::stat(m_Config.c_str(), &st);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(CliTest, TheTcpPortIsRememberedBesideTheLastConnectionAndTheHostReachesTheLink)
{
    tessitor::sim::CSimTcpServer device("Talvina");
    device.Start();
    const std::string where = "127.0.0.1:" + std::to_string(device.Port());
    // A port bound on ::1 but not listening: a connect there is refused at once.
    int v6 = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t length = sizeof address;
    bool haveV6 = ::bind(v6, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0
                  && ::getsockname(v6, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    const std::string v6Where = "[::1]:" + std::to_string(ntohs(address.sin6_port));

    ProcessResult sent = Run({"send", "--tcp", where, "--target", "RS232 Port 2", "SP=4321"});
    std::string settings = ReadFile(m_Config);
    ProcessResult last = Run({"send", "--last", "SP"});
    ProcessResult unknown = Run({"send", "--tcp", where, "--target", "RS232 Port 9", "SP"});
    ProcessResult refusedV6 = Run({"send", "--tcp", v6Where, "--target", "RS232 Port 1", "SP"});
    ::close(v6);

    EXPECT_EQ(sent.nStatus, 0) << sent.sErr;
    EXPECT_NE(settings.find("Last Success Port=" + std::to_string(device.Port())), std::string::npos) << settings;
    EXPECT_EQ(settings.find("[TCP]"), std::string::npos) << "the default port stays as it was: " << settings;
    EXPECT_EQ(last.sOut, "4321\n") << last.sErr;
    EXPECT_EQ(unknown.nStatus, 1);
    EXPECT_NE(unknown.sErr.find("it offers: RS232 Port 1, RS232 Port 2, CANopen Bus 1 NodeID 5"), std::string::npos)
        << unknown.sErr;
    if (haveV6) {
        EXPECT_EQ(refusedV6.nStatus, 1);
        EXPECT_NE(refusedV6.sErr.find(v6Where), std::string::npos) << "the IPv6 host reached the link: " << refusedV6.sErr;
    }
}

TEST_F(CliTest, TheSettingsFileSurvivesKilledRunsAndAReadOnlyOneIsLeftAlone)
{
    fs::create_directory(m_Dir / "real");
    const std::string original = "# mine\n[SerialPorts]\nCOM2=" + m_Peer.Path() + "\n";
    std::ofstream(m_Dir / "real" / "settings.ini") << original;
    fs::create_symlink("real/settings.ini", m_Config);
    std::mt19937 random(static_cast<unsigned>(::getpid()));

    for (int i = 0; i < 12; ++i) {
        CBackgroundProcess run({TessitorPath(), "send", "--serial", m_Peer.Path(), "PX"}, Env());
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
        run.Stop(SIGKILL);
        std::string text = ReadFile(m_Config);
        ASSERT_EQ(text.rfind(original, 0), 0u) << "whole after a kill -9: " << text;
    }
    ProcessResult saved = Run({"send", "--serial", m_Peer.Path(), "PX"});
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(m_Dir / "real"))
        left.push_back(entry.path().filename().string());
    fs::permissions(m_Dir / "real" / "settings.ini", fs::perms::owner_read | fs::perms::group_read);
    std::string before = ReadFile(m_Config);
    ProcessResult readOnly = Run({"send", "--serial", (m_Dir / "ttyNone").string(), "PX"});
    ProcessResult stillWorks = Run({"send", "--serial", m_Peer.Path(), "PX"});

    EXPECT_EQ(saved.nStatus, 0) << saved.sErr;
    EXPECT_TRUE(fs::is_symlink(m_Config));
    EXPECT_EQ(left, std::vector<std::string>{"settings.ini"}) << "no temporary file is left";
    EXPECT_EQ(readOnly.nStatus, 1);
    EXPECT_EQ(stillWorks.nStatus, 0) << "the command's work is done: " << stillWorks.sErr;
    EXPECT_NE(stillWorks.sErr.find("read-only"), std::string::npos) << stillWorks.sErr;
    EXPECT_EQ(ReadFile(m_Config), before);
}

TEST_F(CliTest, ExitStatusesTellTheTruth)
{
    CScriptedPeer unidentified;
    unidentified.SetHandler([](const std::string& line) {
        return line == "VR\r" ? CScriptedPeer::Refusal(line, 5) : CScriptedPeer::Answer(line, "16");
    });

    ProcessResult info = Run({"info", "--serial", m_Peer.Path()});
    ProcessResult noVersion = Run({"info", "--serial", unidentified.Path()});
    ProcessResult driveError = Run({"term", "--serial", m_Peer.Path(), "--no"}, "XX\nPX\n");
    ProcessResult lost = Run({"term", "--serial", m_Peer.Path(), "--no", "--timeout", "100"}, "NOPE\nPX\n");
    ProcessResult full =
        RunProcess({"/bin/sh", "-c", "exec \"$0\" send --serial \"$1\" PX >/dev/full", TessitorPath(), m_Peer.Path()},
                   Env());
    const size_t linesBefore = m_Peer.Lines().size();
    ProcessResult closed = Run({"send", "--serial", m_Peer.Path(), "PX"}, "", {0, 1, 2});

    EXPECT_EQ(info.nStatus, 0) << info.sErr;
    EXPECT_NE(info.sOut.find("version: Talvina 2.1.0.0\nproduct: Talvina\nprocessor: DSP\n"), std::string::npos)
        << info.sOut;
    EXPECT_NE(info.sOut.find("link check: ok (1)\n"), std::string::npos);
    EXPECT_EQ(noVersion.nStatus, 1) << noVersion.sOut;
    EXPECT_NE(noVersion.sErr.find("did not identify itself"), std::string::npos) << noVersion.sErr;
    EXPECT_EQ(driveError.nStatus, 1);
    EXPECT_EQ(driveError.sOut, "1234\n");
    EXPECT_EQ(lost.nStatus, 1);
    EXPECT_NE(lost.sErr.find("Communication Device Error: Bad Echo from Controller\nWould you like to disconnect now ?"),
              std::string::npos)
        << lost.sErr;
    EXPECT_EQ(lost.sOut, "1234\n") << "after No the terminal goes on";
    EXPECT_EQ(full.nStatus, 1);
    EXPECT_NE(full.sErr.find("cannot write to standard output: No space left on device"), std::string::npos)
        << full.sErr;
    EXPECT_EQ(closed.nStatus, 1) << "stdout is closed, so the value cannot be written";
    std::vector<std::string> lines = m_Peer.Lines();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + static_cast<long>(linesBefore), lines.end()),
              (std::vector<std::string>{"VR\r", "PX\r"}))
        << "the port never became stdout";
}

TEST_F(CliTest, ASignalClosesTheLinkGivesThePortBackAndExitsWithItsStatus)
{
    m_Peer.SetHandler([](const std::string& line) {
        return line == "VR\r" ? CScriptedPeer::Answer(line, "Talvina 2.1.0.0") : std::string();
    });
    termios found = m_Peer.Line();
    ::cfsetispeed(&found, B9600); // as another program left the port
    ::cfsetospeed(&found, B9600);
    m_Peer.SetLine(found);

    for (int signal : {SIGINT, SIGTERM}) {
        const int sent = m_Peer.Count("PX\r");
        CBackgroundProcess waiting({TessitorPath(), "send", "--timeout", "60000", "--serial", m_Peer.Path(), "PX"},
                                   Env());
        ASSERT_TRUE(Eventually([&] { return m_Peer.Count("PX\r") > sent; }));
        termios during = m_Peer.Line();

        EXPECT_EQ(waiting.Stop(signal), 128 + signal);
        termios after = m_Peer.Line();
        EXPECT_EQ(::cfgetospeed(&during), B115200);
        EXPECT_EQ(::cfgetospeed(&after), B9600) << "the port's settings are given back";
        EXPECT_EQ(after.c_cflag, found.c_cflag);
    }
}

TEST_F(CliTest, ALongWaitIsShownOnATerminalOnlyWhileItLasts)
{
    // The second attempt is answered, once the test has seen it shown.
    std::atomic<int> asked{0};
    std::atomic<bool> seen{false};
    m_Peer.SetHandler([&](const std::string& line) {
        if (line == "VR\r")
            return CScriptedPeer::Answer(line, "Talvina 2.1.0.0");
        if (++asked != 2)
            return std::string();
        Eventually([&] { return seen.load(); });
        return CScriptedPeer::Answer(line, "1234");
    });

    CTerminalProcess terminal = RunOnTerminal({"send", "--timeout", "1500", "--serial", m_Peer.Path(), "PX"}, true);
    std::string shown = terminal.ReadUntil(", attempt 2 of 3");
    seen = true;
    int status = terminal.Wait();
    std::string cleared = terminal.ReadUntil("never shown");
    asked = 0;
    ProcessResult piped = Run({"send", "--timeout", "1500", "--serial", m_Peer.Path(), "PX"});

    EXPECT_EQ(status, 0);
    EXPECT_NE(shown.find("waiting for PX on " + m_Peer.Path() + ", attempt 2 of 3"), std::string::npos) << shown;
    EXPECT_NE(cleared.find("\r                                "), std::string::npos) << "blanked out: " << cleared;
    EXPECT_EQ(terminal.Stdout(), "1234\n") << "nothing of it reaches stdout";
    EXPECT_EQ(piped.sOut, "1234\n");
    EXPECT_EQ(piped.sErr, "") << "nor a stderr that is not a terminal";
}

TEST_F(CliTest, WhatTheDriveSendsCannotTakeOverTheTerminal)
{
    ProcessResult piped = Run({"send", "--serial", m_Peer.Path(), "ESC"});
    CTerminalProcess terminal = RunOnTerminal({"send", "--serial", m_Peer.Path(), "ESC"});
    std::string shown = terminal.ReadUntil("\\x07");
    int status = terminal.Wait();

    EXPECT_EQ(piped.sOut, "A\x1b[2JB\x07\n") << "to a pipe the value goes as it is";
    EXPECT_EQ(status, 0);
    EXPECT_NE(shown.find("A\\x1B[2JB\\x07"), std::string::npos) << shown;
    EXPECT_EQ(shown.find('\x1b'), std::string::npos);
}

TEST_F(CliTest, TheTerminalBehavesLikeTheTerminalsPeopleKnow)
{
    std::atomic<bool> release{false};
    m_Peer.SetHandler([&release](const std::string& line) {
        if (line == "VR\r")
            return CScriptedPeer::Answer(line, "Talvina 2.1.0.0");
        if (line == "PX\r")
            return CScriptedPeer::Answer(line, "1234");
        if (line == "SLOW\r") {
            Eventually([&] { return release.load(); });
            return std::string("SLOX\r;");
        }
        return CScriptedPeer::Answer(line, "");
    });
    CTerminalProcess term = RunOnTerminal({"term", "--serial", m_Peer.Path(), "--timeout", "200"});

    // Keys go in only at a prompt: between commands Ctrl-C is SIGINT, as in a shell.
    auto prompt = [&term] { return term.ReadUntil("\n> "); };
    std::string banner = prompt();
    term.Type("PY\x7fX\r");
    std::string edited = prompt();
    term.Type("SR\x03");
    std::string dropped = prompt();
    term.Type(":help\r");
    std::string help = prompt();
    term.Type("P\xc3\xa9\r");
    prompt();
    term.Type("SLOW\r");
    Eventually([&] { return m_Peer.Count("SLOW\r") > 0; });
    term.Type("y\r"); // typed ahead while the drive is busy: not an answer
    release = true;
    std::string question = term.ReadUntil("[y/N] ");
    term.Type("n\r");
    prompt();
    term.Type("PX\r");
    std::string stillConnected = prompt();
    term.Type(":reconnect\r");
    std::string reconnected = prompt();
    term.Type("\x03");
    prompt();
    term.Type("\x03");
    int status = term.Wait();

    EXPECT_NE(banner.find("Connected to RS_232"), std::string::npos) << banner;
    EXPECT_NE(banner.find(":help"), std::string::npos) << banner;
    EXPECT_NE(edited.find("1234"), std::string::npos) << edited;
    EXPECT_NE(dropped.find("^C"), std::string::npos) << dropped;
    EXPECT_EQ(m_Peer.Count("SR\r"), 0) << "Ctrl-C dropped the line";
    EXPECT_NE(help.find(":reconnect"), std::string::npos) << help;
    EXPECT_EQ(m_Peer.Count("P\xc3\xa9\r"), 1) << "non-ASCII goes out as typed";
    EXPECT_NE(question.find("Bad Echo from Controller"), std::string::npos) << question;
    EXPECT_NE(stillConnected.find("1234"), std::string::npos) << "the answer was the fresh n: " << stillConnected;
    EXPECT_NE(reconnected.find("Connected to"), std::string::npos);
    EXPECT_EQ(m_Peer.Count("VR\r"), 2);
    EXPECT_EQ(status, 1) << "a command failed";
    EXPECT_NE(ReadFile(m_Dir / "tessitor" / "history").find("PX"), std::string::npos) << "history is kept";
}
