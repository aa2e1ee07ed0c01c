// The recorder against a scripted drive on a pseudo-terminal, through the
// real serial link: the trigger set-ups command by command, the worker's
// phases with their messages, and its failures.
#include <gtest/gtest.h>

#include <matio.h>

#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

#include "communication/rs232.h"
#include "core/strformat.h"
#include "recorder/recbrenol.h"
#include "recorder/rectalvina.h"
#include "tests/recorder/mathelpers.h"
#include "tests/recorder/scriptedrecorderdrive.h"
#include "tests/support/scriptedpeer.h"
#include "tests/support/tracecapture.h"

using namespace tessitor;
using tessitor::test::CScriptedPeer;
using tessitor::test::CScriptedRecorderDrive;
namespace fs = std::filesystem;

namespace {

class RecorderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Peer.SetHandler([this](const std::string& line) { return m_Drive.Answer(line); });
        m_pLink = std::make_unique<CRs232>(CCommunicationInfo{});
        m_pLink->SetDevicePath(m_Peer.Path());
        ASSERT_EQ(m_pLink->Connect(), 0);
        m_pLink->SetProcessorType("DSP");
    }

    std::unique_ptr<CRecorder> Make(const std::string& family)
    {
        m_pLink->SetProcessorType(family);
        auto rec = CRecorder::Create(m_pLink.get());
        rec->SetPollInterval(std::chrono::milliseconds(5));
        rec->SetWindows(&m_Scope, &m_Frame);
        return rec;
    }

    // The commands rec's start sends, without their carriage returns.
    std::vector<std::string> StartCommands(CRecorder& rec, int& mode)
    {
        std::size_t before = m_Peer.Lines().size();
        mode = rec.StartRecording();
        std::vector<std::string> lines = m_Peer.Lines();
        std::vector<std::string> sent;
        for (std::size_t i = before; i < lines.size(); ++i)
            sent.push_back(lines[i].substr(0, lines[i].size() - 1));
        return sent;
    }
    std::vector<std::string> Start(CRecorder& rec, int expectedMode)
    {
        int mode = -1;
        std::vector<std::string> sent = StartCommands(rec, mode);
        EXPECT_EQ(mode, expectedMode);
        return sent;
    }

    test::CWaitRecorder m_Ui;
    CScriptedRecorderDrive m_Drive;
    CScriptedPeer m_Peer;
    std::unique_ptr<CRs232> m_pLink;
    test::CPostCounter m_Scope;
    test::CPostCounter m_Frame;
};

using Commands = std::vector<std::string>;

// A start's commands: the recorder stopped and its slots set, then middle,
// the gap, the length, and the start in mode.
Commands Framed(Commands middle, int gap, int mode)
{
    middle.insert(middle.begin(), {"RR=0", "RC=3"});
    middle.insert(middle.end(), {"RG=" + std::to_string(gap), "RL=250", "RR=" + std::to_string(mode)});
    return middle;
}

// Lets a test set slots the drive cannot name ("unused", all ones).
struct CTalvinaWithSlots : CRecTalvina {
    using CRecTalvina::CRecTalvina;
    void SetSlot(int slot, std::uint32_t code, const std::string& name)
    {
        m_arSlots[slot] = {code, name};
        BuildTriggerList();
    }
};

} // namespace

TEST_F(RecorderTest, FamilyTextChoosesTheRecorderAndItsTriggerList)
{
    for (const char* family : {"DSP", "STP"})
        EXPECT_NE(dynamic_cast<CRecTalvina*>(Make(family).get()), nullptr) << family;
    EXPECT_NE(dynamic_cast<CRecBreNol*>(Make("BreNol").get()), nullptr);
    for (const char* family : {"", "dsp", "Talvina", "XYZ"}) {
        m_pLink->SetProcessorType(family);
        EXPECT_EQ(CRecorder::Create(m_pLink.get()), nullptr) << family;
    }
    EXPECT_EQ(m_Peer.Count("RV[15]\r"), 2) << "each Talvina recorder reads the slot mapping";

    CTalvinaWithSlots talvina(m_pLink.get());
    talvina.SetSlot(2, 6, "unused");
    talvina.SetSlot(3, CRecorder::kNoCode, "Active Current");
    auto rowsOf = [](CRecorder& rec) {
        Commands rows;
        for (const auto& row : rec.TriggerSources())
            rows.push_back(StrFormat("%s %d %d", row->sName.c_str(), row->nKind, row->nValue));
        return rows;
    };
    EXPECT_EQ(rowsOf(talvina),
              (Commands{"(No Trigger) 0 -1", "Begin Motion 1 -1", "Digital Input 1 2 1", "Digital Input 2 2 2",
                        "Digital Input 3 2 3", "Digital Input 4 2 4", "Digital Input 5 2 5",
                              "Digital Input 6 2 6", "Position 3 1", "Velocity 3 2", "Digital Inputs 5 128"}));

    Commands rows = rowsOf(*Make("BreNol"));
    ASSERT_EQ(rows.size(), 7u + 16u);
    EXPECT_EQ(Commands(rows.begin(), rows.begin() + 9),
              (Commands{"(No Trigger) 0 -1", "Begin Motion 1 -1", "Abort 2 -1", "Enable 2 -1", "FLS 2 -1", "RLS 2 -1",
                        "Inputs Combination 5 -1", "Position 3 131072", "Velocity 3 2097152"}))
        << "a BreNol signal row's bit is its signal code";
    EXPECT_EQ(CRecBreNol::SignalCode("Motor Current"), 7);
    EXPECT_EQ(CRecBreNol::SignalCode("Current - Phase A [A]"), 7);
    EXPECT_EQ(CRecBreNol::SignalCode("position"), 0) << "names compare exactly";
}

TEST_F(RecorderTest, TalvinaTriggerSetUpsCommandByCommand)
{
    auto rec = Make("DSP");
    rec->AddDisplay("Position");
    rec->AddDisplay("Velocity");
    rec->AddDisplay(kNoSignal);
    CRecordSettings& s = rec->Settings();
    s.sGap = "2";
    s.sLength = "250";
    s.sPreTrigger = "25%";
    s.dLevel1 = 1.2345;
    s.dLevel2 = 300;

    rec->SelectTrigger(rec->FindTriggerRow("(No Trigger)"));
    EXPECT_EQ(Start(*rec, 2), Framed({"RP[3]=0"}, 2, 2));

    rec->SelectTrigger(rec->FindTriggerRow("Begin Motion"));
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[3]=1", "RP[2]=25"}, 2, 3));

    // A digital input sends the second level too, whatever the level mode.
    rec->SelectTrigger(rec->FindTriggerRow("Digital Input 3"));
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[3]=5", "RP[7]=4", "RP[6]=4", "RP[2]=25", "RP[4]=300.000000"}, 2, 3));
    s.nLevelMode = kLevelFalling;
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[3]=5", "RP[7]=4", "RP[6]=0", "RP[2]=25", "RP[4]=300.000000"}, 2, 3));

    rec->SelectTrigger(rec->FindTriggerRow("Velocity"));
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[3]=3", "RP[1]=2", "RP[2]=25", "RP[4]=1.234500"}, 2, 3));
    s.nLevelMode = kLevelWindow;
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[3]=4", "RP[1]=2", "RP[2]=25", "RP[4]=300.000000", "RP[5]=1.234500"}, 2, 3));
    s.nLevelMode = kLevelEvent;
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[3]=5", "RP[1]=2", "RP[2]=25"}, 2, 3));

    rec->SelectTrigger(rec->FindTriggerRow("Digital Inputs"));
    EXPECT_EQ(Start(*rec, 2), Framed({"RP[3]=5"}, 2, 2));

    // Equal window levels: refused before any level goes out, abort flag set.
    rec->SelectTrigger(rec->FindTriggerRow("Position"));
    s.nLevelMode = kLevelWindow;
    s.dLevel2 = s.dLevel1;
    EXPECT_EQ(Start(*rec, 0), (Commands{"RR=0", "RC=3", "RP[3]=4", "RP[1]=1", "RP[2]=25"}));
    EXPECT_EQ(rec->AbortFlag().load(), 1);
    EXPECT_EQ(m_Ui.arMessages, (Commands{"Scope Message: Please enter different value into High and Low Level "
                                         "windows and start again"}));
}

TEST_F(RecorderTest, BreNolTriggerSetUpsCommandByCommand)
{
    auto rec = Make("BreNol");
    rec->AddDisplay("Position");  // slot 0
    rec->AddDisplay("Velocity");  // slot 1
    CRecordSettings& s = rec->Settings();
    s.sLength = "250";
    s.dLevel1 = -0.5;
    s.dLevel2 = 1.2345;

    rec->SelectTrigger(rec->FindTriggerRow("Inputs Combination")); // not in the signal table: no trigger
    EXPECT_EQ(Start(*rec, 2), Framed({"RP[3]=0"}, 1, 2));

    rec->SelectTrigger(rec->FindTriggerRow("Position"));
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[1]=2", "RP[2]=0", "RP[3]=2", "RP[4]=1.234500", "RP[14]=23"}, 1, 3));
    s.nLevelMode = kLevelFalling;
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[1]=2", "RP[2]=0", "RP[3]=3", "RP[4]=-0.500000", "RP[14]=-50"}, 1, 3));
    s.nLevelMode = kLevelEvent;
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[1]=8", "RP[2]=0", "RP[3]=5", "RP[6]=0", "RP[7]=0"}, 1, 3));

    rec->SelectTrigger(rec->FindTriggerRow("Velocity"));
    s.nLevelMode = kLevelWindow;
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[1]=1", "RP[2]=0", "RP[3]=4", "RP[4]=1.234500", "RP[14]=23",
                                      "RP[5]=-0.500000", "RP[15]=-50"},
                                     1, 3));

    // An input event: its bit is also the edge bit of a rising trigger only.
    rec->SelectTrigger(rec->FindTriggerRow("Abort"));
    s.nLevelMode = kLevelRising;
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[1]=8", "RP[2]=0", "RP[3]=5", "RP[6]=4096", "RP[7]=4096"}, 1, 3));
    rec->SelectTrigger(rec->FindTriggerRow("Digital Input 1"));
    s.nLevelMode = kLevelFalling;
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[1]=8", "RP[2]=0", "RP[3]=5", "RP[6]=0", "RP[7]=1"}, 1, 3));

    rec->SelectTrigger(rec->FindTriggerRow("Begin Motion"));
    EXPECT_EQ(Start(*rec, 3), Framed({"RP[2]=0", "RP[3]=1", "RP[4]=-0.500000", "RP[14]=-50"}, 1, 3));

    rec->SelectTrigger(rec->FindTriggerRow("Velocity"));
    s.nLevelMode = kLevelWindow;
    s.dLevel1 = s.dLevel2;
    EXPECT_EQ(Start(*rec, 0), (Commands{"RR=0", "RC=3", "RP[1]=1", "RP[2]=0", "RP[3]=4"}));
    EXPECT_EQ(rec->AbortFlag().load(), 1);
    EXPECT_EQ(CRecBreNol::LevelHundredths(1.2345), 23);
    EXPECT_EQ(CRecBreNol::LevelHundredths(7.0), 0);
}

TEST_F(RecorderTest, PhasesRecordUploadAndSaveWithTheirMessages)
{
    fs::path file = fs::temp_directory_path() / StrFormat("tessitor-rec-%d.sdv", ::getpid());
    m_Drive.SetSr({"0", "65536", "65536", "196608", "131072"}); // idle, waiting, waiting, recording, complete
    m_Drive.SetShortBh(1);
    auto rec = Make("DSP");
    rec->AddDisplay("Velocity");
    rec->AddDisplay("Position");
    rec->Settings().sLength = "250";
    rec->SelectTrigger(rec->FindTriggerRow("Begin Motion"));
    rec->SetScopeFile(file.string());

    std::string traced = test::TraceOf([&] {
        for (int phase = CRecorder::kPhaseClear; phase <= CRecorder::kPhaseFinish; ++phase) {
            rec->StartPhase(phase);
            ASSERT_EQ(rec->WaitPhase(), 1) << "phase " << phase << ": " << rec->LastError();
            EXPECT_TRUE(rec->IsDone());
        }
    });

    using Posted = std::vector<std::pair<unsigned, std::uintptr_t>>;
    EXPECT_EQ(m_Scope.arPosted, (Posted{{0x402, 0}, {0x401, 0}, {0x401, 0}, {0x401, 0}, {0x401, 0}, {0x401, 0},
                                        {0x401, 0}, {0x401, 0}}))
        << "waiting, recording, then three chunks of each display";
    EXPECT_EQ(m_Frame.arPosted, (Posted{{0x409, 0}, {0x46e, 0}}));
    for (const char* line : {"RP[8]=0\r", "RP[9]=99\r", "RP[8]=100\r", "RP[9]=199\r", "RP[8]=200\r", "RP[9]=249\r"})
        EXPECT_EQ(m_Peer.Count(line), 2) << line;
    EXPECT_EQ(m_Peer.Count("BH=2\r"), 4) << "the 19-character answer was asked for again";
    EXPECT_EQ(m_Peer.Count("BH=1\r"), 3);
    EXPECT_EQ(m_Peer.Count("SR\r"), 5);
    EXPECT_TRUE(m_Ui.arMessages.empty());
    EXPECT_NE(traced.find("BH command was repeat 1 times\n"), std::string::npos);
    EXPECT_NE(traced.find("The thread RecorderThread has exited with code 1\n"), std::string::npos);

    test::CMatFile mat(file.string());
    EXPECT_EQ(mat.Columns(), (Commands{"Index", "Time(sec)", "Velocity", "Position"}));
    std::vector<double> time = mat.Column(1), velocity = mat.Column(2), position = mat.Column(3);
    ASSERT_EQ(velocity.size(), 250u);
    EXPECT_DOUBLE_EQ(time[4], 4 * 250e-6) << "the drive's RP[12] microseconds a sample";
    EXPECT_EQ(velocity[0], 1000);
    EXPECT_EQ(velocity[249], 1249);
    EXPECT_EQ(position[249], 249);
    EXPECT_EQ(mat.Text("trigger"), "Begin Motion");
    EXPECT_EQ(mat.Number("length"), 250);
    EXPECT_EQ(mat.Text("family"), "Talvina");
    fs::remove(file);
}

TEST_F(RecorderTest, FailuresShowTheSystemsTextsAndStopThePhase)
{
    auto rec = Make("DSP");
    rec->AddDisplay("Position");
    rec->Settings().sLength = "50";

    // A refused start command: 0x403 around the link's own report.
    m_Drive.Refuse("RC=1", 20);
    rec->StartPhase(CRecorder::kPhaseClear);
    EXPECT_EQ(rec->WaitPhase(), 0);
    using Posted = std::vector<std::pair<unsigned, std::uintptr_t>>;
    EXPECT_EQ(m_Scope.arPosted, (Posted{{0x403, 0}, {0x403, 1}}));
    ASSERT_EQ(m_Ui.arMessages.size(), 1u);
    EXPECT_EQ(m_Ui.arMessages[0].rfind("Communication Device Error: Error (20) :  'RC=1' : ", 0), 0u)
        << m_Ui.arMessages[0];
    EXPECT_EQ(m_Peer.Count("RG=1\r"), 0);

    // Idle with other status bits: the recorder is not ready.
    m_Drive.SetSr({"0", "6"});
    EXPECT_EQ(rec->RunPhase(CRecorder::kPhaseWait), 0);
    EXPECT_EQ(m_Ui.arMessages.back(), "Error: The Record is not Ready! Please Try again! ");

    // Chunks that never decode: corrupted after ten sends, nothing saved.
    m_Drive.SetShortBh(1000);
    EXPECT_EQ(rec->RunPhase(CRecorder::kPhaseUpload), 0);
    EXPECT_EQ(m_Peer.Count("BH=1\r"), CCommunication::kRecordChunkSends);
    EXPECT_EQ(m_Ui.arMessages.back(), "Error: The Data of the Record was Corrupted! Please Try again! ");

    // The abort flag stops a waiting worker at its next check, and an upload.
    m_Drive.SetSr({"65536"});
    int polls = m_Peer.Count("SR\r");
    rec->StartPhase(CRecorder::kPhaseWait);
    for (int i = 0; i < 2000 && m_Peer.Count("SR\r") < polls + 3; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    rec->AbortFlag() = 1;
    EXPECT_EQ(rec->WaitPhase(), 0);
    std::size_t sent = m_Peer.Lines().size();
    EXPECT_EQ(rec->RunPhase(CRecorder::kPhaseUpload), 0);
    EXPECT_EQ(m_Peer.Lines().size(), sent) << "an aborted upload sends nothing";
    rec->AbortFlag() = 0;

    // A link failure inside a phase, and a file that cannot be written.
    m_Drive.Refuse("SR", 7);
    EXPECT_EQ(rec->RunPhase(CRecorder::kPhaseWait), 0);
    EXPECT_EQ(m_Ui.arMessages.back(), "Error: Recorder Problem");
    EXPECT_NE(rec->LastError().find("'SR'"), std::string::npos) << rec->LastError();
    rec->SetScopeFile("/nonexistent-folder/Scope.sdv");
    EXPECT_EQ(rec->RunPhase(CRecorder::kPhaseFinish), 0);
    EXPECT_EQ(m_Ui.arMessages.back(), "Error: Matlab storage failed");

    // Disconnecting drops the link: the next phase fails without it.
    m_pLink->Disconnect();
    EXPECT_EQ(rec->GetCommunication(), nullptr);
    EXPECT_EQ(rec->RunPhase(CRecorder::kPhaseWait), 0);
    EXPECT_EQ(rec->LastError(), "Communication must be Established.");
}
