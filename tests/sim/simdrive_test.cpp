// The drive model: identification, typed parameters and their errors,
// motor and loops, status word, flash and parameter image.
#include <gtest/gtest.h>

#include <regex>
#include <tuple>

#include "sim/simimage.h"
#include "sim/simfaults.h"
#include "sim/simmotor.h"
#include "sim/simversiondb.h"
#include "tests/sim/simtesthelpers.h"

using namespace tessitor::sim;
using namespace tessitor::sim::test;

using SimDriveTest = CDriveFixture;

TEST_F(SimDriveTest, EveryProductIdentifiesWithItsVersionAndFamily)
{
    auto products = CSimProducts::Default();
    ASSERT_EQ(products->Names().size(), 24u);
    std::regex form(R"(([A-Za-z]+) (\d+)\.(\d+)\.(\d+)\.(\d+))");
    for (const std::string& name : products->Names()) {
        CSimDrive drive(name);
        std::smatch match;
        std::string version = drive.Execute("VR").sValue;
        ASSERT_TRUE(std::regex_match(version, match, form)) << version;
        EXPECT_EQ(match[1], name);
        EXPECT_EQ(version, drive.VersionString());
        EXPECT_EQ(drive.Family(), products->Family(name));
    }
    EXPECT_EQ(CSimDrive("Talvina", "2.0.0.0").Execute("VR").sValue, "Talvina 2.0.0.0");
    EXPECT_THROW(CSimDrive("Nonesuch"), std::invalid_argument);
    EXPECT_THROW(CSimDrive("Talvina", "9.9.9.9"), std::invalid_argument);
}

TEST_F(SimDriveTest, ParametersAreTypedAndBadCommandsGetTheDriveErrorNumbers)
{
    EXPECT_EQ(V("KP[1]"), "7.5");
    EXPECT_EQ(V("KP[1]=12.25"), "");
    EXPECT_EQ(V("KP[1]"), "12.25");
    EXPECT_EQ(V("kp[1]"), "12.25") << "mnemonics in either case";
    V("KP[1]=0.1");
    EXPECT_EQ(V("KP[1]"), "0.1") << "single-precision values print without noise";
    V("SP=0x10");
    EXPECT_EQ(V("SP"), "16");
    V("SP=2000.0");
    EXPECT_EQ(V("SP"), "2000") << "an integral value written as a fraction is taken";
    V("GR[1]=0.123456789012");
    EXPECT_EQ(V("GR[1]"), "0.123456789012") << "type 16 keeps double precision";
    EXPECT_EQ(V("NM[1]"), "65");
    EXPECT_EQ(V("RV[0]"), "1");
    EXPECT_EQ(V("RV[15]"), "-1");
    EXPECT_EQ(V(""), "") << "an empty line is answered with the terminator alone";
    EXPECT_EQ(V("\\COMMUNICATION"), "");

    EXPECT_EQ(V("EC"), "0");
    const std::pair<const char*, int> refusals[] = {
        {"XX", 2},      {"PXY", 2},    {"KP[4]", 3},   {"KP", 3},      {"SP[1]", 3},    {"ER[1]", 3},
        {"SR[1]", 3},   {"SP=0", 4},   {"KP[1]=-1", 4}, {"SP=", 6},    {"VX=5", 7},     {"SP=abc", 30},
        {"SP=1e", 30},  {"SP=inf", 30}, {"UM=2.5", 31}, {"BH", 32},     {"VR=1", 33},    {"SP=5 6", 30},
        {"SP 5", 35},   {"KP[1=5", 35}, {"DL", 35}};
    for (const auto& [command, error] : refusals)
        EXPECT_EQ(E(command), error) << command;
    EXPECT_EQ(E(std::string(9000, 'A')), 10);
    E("KP[9]");
    V("SP");
    EXPECT_EQ(V("EC"), "3") << "a later accepted command does not clear it";
    E("SP=0");
    EXPECT_EQ(V("EC"), "4");
    m_pDrive->Refuse("MO=1", 25);
    EXPECT_EQ(V("EC"), "25");

    MakeDrive("Vosk");
    EXPECT_EQ(E("TC"), 5) << "a mnemonic of other products";
    EXPECT_EQ(E("UM=1"), 4) << "the stepper has no current mode";
    MakeDrive("Bressa");
    EXPECT_EQ(E("FF[1]"), 5);
    EXPECT_EQ(E("RV[0]=3"), 7) << "the family's recorder slots are fixed";
}

TEST_F(SimDriveTest, MotorStateGuardsParametersAndShowsInTheStatusWord)
{
    EXPECT_EQ(SR(), 3u << 1) << "unit mode 3, motor off, recorder idle";
    EXPECT_EQ(E("BG"), 9);
    V("MO=1");
    EXPECT_EQ(V("MO"), "1");
    for (const char* command : {"UM=2", "MP[4]=1", "PX=100", "SV", "LD"})
        EXPECT_EQ(E(command), 1) << command;
    EXPECT_EQ(E("TC=1"), 36) << "a current command needs unit mode 1";
    Wait(0.05);
    EXPECT_TRUE(SR() & 0x10) << "motor on";
    EXPECT_TRUE(SR() & 0x80) << "holding still is in target";
    Do({"JV=10000", "BG"});
    Wait(0.01);
    EXPECT_TRUE(SR() & 0x40) << "moving";
    EXPECT_FALSE(SR() & 0x80);
    V("ST");
    Wait(0.1);
    EXPECT_FALSE(SR() & 0x40);

    Do({"MO=0", "UM=2", "PX=100"});
    EXPECT_EQ(V("PX"), "100");
    Do({"MO=1", "PA=500"});
    EXPECT_EQ(E("BG"), 36) << "a point-to-point move needs position mode";
}

TEST_F(SimDriveTest, FaultsSwitchTheMotorOff)
{
    Do({"ER[3]=10", "MO=1", "JV=50000", "BG"});
    Wait(0.1);
    EXPECT_EQ(V("MF"), "29") << "following error";
    EXPECT_EQ(V("MO"), "0");
    EXPECT_TRUE(SR() & 1);
    V("MO=1");
    EXPECT_EQ(V("MF"), "0") << "switching on clears the fault";

    // Motor data far from the real motor makes the tuned current loop unstable.
    MakeDrive("Talvina");
    Do({"MP[2]=0.01", "MO=1", "JV=10000", "BG"});
    Wait(0.1);
    EXPECT_EQ(V("MF"), "27") << "over current";
}

TEST_F(SimDriveTest, SaveLoadAndTheImageKeepTheParameters)
{
    // UM (type 0) = 3, then KP[1] (type 4, float) = 7.5 = 0x40F00000.
    EXPECT_EQ(V("IM").substr(0, 12), "03000000F040");
    Do({"KP[1]=9", "SV", "KP[1]=1", "SP=123", "LD"});
    EXPECT_EQ(V("KP[1]"), "9");
    EXPECT_EQ(V("SP"), "100000");

    std::string image = V("IM");
    const SimParamList* list = CSimVersionDb::Default()->FindVersion("Talvina 2.1.0.0");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(image.size(), 2 * ImageSize(*list));
    V("KP[1]=3");
    V("IM=" + image);
    EXPECT_EQ(V("KP[1]"), "9");
    EXPECT_EQ(E("IM=" + image.substr(2)), 4) << "a size that does not fit the version";
    EXPECT_EQ(E("IM=" + image.substr(0, image.size() - 1) + "G"), 30);
    EXPECT_EQ(E("IM=0900" + image.substr(4)), 4) << "UM = 9";
    EXPECT_EQ(V("UM"), "3") << "a refused image changes nothing";
    EXPECT_FALSE(m_pDrive->SetFlash({1, 2, 3}));

    MakeDrive("Bressa");
    EXPECT_EQ(V("IM").substr(0, 12), "0300F0400000") << "word-swapped 4-byte element";
}


TEST_F(SimDriveTest, StepResponsesReachTheirTargets)
{
    Do({"MO=1", "PA=4000", "BG"});
    Wait(0.3);
    EXPECT_NEAR(N("PX"), 4000, 2) << "one revolution in position mode";
    EXPECT_TRUE(SR() & 0x80);

    MakeDrive("Talvina");
    Do({"UM=2", "MO=1", "JV=20000", "BG"});
    Wait(0.2);
    EXPECT_NEAR(N("VX"), 20000, 20) << "a velocity step in velocity mode";
    EXPECT_NEAR(N("DV[2]"), 20000, 1e-6);
}

// A jog the loops settled in is carried forward in closed form; it must end
// where stepping every servo period ends, in both loop modes and with a
// slow velocity loop.
TEST(SimMotorTest, CruiseEndsWhereSteppingEnds)
{
    for (auto [mode, kp2, ki2] : {std::tuple{3, 0.33, 100.0}, {2, 0.33, 100.0}, {3, 0.05, 2.0}}) {
        SimMotorParams params;
        params.nUnitMode = mode;
        params.arKp[1] = kp2;
        params.arKi[1] = ki2;
        CSimMotor stepped, cruised;
        for (CSimMotor* motor : {&stepped, &cruised}) {
            motor->SetParams(params);
            motor->SetMotorOn(true);
            motor->BeginJog(50000);
        }
        const unsigned long long total = 300000; // 30 s
        for (unsigned long long i = 0; i < total; ++i)
            stepped.Step(CSimDrive::kServoPeriod);
        unsigned long long done = 0;
        while (!cruised.Cruising() && done < total) {
            cruised.Step(CSimDrive::kServoPeriod);
            ++done;
        }
        ASSERT_TRUE(cruised.Cruising()) << "mode " << mode << " KP[2] " << kp2 << " never settles";
        cruised.Cruise(total - done, CSimDrive::kServoPeriod);

        EXPECT_NEAR(cruised.Position(), stepped.Position(), 0.01) << "mode " << mode << " KP[2] " << kp2;
        EXPECT_NEAR(cruised.PositionError(), stepped.PositionError(), 0.01);
        EXPECT_NEAR(cruised.Velocity(), stepped.Velocity(), 1e-3);
        EXPECT_NEAR(cruised.ActiveCurrent(), stepped.ActiveCurrent(), 1e-6);
        stepped.Stop();
        cruised.Stop();
        EXPECT_FALSE(cruised.Cruising());
    }
}

TEST_F(SimDriveTest, AJogLeftAloneForAnHourIsWhereItShouldBe)
{
    Do({"MO=1", "JV=50000", "BG"});
    Wait(3600);
    double position = N("PX");
    Do({"IP=1024"}); // the forward limit switch
    Wait(3600);

    EXPECT_NEAR(position, 50000.0 * 3600 - 1250, 10) << "the ramp-up to 50000 at 1e6 costs 1250 counts";
    EXPECT_NEAR(N("PX"), position, 200) << "the limit switch stopped it at once";
    EXPECT_EQ(SR() & 0xC0, 0x80u) << "no motion, in target";
}

TEST(SimFaultsTest, TheFirstMatchingRuleDecidesAndSpentRulesGo)
{
    CSimFaults faults;
    for (const char* rule : {"drop:/SR:once", "error:2:7", "delay:/S:100"})
        faults.Add(CSimFaults::Parse(rule));

    EXPECT_EQ(faults.Next("SR").eKind, FaultKind::kDrop) << "first of two that match";
    FaultRule second = faults.Next("PX");
    EXPECT_EQ(faults.Next("SR").eKind, FaultKind::kDelay) << "the :once rule is spent";
    EXPECT_EQ(faults.Next("PX").eKind, FaultKind::kNone) << "the rule for command 2 is spent";

    EXPECT_EQ(second.eKind, FaultKind::kDriveError);
    EXPECT_EQ(second.nErrorNumber, 7);
}
