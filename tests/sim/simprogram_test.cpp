// User program storage ("DL", "LS", "CC", "XQ") and the fault rules.
#include <gtest/gtest.h>

#include "sim/simfaults.h"
#include "tests/sim/simtesthelpers.h"

using namespace tessitor::sim;
using namespace tessitor::sim::test;

namespace {

class SimProgramTest : public CDriveFixture {};

} // namespace

TEST_F(SimProgramTest, DownloadListCompileAndRun)
{
    for (const char* line : {"' jog for a while", "MO=1", "JV=4000", "BG", "##WAIT", "WT=50", "ST", "EN"})
        V(std::string("DL") + line + "\\");
    EXPECT_EQ(V("LS"), "' jog for a while\nMO=1\nJV=4000\nBG\n##WAIT\nWT=50\nST\nEN");
    EXPECT_EQ(E("XQ"), 12) << "not compiled";
    EXPECT_EQ(V("CC"), "8");
    EXPECT_TRUE(std::stoul(V("SR")) & 0x200);
    EXPECT_EQ(V("XQ"), "");
    EXPECT_TRUE(std::stoul(V("SR")) & 0x20) << "running";
    EXPECT_EQ(E("DLMO=0\\"), 11);
    EXPECT_EQ(E("XQ"), 11);
    Wait(0.02);
    EXPECT_EQ(V("MO"), "1");
    EXPECT_NEAR(N("VX"), 4000, 100);
    Wait(0.2);
    EXPECT_FALSE(std::stoul(V("SR")) & 0x20) << "ended";
    EXPECT_NEAR(N("VX"), 0, 50);
    EXPECT_EQ(V("CP"), "");
    EXPECT_EQ(V("LS"), "");
}

TEST_F(SimProgramTest, CompileFindsBadLinesAndLabels)
{
    V("DLMO=1\\");
    V("DLGO ##NOWHERE\\");
    EXPECT_EQ(E("CC"), 16);
    V("CP");
    V("DLKP[9]=1\\");
    EXPECT_EQ(E("CC"), 14);
    V("CP");
    V("DLSV\\");
    EXPECT_EQ(E("CC"), 14) << "flash commands have no place in a program";
    V("CP");
    EXPECT_EQ(E("DLMO=1;MO=0\\"), 14) << "a line that would break the reply framing";
    V("DLSP=0\\");
    EXPECT_EQ(E("CC"), 14) << "a value out of range";
}

TEST_F(SimProgramTest, FailingProgramLineStopsTheProgram)
{
    V("DLBG\\"); // the motor is off
    V("CC");
    V("XQ");
    Wait(0.01);
    EXPECT_FALSE(std::stoul(V("SR")) & 0x20);
    EXPECT_EQ(V("EC"), "9");
}

TEST_F(SimProgramTest, ProgramMemoryIsLimited)
{
    std::string line(99, 'A');
    line = "'" + line;
    int accepted = 0;
    while (!m_pDrive->Execute("DL" + line + "\\").bError)
        ++accepted;
    EXPECT_EQ(V("EC"), "15");
    EXPECT_EQ(accepted, 79);
    EXPECT_LT(V("LS").size(), 8000u + 1);
}

TEST_F(SimProgramTest, ListingsOfTheOlderFamilyEndWithBackspace)
{
    EXPECT_EQ(m_pDrive->TerminatorFor("LS"), ';');
    MakeDrive("Nolvet");
    EXPECT_EQ(m_pDrive->Execute("DLMO=1\\").cTerminator, '\x08');
    EXPECT_EQ(m_pDrive->Execute("LS").cTerminator, '\x08');
    EXPECT_EQ(m_pDrive->Execute("CC").cTerminator, '\x08');
    SimReply refused = m_pDrive->Execute("DLA;B\\");
    EXPECT_TRUE(refused.bError);
    EXPECT_EQ(refused.cTerminator, '\x08') << "a refusal ends as the command's reply would";
    EXPECT_EQ(m_pDrive->Execute("VR").cTerminator, ';');
}

TEST(SimFaultsTest, ParsesTheCommandLineForms)
{
    FaultRule r = CSimFaults::Parse("drop:3");
    EXPECT_EQ(r.eKind, FaultKind::kDrop);
    EXPECT_EQ(r.nNth, 3);
    r = CSimFaults::Parse("delay:/PX:1500");
    EXPECT_EQ(r.eKind, FaultKind::kDelay);
    EXPECT_EQ(r.sPattern, "PX");
    EXPECT_EQ(r.nDelayMs, 1500);
    r = CSimFaults::Parse("cut:/BH:10:once");
    EXPECT_EQ(r.nCutBytes, 10);
    EXPECT_TRUE(r.bOnce);
    r = CSimFaults::Parse("garbage:*:xyz");
    EXPECT_EQ(r.sGarbage, "xyz");
    EXPECT_EQ(r.sPattern, "");
    EXPECT_EQ(CSimFaults::Parse("error:/MO:1").nErrorNumber, 1);
    EXPECT_EQ(CSimFaults::Parse("wrong-echo:/VR").eKind, FaultKind::kWrongEcho);

    for (const char* bad : {"", "explode:1", "drop", "drop:0", "drop:x", "delay:/PX", "delay:/PX:soon",
                            "error:/MO:8", "error:/MO:59", "error:/MO:256", "wrong-echo:/VR:3", "cut:1:2:3:4"})
        EXPECT_THROW(CSimFaults::Parse(bad), std::invalid_argument) << bad;
}

TEST(SimFaultsTest, FirstMatchingRuleDecides)
{
    CSimFaults faults;
    EXPECT_TRUE(faults.Empty());
    faults.Add(CSimFaults::Parse("drop:2"));
    faults.Add(CSimFaults::Parse("delay:/PX:10:once"));
    faults.Add(CSimFaults::Parse("error:/P:5"));
    EXPECT_EQ(faults.Next("PX").eKind, FaultKind::kDelay);
    EXPECT_EQ(faults.Next("PX").eKind, FaultKind::kDrop) << "the second command";
    EXPECT_EQ(faults.Next("PX").eKind, FaultKind::kDriveError) << "the delay fired once";
    EXPECT_EQ(faults.Next("SR").eKind, FaultKind::kNone);
    EXPECT_EQ(faults.Next("PA=1").eKind, FaultKind::kDriveError);
    faults.Clear();
    EXPECT_EQ(faults.Next("PX").eKind, FaultKind::kNone);
}
