// `tessitor record` end to end: the virtual drive over a pseudo-terminal, a
// loopback network device and an SLCAN bus, each trigger kind as a real
// recording read back from the MAT file; and the failures a user must see,
// against a scripted drive.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/recorder/mathelpers.h"
#include "tests/recorder/scriptedrecorderdrive.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"

using namespace tessitor::test;
namespace fs = std::filesystem;

namespace {

using Args = std::vector<std::string>;

class RecordCliTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Dir = fs::temp_directory_path()
            / ("tessitor-record-" + std::to_string(::getpid()) + "-"
               + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(m_Dir);
        fs::create_directories(m_Dir);
    }
    void TearDown() override { fs::remove_all(m_Dir); }

    ProcessResult Tessitor(Args args)
    {
        args.insert(args.begin(), TessitorPath());
        return RunProcess(args, {"TESSITOR_CONFIG=" + (m_Dir / "tessitor.ini").string()}, {}, 120000);
    }
    // Records with the connection args and the recording args; the MAT
    // file's path, or "" when the command failed.
    std::string Record(const Args& connection, const Args& recording, const std::string& name = "rec.sdv")
    {
        std::string out = (m_Dir / name).string();
        Args args = connection;
        args.push_back("record");
        args.insert(args.end(), recording.begin(), recording.end());
        args.insert(args.end(), {"--out", out});
        ProcessResult r = Tessitor(args);
        EXPECT_EQ(r.nStatus, 0) << r.sErr;
        if (r.nStatus != 0)
            return {};
        EXPECT_EQ(r.sOut, out + ": " + std::to_string(CMatFile(out).Rows()) + " samples\n");
        return out;
    }

    fs::path m_Dir;
};

// The move of PA=4000 from rest: the position starts at 0 and ends at 4000,
// the velocity rises and falls back.
void ExpectMoveTo4000(const CMatFile& mat, std::size_t position, std::size_t velocity)
{
    std::vector<double> px = mat.Column(position), vx = mat.Column(velocity);
    ASSERT_FALSE(px.empty());
    EXPECT_NEAR(px.front(), 0, 2);
    EXPECT_NEAR(px.back(), 4000, 2) << "the move ended within the recording";
    auto peak = std::max_element(vx.begin(), vx.end());
    EXPECT_GT(*peak, 20000);
    EXPECT_LT(std::abs(vx.front()), 0.1 * *peak);
    EXPECT_LT(std::abs(vx.back()), 0.1 * *peak);
    EXPECT_GT(peak - vx.begin(), 10) << "it rises first";
    EXPECT_LT(vx.end() - peak, static_cast<long>(vx.size()) - 10) << "and falls again";
}

const Args kMove = {"--trigger", "Begin Motion", "--signal", "Position", "--signal", "Velocity",
                    "--gap", "3", "--length", "800", "--run", "MO=1", "--run", "PA=4000", "--run", "BG"};

} // namespace

TEST_F(RecordCliTest, BeginMotionOverSerialRecordsTheMove)
{
    std::string csv = (m_Dir / "move.csv").string();
    Args recording = kMove;
    recording.insert(recording.end(), {"--csv", csv});

    std::string file = Record({"--sim"}, recording);

    ASSERT_FALSE(file.empty());
    CMatFile mat(file);
    EXPECT_EQ(mat.Columns(), (Args{"Index", "Time(sec)", "Position", "Velocity"}));
    EXPECT_EQ(mat.Rows(), 800u);
    ExpectMoveTo4000(mat, 2, 3);
    EXPECT_DOUBLE_EQ(mat.Column(1)[10], 10 * 3 * 100e-6) << "gap 3 x the drive's 100 us";
    EXPECT_EQ(mat.Text("trigger"), "Begin Motion");
    EXPECT_EQ(mat.Text("product"), "Talvina");
    EXPECT_EQ(mat.Number("gap"), 3);
    std::ifstream in(csv);
    std::string header, first;
    std::getline(in, header);
    std::getline(in, first);
    EXPECT_EQ(header, "Index,Time(sec),Position,Velocity");
    EXPECT_EQ(first.rfind("0,0,", 0), 0u) << first;

    // The embedded drive is ready to move: the one-line example needs no MO=1.
    file = Record({"--sim"}, {"--trigger", "Begin Motion", "--signal", "Position", "--signal", "Velocity", "--run",
                              "PA=4000", "--run", "BG"},
                  "move.sdv");
    ASSERT_FALSE(file.empty());
    EXPECT_GT(CMatFile(file).Column(2).back(), 1000) << "the motor moved";
}

TEST_F(RecordCliTest, BreNolDriveOverTcpRecordsTheMove)
{
    CBackgroundProcess device({TessitorPath(), "sim", "--tcp", "0", "--product", "Bressa"});
    std::string where = device.FirstLine();
    ASSERT_EQ(where.rfind("127.0.0.1:", 0), 0u) << where;

    // Its levels also go as integers: a negative one must reach the drive too.
    Args recording = kMove;
    recording.insert(recording.end(), {"--level-mode", "falling", "--level1", "-0.5"});

    std::string file = Record({"--tcp", where, "--target", "RS232 Port 2"}, recording);

    ASSERT_FALSE(file.empty());
    CMatFile mat(file);
    EXPECT_EQ(mat.Text("family"), "BreNol");
    ExpectMoveTo4000(mat, 2, 3);
    EXPECT_EQ(device.Stop(), 0);
}

TEST_F(RecordCliTest, BeginMotionOverCanRecordsTheMove)
{
    CBackgroundProcess bus({TessitorPath(), "sim", "--slcan", "--node", "3"});
    std::string path = bus.FirstLine();
    ASSERT_EQ(path.rfind("/dev/pts/", 0), 0u) << path;

    std::string file = Record({"--can", "slcan:" + path, "--node", "3"}, kMove);

    ASSERT_FALSE(file.empty());
    CMatFile mat(file);
    EXPECT_EQ(mat.Rows(), 800u) << "one record a signal holds the whole recording";
    ExpectMoveTo4000(mat, 2, 3);
    EXPECT_EQ(bus.Stop(), 0);
}

TEST_F(RecordCliTest, LevelWindowAndEventTriggersFireWhereTheyShould)
{
    // Falling through -2000 with a quarter before it: the trigger sample is
    // the first at or below the level.
    std::string file = Record({"--sim"}, {"--trigger", "Position", "--level-mode", "falling", "--level1", "-2000",
                                          "--pretrigger", "25%", "--gap", "2", "--length", "400", "--signal",
                                          "Position", "--run", "MO=1", "--run", "PA=-4000", "--run", "BG"},
                              "falling.sdv");
    ASSERT_FALSE(file.empty());
    std::vector<double> px = CMatFile(file).Column(2);
    ASSERT_EQ(px.size(), 400u);
    EXPECT_GT(px[99], -2000);
    EXPECT_LE(px[100], -2000);

    // Leaving the window -100..100 of the velocity; a gentle acceleration
    // leaves it well after the 2 ms before the trigger are recorded.
    file = Record({"--sim"}, {"--trigger", "Velocity", "--level-mode", "window", "--level1", "-100", "--level2", "100",
                              "--pretrigger", "10%", "--length", "200", "--signal", "Velocity", "--run", "AC=10000",
                              "--run", "MO=1", "--run", "JV=-5000", "--run", "BG"},
                  "window.sdv");
    ASSERT_FALSE(file.empty());
    std::vector<double> vx = CMatFile(file).Column(2);
    ASSERT_EQ(vx.size(), 200u);
    EXPECT_GE(vx[19], -100);
    EXPECT_LT(vx[20], -100);

    // A rising edge of digital input 2, the wiring played with IP after the
    // recorder was armed: the first sample already sees it.
    file = Record({"--sim"}, {"--trigger", "Digital Input 2", "--length", "100", "--signal", "Digital Inputs",
                              "--run", "IP=2"},
                  "event.sdv");
    ASSERT_FALSE(file.empty());
    std::vector<double> inputs = CMatFile(file).Column(2);
    ASSERT_EQ(inputs.size(), 100u);
    EXPECT_EQ(inputs.front(), 2);
    EXPECT_EQ(inputs.back(), 2);
}

TEST_F(RecordCliTest, RefusalsAUserMustSee)
{
    CScriptedRecorderDrive drive;
    CScriptedPeer peer;
    peer.SetHandler([&drive](const std::string& line) { return drive.Answer(line); });
    const Args serial = {"record", "--serial", peer.Path()};
    auto run = [&](Args extra) {
        Args args = serial;
        args.insert(args.end(), extra.begin(), extra.end());
        return Tessitor(args);
    };

    ProcessResult r = run({"--trigger", "Digital Input 9"});
    EXPECT_EQ(r.nStatus, 2);
    EXPECT_NE(r.sErr.find("no trigger row 'Digital Input 9'; the rows are:\n  (No Trigger)\n  Begin Motion\n"),
              std::string::npos)
        << r.sErr;

    r = run({"--trigger", "Position", "--level-mode", "window", "--level1", "5", "--level2", "5"});
    EXPECT_EQ(r.nStatus, 1);
    EXPECT_NE(r.sErr.find("Please enter different value into High and Low Level windows and start again"),
              std::string::npos)
        << r.sErr;
    EXPECT_EQ(peer.Count("RP[4]=5.000000\r") + peer.Count("RP[5]=5.000000\r"), 0) << "no level sent";
    EXPECT_EQ(peer.Count("RR=3\r"), 0);

    drive.SetSr({"65536"});
    r = run({"--trigger", "Begin Motion", "--wait", "0.5"});
    EXPECT_EQ(r.nStatus, 1);
    EXPECT_EQ(r.sErr, "No recording within 0.5 s: the recorder was stopped (RR=0).\n");
    EXPECT_EQ(r.sOut, "");
    EXPECT_EQ(peer.Lines().back(), "RR=0\r") << "the recorder is left stopped";

    // Ctrl-C while waiting for the trigger stops the recorder, not the program.
    const int polls = peer.Count("SR\r");
    CBackgroundProcess waiting({TessitorPath(), "record", "--serial", peer.Path(), "--wait", "600"},
                               {"TESSITOR_CONFIG=" + (m_Dir / "tessitor.ini").string()});
    for (int i = 0; i < 2000 && peer.Count("SR\r") < polls + 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(waiting.Stop(SIGINT), 1);
    EXPECT_EQ(peer.Lines().back(), "RR=0\r");

    r = run({"--pretrigger", "25"});
    EXPECT_EQ(r.nStatus, 2);
    EXPECT_NE(r.sErr.find("a percentage with its sign, e.g. 25%"), std::string::npos) << r.sErr;

    drive.SetVersion("Quokka 1.0.0.0");
    r = run({});
    EXPECT_EQ(r.nStatus, 1);
    EXPECT_EQ(r.sErr, "This drive has no recorder: Quokka 1.0.0.0 is of the family \"unknown\"; the recorder "
                      "serves the families DSP, STP and BreNol.\n");
}

TEST_F(RecordCliTest, ListAndMapShowTheDrivesSlots)
{
    ProcessResult r = Tessitor({"--sim", "record", "map", "8=Analog Input 1", "1=none"});
    EXPECT_EQ(r.nStatus, 0) << r.sErr;
    EXPECT_NE(r.sOut.find("  RC bit 0:   Position\n  RC bit 1:   none\n"), std::string::npos) << r.sOut;
    EXPECT_NE(r.sOut.find("  RC bit 8:   Analog Input 1\n"), std::string::npos) << r.sOut;

    r = Tessitor({"--sim", "record", "map", "16=Position"});
    EXPECT_EQ(r.nStatus, 2);
    r = Tessitor({"--sim", "record", "map", "3=Torque"});
    EXPECT_EQ(r.nStatus, 2);
    EXPECT_NE(r.sErr.find("no signal 'Torque' in Vectors.ini; the signals are:\n  none\n  Position\n"),
              std::string::npos)
        << r.sErr;
    r = Tessitor({"--sim", "--product", "Bressa", "--yes", "record", "map", "3=Position"});
    EXPECT_EQ(r.nStatus, 1);
    EXPECT_EQ(r.sErr.substr(r.sErr.find("The slots")), "The slots of the BreNol family are fixed; they cannot be "
                                                       "mapped.\n");

    r = Tessitor({"--sim", "--product", "Bressa", "--yes", "record", "list"});
    EXPECT_EQ(r.nStatus, 0) << r.sErr;
    EXPECT_EQ(r.sOut.rfind("Trigger list:\n  (No Trigger)\n  Begin Motion\n  Abort\n", 0), 0u) << r.sOut;
    EXPECT_NE(r.sOut.find("Slots:\n  RC bit 0:   Position\n  RC bit 1:   Velocity\n"), std::string::npos) << r.sOut;
}
