// `tessitor sim` served in its own process, used by `tessitor` commands
// over the pseudo-terminal it prints; and the embedded drive of --sim and demo.
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <memory>
#include <sstream>

#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"

using namespace tessitor::test;
namespace fs = std::filesystem;

namespace {

// A folder of this test run for what the commands leave (their settings, the
// demo's files), removed when the run ends.
const fs::path& RunFolder()
{
    struct Folder {
        Folder()
        {
            std::string pattern = (fs::temp_directory_path() / "tessitor-simcli-XXXXXX").string();
            path = ::mkdtemp(pattern.data()) ? pattern : "";
        }
        ~Folder()
        {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
        fs::path path;
    };
    static const Folder folder;
    return folder.path;
}

ProcessResult Tessitor(std::vector<std::string> args, std::vector<std::string> env = {})
{
    args.insert(args.begin(), TessitorPath());
    env.push_back("TESSITOR_CONFIG=" + (RunFolder() / "tessitor.ini").string());
    return RunProcess(args, env);
}

} // namespace

// A drive served until interrupted keeps its state between clients, gives
// them the faults of its command line, and serves again from its flash file.
TEST(SimCliTest, ServesUntilInterruptedWithItsFaultsAndFlash)
{
    fs::path flash = RunFolder() / "flash.bin";
    fs::remove(flash);
    {
        CBackgroundProcess sim({TessitorPath(), "sim", "--serial", "--product", "Vosk", "--flash", flash.string()});
        std::string path = sim.FirstLine();
        ASSERT_EQ(path.rfind("/dev/pts/", 0), 0u) << path;

        ProcessResult r = Tessitor({"send", "--serial", path, "VR", "UM", "MO=1", "SR"});
        EXPECT_EQ(r.nStatus, 0) << r.sErr;
        ASSERT_EQ(r.sOut.rfind("Vosk 1.3.2.0\n3\n\n", 0), 0u) << r.sOut;
        // Position mode, motor on; "in target" (bit 7) comes once the motor has
        // held still long enough, which depends on how busy this machine is.
        EXPECT_EQ(std::stoul(r.sOut.substr(r.sOut.rfind('\n', r.sOut.size() - 2) + 1)) & ~0x80ul, 22ul) << r.sOut;
        ProcessResult again = Tessitor({"send", "--serial", path, "MO", "MO=0", "KP[3]=55", "SV"});
        EXPECT_EQ(again.sOut, "1\n\n\n\n") << "the drive keeps its state between clients: " << again.sErr;
        EXPECT_EQ(sim.Stop(SIGINT), 0);
    }
    CBackgroundProcess sim({TessitorPath(), "sim", "--serial", "--product", "Vosk", "--flash", flash.string(),
                            "--fault", "error:/MO:1", "--fault", "drop:/SR"});
    std::string path = sim.FirstLine();

    ProcessResult saved = Tessitor({"send", "--serial", path, "KP[3]"});
    ProcessResult refused = Tessitor({"send", "--serial", path, "MO=1"});
    ProcessResult lost = Tessitor({"send", "--timeout", "200", "--serial", path, "PX", "SR"});

    EXPECT_EQ(saved.sOut, "55\n") << saved.sErr;
    EXPECT_EQ(refused.nStatus, 1);
    EXPECT_EQ(refused.sErr, "Error (1) :  'MO=1' : Motor must be off !\n");
    EXPECT_EQ(lost.nStatus, 1);
    EXPECT_EQ(lost.sOut, "0\n");
    EXPECT_NE(lost.sErr.find("Time Out Waiting for Response from Controller"), std::string::npos) << lost.sErr;
    EXPECT_EQ(sim.Stop(SIGTERM), 0);
    fs::remove(flash);
}

// A user who is not root runs the sim and one client after another: each
// client takes the line exclusively, and the next must still get it.
TEST(SimCliTest, ServesAnUnprivilegedUserAgainAndAgain)
{
    std::vector<std::string> asUser;
    if (::geteuid() == 0) {
        asUser = {"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"};
        std::vector<std::string> probe = asUser;
        probe.push_back("/bin/true");
        if (RunProcess(probe).nStatus != 0)
            GTEST_SKIP() << "running as root, and setpriv cannot switch to the user nobody here";
    }
    // Not in RunFolder(), which only its owner may enter.
    fs::path folder = fs::temp_directory_path() / ("tessitor-sim-user-" + std::to_string(::getpid()));
    fs::create_directories(folder);
    fs::permissions(folder, fs::perms::all); // the user's settings go here
    auto run = [&asUser](std::vector<std::string> args) {
        args.insert(args.begin(), asUser.begin(), asUser.end());
        return args;
    };

    CBackgroundProcess sim(run({TessitorPath(), "sim", "--serial"}));
    std::string path = sim.FirstLine();
    ASSERT_EQ(path.rfind("/dev/pts/", 0), 0u) << path;
    for (int client = 0; client < 3; ++client) {
        ProcessResult r = RunProcess(run({TessitorPath(), "send", "--serial", path, "VR"}),
                                     {"TESSITOR_CONFIG=" + (folder / "tessitor.ini").string()});
        EXPECT_EQ(r.nStatus, 0) << "client " << client << ": " << r.sErr;
        EXPECT_EQ(r.sOut, "Talvina 2.1.0.0\n");
    }

    EXPECT_EQ(sim.Stop(SIGINT), 0);
    fs::remove_all(folder);
}

TEST(SimCliTest, WrongUsageExitsTwo)
{
    fs::path readOnly = RunFolder() / "ro.bin";
    std::ofstream(readOnly) << "kept";
    fs::permissions(readOnly, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"sim"}, {"sim", "--serial", "--fault", "explode:1"},
          {"sim", "--serial", "--fault", "drop:0"}, {"sim", "--serial", "--fault", "error:/MO:8"},
          {"sim", "--serial", "--product", "Nonesuch"}, {"sim", "--serial", "--pace", "-5"},
          {"sim", "--serial", "--flash", readOnly.string()}, {"sim", "--serial", "--flash", "/nonexistent/flash.bin"},
          {"sim", "--serial", "--max-clients", "2"}, {"sim", "--tcp", "0", "--max-clients", "0"},
          {"sim", "--slcan", "--node", "0"}, {"sim", "--slcan", "--node", "5,5"},
          {"sim", "--slcan", "--node", "5:Nonesuch"}, {"sim", "--slcan", "--bitrate", "300"},
          {"sim", "--slcan", "--pace", "500"}, {"sim", "--serial", "--node", "5"}, {"sim", "--serial", "--slcan"},
          {"sim", "--slcan", "--fault", "abort:/0x1008:zz"}, {"sim", "--slcan", "--node", "5,6", "--flash", "f"}}) {
        ProcessResult r = Tessitor(args);
        EXPECT_EQ(r.nStatus, 2) << args.back() << ": " << r.sErr;
        EXPECT_FALSE(r.sErr.empty());
        EXPECT_EQ(r.sOut, "");
    }
    std::ifstream kept(readOnly);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "kept");
    fs::remove(readOnly);
}

// Each example of `tessitor sim --help`, run as printed: every sim serves,
// and each send reaches the last sim of its face (PATH and HOST:PORT are
// what the sims printed).
TEST(SimCliTest, EveryHelpExampleWorksAsPrinted)
{
    ProcessResult help = Tessitor({"sim", "--help"});
    std::vector<std::vector<std::string>> sims, sends;
    std::istringstream lines(help.sOut.substr(help.sOut.find("Examples:")));
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("  tessitor ", 0) != 0)
            continue;
        std::vector<std::string> args;
        std::istringstream words(line);
        for (std::string word; words >> std::quoted(word);)
            args.push_back(word);
        args[0] = TessitorPath();
        (args[1] == "sim" ? sims : sends).push_back(args);
    }
    ASSERT_GE(sims.size(), 4u) << help.sOut;
    ASSERT_GE(sends.size(), 2u) << help.sOut;
    fs::path folder = RunFolder() / "examples";
    fs::create_directories(folder);
    fs::path previous = fs::current_path();
    fs::current_path(folder); // an example may write a file where it runs

    std::string path, canPath, hostPort;
    std::vector<std::unique_ptr<CBackgroundProcess>> running;
    for (const auto& args : sims) {
        running.push_back(std::make_unique<CBackgroundProcess>(args));
        std::string first = running.back()->FirstLine();
        bool serial = first.rfind("/dev/pts/", 0) == 0;
        EXPECT_TRUE(serial || first.find(':') != std::string::npos) << args[2] << " printed \"" << first << '"';
        (!serial ? hostPort : args[2] == "--slcan" ? canPath : path) = first;
    }
    for (auto args : sends) {
        for (std::string& arg : args)
            arg = arg == "PATH" ? path : arg == "HOST:PORT" ? hostPort : arg == "slcan:PATH" ? "slcan:" + canPath : arg;
        args.erase(args.begin());
        ProcessResult r = Tessitor(args);
        EXPECT_EQ(r.nStatus, 0) << args[1] << ": " << r.sErr;
        EXPECT_EQ(r.sOut, "Talvina 2.1.0.0\n") << args[1];
    }
    for (auto& sim : running)
        EXPECT_EQ(sim->Stop(SIGINT), 0);
    fs::current_path(previous);
    fs::remove_all(folder);
}

TEST(SimCliTest, EmbeddedDriveAndDemoNeedNoHardware)
{
    ProcessResult sent = Tessitor({"--sim", "--product", "Bressa", "--yes", "send", "VR", "KP[1]"});
    EXPECT_EQ(sent.nStatus, 0) << sent.sErr;
    EXPECT_EQ(sent.sOut, "Bressa 1.0.4.2\n7.5\n");

    // Without --dir the demo makes a folder of its own in the temporary folder.
    fs::path tmp = RunFolder() / "tmp";
    fs::create_directories(tmp);
    ProcessResult demo = Tessitor({"demo"}, {"TMPDIR=" + tmp.string()});
    EXPECT_EQ(demo.nStatus, 0) << demo.sErr;
    EXPECT_NE(demo.sOut.find("Talvina 2.1.0.0"), std::string::npos);
    EXPECT_NE(demo.sOut.find("in target"), std::string::npos) << demo.sOut;
    std::vector<fs::path> made(fs::directory_iterator(tmp), fs::directory_iterator{});
    ASSERT_EQ(made.size(), 1u);
    EXPECT_EQ(made[0].filename().string().rfind("tessitor-demo-", 0), 0u) << made[0];
    EXPECT_TRUE(fs::exists(made[0] / "drive.dat") && fs::exists(made[0] / "Scope.sdv"));
    EXPECT_NE(demo.sOut.find("The files are in " + made[0].string()), std::string::npos) << demo.sOut;
}
