// The virtual drive's recorder: set-up errors, states with a real recording
// time, triggers, and "BH" uploads in the layout a client decodes.
#include <gtest/gtest.h>

#include <vector>

#include "tests/sim/simtesthelpers.h"

using namespace tessitor::sim;
using namespace tessitor::sim::test;

namespace {

class SimRecorderTest : public CDriveFixture {
protected:
    Upload Window(int first, int last, int mask)
    {
        V("RP[8]=" + std::to_string(first));
        V("RP[9]=" + std::to_string(last));
        return DecodeUpload(V("BH=" + std::to_string(mask)));
    }
};

} // namespace

TEST_F(SimRecorderTest, SetUpErrorsUseTheRecorderNumbers)
{
    EXPECT_EQ(E("RR=2"), 20) << "nothing to record";
    EXPECT_EQ(E("RC=256"), 21) << "slot 8 has no signal on a fresh drive";
    EXPECT_EQ(E("RC=65536"), 20);
    EXPECT_EQ(E("RL=0"), 18);
    EXPECT_EQ(E("RL=5000"), 18);
    EXPECT_EQ(E("RG=0"), 19);
    EXPECT_EQ(E("RV[3]=99"), 4) << "no such signal";
    EXPECT_EQ(E("RR=1"), 4);
    EXPECT_EQ(E("BH=1"), 23) << "nothing recorded yet";
    Do({"RC=1", "RP[3]=2", "RP[1]=3"});
    EXPECT_EQ(E("RR=3"), 22) << "a level trigger needs one source";
    V("RP[1]=256");
    EXPECT_EQ(E("RR=3"), 22) << "the source slot has no signal";
    Do({"RP[3]=5", "RP[7]=0"});
    EXPECT_EQ(E("RR=3"), 22) << "an event trigger needs inputs";
}

TEST_F(SimRecorderTest, RecordingTakesGapTimesSampleTimeTimesLength)
{
    Do({"RC=3", "RG=5", "RL=1000", "RR=2"});
    EXPECT_EQ(RecorderState(), 3);
    EXPECT_EQ(E("RC=1"), 17) << "settings are locked while recording";
    EXPECT_EQ(E("BH=1"), 17);
    Wait(0.49);
    EXPECT_EQ(RecorderState(), 3);
    EXPECT_NEAR(N("RP[11]"), 980, 2);
    Wait(0.02);
    EXPECT_EQ(RecorderState(), 2);
    EXPECT_EQ(V("RP[11]"), "1000");
    EXPECT_EQ(V("RP[12]"), "500");
    EXPECT_EQ(V("RP[13]"), "1");
    V("RR=0");
    EXPECT_EQ(RecorderState(), 0);
    EXPECT_TRUE(Window(0, 9, 1).bOk) << "a stopped recorder keeps a complete recording";
}

TEST_F(SimRecorderTest, UploadHonoursTheWindowAndTheLayout)
{
    Do({"PX=1000", "RC=7", "RL=250", "RR=2"});
    Wait(0.1);
    ASSERT_EQ(RecorderState(), 2);

    Upload position = Window(0, 99, 1);
    ASSERT_TRUE(position.bOk);
    EXPECT_EQ(position.nType, 1u);
    EXPECT_EQ(position.nDigits, 8u);
    EXPECT_EQ(position.nCount, 100u);
    EXPECT_EQ(position.nFourth, 1u) << "the fourth field carries the gap";
    EXPECT_EQ(position.fScale, 1.0f);
    EXPECT_EQ(position.arSamples[0], 1000);
    Upload velocity = Window(200, 249, 2);
    ASSERT_TRUE(velocity.bOk);
    EXPECT_EQ(velocity.nType, 3u);
    EXPECT_EQ(velocity.nCount, 50u);
    Upload current = Window(100, 199, 4);
    ASSERT_TRUE(current.bOk);
    EXPECT_EQ(current.nType, 0u);
    EXPECT_EQ(current.nDigits, 4u);
    EXPECT_FLOAT_EQ(current.fScale, 0.001f);

    Do({"RP[8]=200", "RP[9]=250"});
    EXPECT_EQ(E("BH=1"), 24) << "beyond the recording";
    V("RP[9]=199");
    EXPECT_EQ(E("BH=1"), 24) << "last before first";
    EXPECT_EQ(E("BH=8"), 20) << "slot 3 was not recorded";
    EXPECT_EQ(E("BH=3"), 20) << "one signal per upload";

    // The largest window still fits one reply of the client's buffer.
    Do({"RC=1", "RL=4096", "RR=2"});
    Wait(0.5);
    Do({"RP[8]=0", "RP[9]=999"});
    std::string text = V("BH=1");
    EXPECT_EQ(text.size(), 20u + 1000 * 8);
    EXPECT_LT(text.size() + 8, 8191u);
    V("RP[9]=1000");
    EXPECT_EQ(E("BH=1"), 24);
}

TEST_F(SimRecorderTest, LevelTriggerKeepsThePreTriggerPart)
{
    // Slot 0 (position) rising through 2000, a quarter before the trigger.
    Do({"RC=1", "RL=200", "RG=10", "RP[1]=1", "RP[2]=25", "RP[3]=2", "RP[4]=2000", "RR=3"});
    Wait(0.2);
    EXPECT_EQ(RecorderState(), 1) << "waits while nothing moves";
    Do({"MO=1", "PA=4000", "BG"});
    Wait(0.6);
    ASSERT_EQ(RecorderState(), 2);
    EXPECT_EQ(V("RP[10]"), "50");
    Upload u = Window(0, 199, 1);
    ASSERT_TRUE(u.bOk);
    EXPECT_LT(u.arSamples[49], 2000);
    EXPECT_GE(u.arSamples[50], 2000);
    EXPECT_NEAR(u.arSamples[199], 4000, 2) << "the move has ended within the recording";
}

// Each other trigger kind fires at its own event, and not before.
TEST_F(SimRecorderTest, FallingWindowEventAndBeginMotionTriggers)
{
    struct Case {
        const char* sName;
        std::vector<const char*> arSetUp; // before RR=3, with the motor at 4000 after a move
        std::vector<const char*> arFire;
    };
    const Case cases[] = {
        {"falling", {"RP[3]=3", "RP[4]=2000"}, {"PA=0", "BG"}},
        {"window", {"RP[3]=4", "RP[4]=4500", "RP[5]=3500"}, {"PA=0", "BG"}},
        {"event", {"RP[3]=5", "RP[6]=1", "RP[7]=1"}, {"IP=1"}},
        {"begin motion", {"RP[3]=1"}, {"PR=10", "BG"}},
    };
    for (const Case& c : cases) {
        MakeDrive("Talvina");
        Do({"MO=1", "PA=4000", "BG"});
        Wait(0.5);
        Do({"RC=1", "RL=100", "RG=10", "RP[1]=1", "RP[2]=10"});
        for (const char* command : c.arSetUp)
            V(command);
        V("RR=3");
        Wait(0.2);
        EXPECT_EQ(RecorderState(), 1) << c.sName << ": waits while nothing happens";
        for (const char* command : c.arFire)
            V(command);
        Wait(0.5);
        EXPECT_EQ(RecorderState(), 2) << c.sName;
        EXPECT_EQ(V("RP[10]"), "10") << c.sName;
    }
}
