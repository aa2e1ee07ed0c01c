// User program storage ("DL", "LS", "CC", "XQ"): running, compile errors, memory.
#include <gtest/gtest.h>

#include "tests/sim/simtesthelpers.h"

using namespace tessitor::sim;
using namespace tessitor::sim::test;

using SimProgramTest = CDriveFixture;

TEST_F(SimProgramTest, DownloadListCompileAndRun)
{
    for (const char* line : {"' jog for a while", "MO=1", "JV=4000", "BG", "##WAIT", "WT=50", "ST", "EN"})
        V(std::string("DL") + line + "\\");
    EXPECT_EQ(V("LS"), "' jog for a while\nMO=1\nJV=4000\nBG\n##WAIT\nWT=50\nST\nEN");
    EXPECT_EQ(E("XQ"), 12) << "not compiled";
    EXPECT_EQ(V("CC"), "8");
    EXPECT_TRUE(SR() & 0x200);
    EXPECT_EQ(V("XQ"), "");
    EXPECT_TRUE(SR() & 0x20) << "running";
    EXPECT_EQ(E("DLMO=0\\"), 11);
    EXPECT_EQ(E("XQ"), 11);
    Wait(0.02);
    EXPECT_EQ(V("MO"), "1");
    EXPECT_NEAR(N("VX"), 4000, 100);
    Wait(0.2);
    EXPECT_FALSE(SR() & 0x20) << "ended";
    EXPECT_NEAR(N("VX"), 0, 50);
    EXPECT_EQ(V("CP"), "");
    EXPECT_EQ(V("LS"), "");

    // A failing line stops the program.
    Do({"MO=0", "DLBG\\", "CC", "XQ"});
    Wait(0.01);
    EXPECT_FALSE(SR() & 0x20);
    EXPECT_EQ(V("EC"), "9");
}

TEST_F(SimProgramTest, CompileFindsBadLinesLabelsAndTheMemoryLimit)
{
    Do({"DLMO=1\\", "DLGO ##NOWHERE\\"});
    EXPECT_EQ(E("CC"), 16);
    Do({"CP", "DLKP[9]=1\\"});
    EXPECT_EQ(E("CC"), 14);
    Do({"CP", "DLSV\\"});
    EXPECT_EQ(E("CC"), 14) << "flash commands have no place in a program";
    V("CP");
    EXPECT_EQ(E("DLMO=1;MO=0\\"), 14) << "a line that would break the reply framing";
    V("DLSP=0\\");
    EXPECT_EQ(E("CC"), 14) << "a value out of range";

    V("CP");
    std::string line = "'" + std::string(99, 'A') + "\\";
    int accepted = 0;
    while (!m_pDrive->Execute("DL" + line).bError)
        ++accepted;
    EXPECT_EQ(V("EC"), "15");
    EXPECT_EQ(accepted, 79);
    EXPECT_LT(V("LS").size(), 8000u + 1);
}

