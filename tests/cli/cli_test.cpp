// The tessitor command end to end, against a scripted drive on a
// pseudo-terminal.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/process.h"
#include "tests/support/scriptedpeer.h"

using namespace tessitor::test;
namespace fs = std::filesystem;

namespace {

class CliTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Config = fs::temp_directory_path() / ("tessitor-cli-" + std::to_string(::getpid()) + "-" +
                                                ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".ini");
        fs::remove(m_Config);
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
            return CScriptedPeer::Answer(line, "");
        });
    }
    void TearDown() override { fs::remove(m_Config); }

    ProcessResult Run(std::vector<std::string> args, const std::string& input = {})
    {
        args.insert(args.begin(), TessitorPath());
        return RunProcess(args, {"TESSITOR_CONFIG=" + m_Config.string()}, input);
    }

    CScriptedPeer m_Peer;
    fs::path m_Config;
};

} // namespace

TEST_F(CliTest, SendPrintsEachValueOnItsOwnLine)
{
    ProcessResult r = Run({"send", "--serial", m_Peer.Path(), "PX", "MO=1", "SR"});

    EXPECT_EQ(r.nStatus, 0) << r.sErr;
    EXPECT_EQ(r.sOut, "1234\n\n16\n");
    EXPECT_EQ(m_Peer.Count("VR\r"), 1) << "the drive is identified on connect";

    ProcessResult after = Run({"--timeout", "500", "send", "PX", "--serial", m_Peer.Path()});
    EXPECT_EQ(after.nStatus, 0) << "options stand before or after the command: " << after.sErr;
    EXPECT_EQ(after.sOut, "1234\n");
}

TEST_F(CliTest, DriveErrorStopsTheRestAndExitsOne)
{
    ProcessResult r = Run({"send", "--serial", m_Peer.Path(), "PX", "XX", "SR"});

    EXPECT_EQ(r.nStatus, 1);
    EXPECT_EQ(r.sOut, "1234\n");
    EXPECT_EQ(r.sErr, "Error (5) :  'XX' : Command not supported by this product !\n");
    EXPECT_EQ(m_Peer.Count("SR\r"), 0) << "later commands are not sent";
}

TEST_F(CliTest, SilentDriveTimesOut)
{
    m_Peer.SetHandler([](const std::string& line) {
        return line == "VR\r" ? CScriptedPeer::Answer(line, "Talvina 2.1.0.0") : std::string();
    });

    fs::path trace = m_Config.string() + ".trace";
    ProcessResult r = RunProcess({TessitorPath(), "send", "--timeout", "100", "--serial", m_Peer.Path(), "PX", "SR"},
                                 {"TESSITOR_CONFIG=" + m_Config.string(), "TESSITOR_TRACE=" + trace.string()});

    EXPECT_EQ(r.nStatus, 1);
    EXPECT_EQ(r.sErr, "Time Out Waiting for Response from Controller\n");
    EXPECT_EQ(m_Peer.Count("PX\r"), 3);
    EXPECT_EQ(m_Peer.Count("SR\r"), 0);
    std::ifstream in(trace);
    std::string text((std::istreambuf_iterator<char>(in)), {});
    auto count = [&text](const std::string& line) {
        int n = 0;
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count("return(COM_TIMEOUT)\n"), 3) << text;
    EXPECT_EQ(count(" -> \"PX\\r\"\n"), 3) << "each write on the wire is traced: " << text;
    EXPECT_NE(text.find("The thread CommWatchThread has exited with code 13\n"), std::string::npos) << text;
    fs::remove(trace);
}

TEST_F(CliTest, OverlongCommandIsRefusedBeforeTheWire)
{
    ProcessResult r = Run({"send", "--serial", m_Peer.Path(), std::string(8191, 'A')});

    EXPECT_EQ(r.nStatus, 1);
    EXPECT_EQ(r.sErr, "Output buffer is too long!\n");
    EXPECT_EQ(m_Peer.Lines().size(), 1u) << "only the identification went out";
}

TEST_F(CliTest, WrongUsageExitsTwoAndSendsNothing)
{
    std::vector<std::vector<std::string>> bad = {
        {"send", "--serial", m_Peer.Path(), "--bogus", "PX"},
        {"send", "--conn", "RS_232 ; COM: 1", "PX"},
        {"send", "--serial", m_Peer.Path(), "--last", "PX"},
        {"send", "PX"},
        {"send", "--serial", m_Peer.Path()},
        {"send", "--serial", m_Peer.Path(), "--timeout", "0", "PX"},
        {"conn", "decode", "not a descriptor"},
        {"nosuchcommand"},
        {},
    };
    for (const auto& args : bad) {
        ProcessResult r = Run(args);
        std::string shown;
        for (const auto& a : args)
            shown += a + " ";
        EXPECT_EQ(r.nStatus, 2) << shown << r.sErr;
        EXPECT_FALSE(r.sErr.empty()) << shown;
        EXPECT_TRUE(r.sOut.empty()) << shown;
    }
    EXPECT_TRUE(m_Peer.Lines().empty());

    ProcessResult help = Run({"send", "--help"});
    EXPECT_EQ(help.nStatus, 0);
    EXPECT_NE(help.sOut.find("Usage"), std::string::npos);
    EXPECT_NE(help.sOut.find("--serial"), std::string::npos) << "connection options are listed";
}

TEST_F(CliTest, ConnectionFormsRoundTripAndLastIsRemembered)
{
    ProcessResult encoded = Run({"conn", "encode", "--serial", "/dev/ttyS2", "--baud", "57600"});
    ASSERT_EQ(encoded.nStatus, 0) << encoded.sErr;
    EXPECT_EQ(encoded.sOut.rfind("RS_232 ; COM: 3 ; 57600 ; 8 ; 0 ; 0 ; 0 ; CAN:", 0), 0u) << encoded.sOut;

    std::string line = encoded.sOut.substr(0, encoded.sOut.size() - 1);
    ProcessResult decoded = Run({"conn", "decode", line});
    EXPECT_EQ(decoded.nStatus, 0);
    EXPECT_EQ(decoded.sOut, "RS_232; COM3; 57600[bit/sec]; Parity None\n");

    ProcessResult shown = Run({"conn", "show", "--conn", line});
    EXPECT_EQ(shown.sOut, "RS_232; COM3; 57600[bit/sec]; Parity None\n_COM3\n");

    ProcessResult noLast = Run({"send", "--last", "PX"});
    EXPECT_EQ(noLast.nStatus, 2) << "nothing has succeeded yet";

    ASSERT_EQ(Run({"send", "--serial", m_Peer.Path(), "SR"}).nStatus, 0);
    ProcessResult last = Run({"send", "--last", "PX"});
    EXPECT_EQ(last.nStatus, 0) << last.sErr;
    EXPECT_EQ(last.sOut, "1234\n");
    std::ifstream settings(m_Config);
    std::string text((std::istreambuf_iterator<char>(settings)), {});
    EXPECT_NE(text.find("[CommunicationInfo]\nLast Success Connect=RS_232 ; COM:"), std::string::npos) << text;
    EXPECT_NE(text.find("=" + m_Peer.Path()), std::string::npos) << "the path got a port number: " << text;
}

TEST_F(CliTest, InfoReportsIdentificationAndLinkCheck)
{
    ProcessResult r = Run({"info", "--serial", m_Peer.Path()});

    EXPECT_EQ(r.nStatus, 0) << r.sErr;
    EXPECT_NE(r.sOut.find("version: Talvina 2.1.0.0\n"), std::string::npos) << r.sOut;
    EXPECT_NE(r.sOut.find("product: Talvina\n"), std::string::npos);
    EXPECT_NE(r.sOut.find("processor: DSP\n"), std::string::npos);
    EXPECT_NE(r.sOut.find("link check: ok (1)\n"), std::string::npos);
    EXPECT_EQ(m_Peer.Count("\\COMMUNICATION\r"), 1);
}

TEST_F(CliTest, TerminalGoesOnAfterDriveErrorsAndDisconnectsOnYes)
{
    ProcessResult r = Run({"term", "--serial", m_Peer.Path(), "--yes", "--timeout", "100"}, "PX\nXX\nSR\nNOPE\nPX\n");

    EXPECT_EQ(r.nStatus, 1);
    EXPECT_EQ(r.sOut, "1234\n16\n");
    EXPECT_NE(r.sErr.find("Error (5) :  'XX' : "), std::string::npos) << r.sErr;
    EXPECT_NE(r.sErr.find("Communication Device Error: Bad Echo from Controller\nWould you like to disconnect now ?"),
              std::string::npos)
        << r.sErr;
    EXPECT_EQ(m_Peer.Count("PX\r"), 1) << "after Yes the terminal disconnected";
}

TEST_F(CliTest, TerminalEditsLinesAndKeepsHistoryOnATerminal)
{
    fs::path state = fs::temp_directory_path() / ("tessitor-state-" + std::to_string(::getpid()));
    fs::remove_all(state);
    // Everything the child needs is built before the fork: only execve runs there.
    std::string bin = TessitorPath(), path = m_Peer.Path();
    std::vector<std::string> env = {"TESSITOR_CONFIG=" + m_Config.string(), "XDG_STATE_HOME=" + state.string(),
                                    "TERM=dumb", "HOME=" + state.string()};
    std::vector<char*> envp, argv;
    for (auto& e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string term = "term", serial = "--serial";
    for (std::string* a : {&bin, &term, &serial, &path})
        argv.push_back(a->data());
    argv.push_back(nullptr);
    int master = -1;
    pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::execve(bin.c_str(), argv.data(), envp.data());
        ::_exit(127);
    }
    auto readUntil = [master](const std::string& wanted) {
        std::string seen;
        char chunk[512];
        for (int waited = 0; waited < 200 && seen.find(wanted) == std::string::npos; ++waited) {
            pollfd p{master, POLLIN, 0};
            if (::poll(&p, 1, 100) > 0) {
                ssize_t n = ::read(master, chunk, sizeof chunk);
                if (n <= 0)
                    break;
                seen.append(chunk, static_cast<size_t>(n));
            }
        }
        return seen;
    };

    EXPECT_NE(readUntil("> ").find("> "), std::string::npos) << "a prompt on a terminal";
    ASSERT_EQ(::write(master, "PY\x7fX\r", 5), 5) << "a typing slip, erased before Enter";
    EXPECT_NE(readUntil("1234").find("1234"), std::string::npos);
    ASSERT_EQ(::write(master, "quit\r", 5), 5);
    readUntil("never");
    int status = 0;
    ::waitpid(pid, &status, 0);
    ::close(master);

    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(m_Peer.Count("PX\r"), 1);
    std::ifstream history(state / "tessitor" / "history");
    std::string text((std::istreambuf_iterator<char>(history)), {});
    EXPECT_NE(text.find("PX"), std::string::npos) << "history is kept: " << text;
    fs::remove_all(state);
}
