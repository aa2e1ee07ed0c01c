// The drive model: identification, typed parameters and their errors,
// motor and loops, status word, flash and parameter image.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <regex>

#include "core/datadir.h"
#include "sim/simimage.h"
#include "sim/simversiondb.h"
#include "tests/sim/simtesthelpers.h"

using namespace tessitor::sim;
using namespace tessitor::sim::test;

namespace {

class SimDriveTest : public CDriveFixture {};

} // namespace

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
    EXPECT_EQ(CSimDrive("Vosk").Family(), "STP");
    EXPECT_EQ(CSimDrive("Nolvet").Family(), "BreNol");
    EXPECT_EQ(CSimDrive("Talvina", "2.0.0.0").Execute("VR").sValue, "Talvina 2.0.0.0");
    EXPECT_THROW(CSimDrive("Nonesuch"), std::invalid_argument);
    EXPECT_THROW(CSimDrive("Talvina", "9.9.9.9"), std::invalid_argument);
}

TEST_F(SimDriveTest, ParametersAreQueriedAndAssignedAsTyped)
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
}

TEST_F(SimDriveTest, BadCommandsGetTheDriveErrorNumbers)
{
    EXPECT_EQ(E("XX"), 2);
    EXPECT_EQ(E("PXY"), 2);
    EXPECT_EQ(E("KP[4]"), 3);
    EXPECT_EQ(E("KP"), 3) << "an indexed parameter needs its index";
    EXPECT_EQ(E("SP[1]"), 3);
    EXPECT_EQ(E("ER[1]"), 3) << "ER starts at index 2";
    EXPECT_EQ(E("SR[1]"), 3);
    EXPECT_EQ(E("SP=0"), 4);
    EXPECT_EQ(E("KP[1]=-1"), 4);
    EXPECT_EQ(E("SP="), 6);
    EXPECT_EQ(E("VX=5"), 7);
    EXPECT_EQ(E("SP=abc"), 30);
    EXPECT_EQ(E("SP=1e"), 30);
    EXPECT_EQ(E("SP=inf"), 30);
    EXPECT_EQ(E("UM=2.5"), 31);
    EXPECT_EQ(E("BH"), 32);
    EXPECT_EQ(E("VR=1"), 33);
    EXPECT_EQ(E("SP=5 6"), 30);
    EXPECT_EQ(E("SP 5"), 35);
    EXPECT_EQ(E("KP[1=5"), 35);
    EXPECT_EQ(E("DL"), 35) << "a download line ends with a backslash";
    EXPECT_EQ(E(std::string(9000, 'A')), 10);

    MakeDrive("Vosk");
    EXPECT_EQ(E("TC"), 5) << "a mnemonic of other products";
    EXPECT_EQ(E("UM=1"), 4) << "the stepper has no current mode";
    MakeDrive("Bressa");
    EXPECT_EQ(E("FF[1]"), 5);
    EXPECT_EQ(E("RV[0]=3"), 7) << "the family's recorder slots are fixed";
}

TEST_F(SimDriveTest, ErrorCodeKeepsTheLastRefusal)
{
    EXPECT_EQ(V("EC"), "0");
    E("KP[9]");
    V("SP");
    EXPECT_EQ(V("EC"), "3") << "a later accepted command does not clear it";
    E("SP=0");
    EXPECT_EQ(V("EC"), "4");
    m_pDrive->Refuse("MO=1", 25);
    EXPECT_EQ(V("EC"), "25");
}

TEST_F(SimDriveTest, MotorStateGuardsParametersAndMotion)
{
    EXPECT_EQ(E("BG"), 9);
    V("MO=1");
    EXPECT_EQ(V("MO"), "1");
    EXPECT_EQ(E("UM=2"), 1);
    EXPECT_EQ(E("MP[4]=1"), 1);
    EXPECT_EQ(E("PX=100"), 1);
    EXPECT_EQ(E("SV"), 1);
    EXPECT_EQ(E("LD"), 1);
    EXPECT_EQ(E("TC=1"), 36) << "a current command needs unit mode 1";
    V("MO=0");
    V("UM=2");
    V("PX=100");
    EXPECT_EQ(V("PX"), "100");
    V("MO=1");
    V("PA=500");
    EXPECT_EQ(E("BG"), 36) << "a point-to-point move needs position mode";
}

TEST_F(SimDriveTest, StatusWordReportsModeMotorMotionAndTarget)
{
    EXPECT_EQ(std::stoul(V("SR")), 3u << 1) << "unit mode 3, motor off, recorder idle";
    V("MO=1");
    Wait(0.05);
    unsigned long sr = std::stoul(V("SR"));
    EXPECT_TRUE(sr & 0x10) << "motor on";
    EXPECT_TRUE(sr & 0x80) << "holding still is in target";
    V("JV=10000");
    V("BG");
    Wait(0.01);
    sr = std::stoul(V("SR"));
    EXPECT_TRUE(sr & 0x40) << "moving";
    EXPECT_FALSE(sr & 0x80);
    V("ST");
    Wait(0.1);
    EXPECT_FALSE(std::stoul(V("SR")) & 0x40);
}

TEST_F(SimDriveTest, PositionStepReachesTheTargetWithARealResponse)
{
    V("MO=1");
    V("PA=4000");
    V("BG");
    double peak = 0, maxError = 0;
    for (int i = 0; i < 40; ++i) {
        Wait(0.005);
        peak = std::max(peak, N("VX"));
        maxError = std::max(maxError, std::abs(N("PE")));
    }
    EXPECT_EQ(V("PX"), "4000");
    EXPECT_GT(peak, 40000) << "the move accelerates to a real speed";
    EXPECT_LT(peak, 100000) << "and stays within the profile speed";
    EXPECT_GT(maxError, 0) << "the loop lags the profile a little";
    EXPECT_TRUE(std::stoul(V("SR")) & 0x80);

    // A softer velocity loop lags more on the same move.
    V("KP[2]=0.05");
    V("PR=-4000");
    V("BG");
    double softError = 0;
    for (int i = 0; i < 200; ++i) {
        Wait(0.005);
        softError = std::max(softError, std::abs(N("PE")));
    }
    EXPECT_EQ(V("PX"), "0");
    EXPECT_GT(softError, 2 * maxError);
}

TEST_F(SimDriveTest, VelocityStepFollowsTheJogVelocity)
{
    V("UM=2");
    V("AC=100000000");
    V("MO=1");
    V("JV=20000");
    V("BG");
    Wait(0.001);
    double early = N("VX");
    Wait(0.2);
    EXPECT_LT(early, 20000);
    EXPECT_NEAR(N("VX"), 20000, 200);
    EXPECT_NEAR(N("DV[2]"), 20000, 1);
    EXPECT_GT(N("IQ"), 0) << "friction takes some current";
    V("ST");
    Wait(0.1);
    EXPECT_NEAR(N("VX"), 0, 50);
}

TEST_F(SimDriveTest, FaultsSwitchTheMotorOff)
{
    V("ER[3]=10");
    V("MO=1");
    V("JV=50000");
    V("BG");
    Wait(0.1);
    EXPECT_EQ(V("MF"), "29") << "following error";
    EXPECT_EQ(V("MO"), "0");
    EXPECT_TRUE(std::stoul(V("SR")) & 1);
    V("MO=1");
    EXPECT_EQ(V("MF"), "0") << "switching on clears the fault";

    // Motor data far from the real motor makes the tuned current loop unstable.
    MakeDrive("Talvina");
    V("MP[2]=0.01");
    V("MO=1");
    V("JV=10000");
    V("BG");
    Wait(0.1);
    EXPECT_EQ(V("MF"), "27") << "over current";
}

TEST_F(SimDriveTest, SaveAndLoadKeepTheParameters)
{
    V("KP[1]=9");
    V("SV");
    V("KP[1]=1");
    V("SP=123");
    V("LD");
    EXPECT_EQ(V("KP[1]"), "9");
    EXPECT_EQ(V("SP"), "100000");

    std::string image = V("IM");
    auto db = CSimVersionDb::Default();
    const SimParamList* list = db->FindVersion("Talvina 2.1.0.0");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(image.size(), 2 * ImageSize(*list));
    V("KP[1]=3");
    V("IM=" + image);
    EXPECT_EQ(V("KP[1]"), "9");
    EXPECT_EQ(E("IM=" + image.substr(2)), 4) << "a size that does not fit the version";
    EXPECT_EQ(E("IM=" + image.substr(0, image.size() - 1) + "G"), 30);
    std::string badUnitMode = "0900" + image.substr(4); // UM = 9
    EXPECT_EQ(E("IM=" + badUnitMode), 4);
    EXPECT_EQ(V("UM"), "3") << "a refused image changes nothing";
    EXPECT_FALSE(m_pDrive->SetFlash({1, 2, 3}));
}

TEST_F(SimDriveTest, ImageFollowsTypesAndWordSwap)
{
    // UM (type 0) = 3, then KP[1] (type 4, float) = 7.5 = 0x40F00000.
    EXPECT_EQ(V("IM").substr(0, 12), "03000000F040");
    MakeDrive("Bressa");
    EXPECT_EQ(V("IM").substr(0, 12), "0300F0400000") << "word-swapped 4-byte element";
}

TEST_F(SimDriveTest, VersionDatabaseRejectsMalformedFiles)
{
    std::string path = testing::TempDir() + "versions-bad.txt";
    auto write = [&path](const std::string& text) {
        FILE* f = std::fopen(path.c_str(), "w");
        std::fputs(text.c_str(), f);
        std::fclose(f);
    };
    write("list A\nversion Talvina 1.0.0.0\nKP 1 4 2 0 10 20 rws too big default\nend\n");
    EXPECT_THROW(CSimVersionDb::Load(path), std::runtime_error);
    write("list A\nversion Talvina 1.0.0.0\nKP 1 5 2 0 10 1 rws unknown type\nend\n");
    EXPECT_THROW(CSimVersionDb::Load(path), std::runtime_error);
    write("list A\nversion Talvina 1.0.0.0\nUM - 0 1 0 70000 1 rws does not fit int16\nend\n");
    EXPECT_THROW(CSimVersionDb::Load(path), std::runtime_error);
    write("list A\nversion Talvina 1.0.0.0\nKP 1..2 4 2 0 10 1 rws\nKP 2 4 2 0 10 1 rws twice\nend\n");
    EXPECT_THROW(CSimVersionDb::Load(path), std::runtime_error);
    write("list A\nversion Talvina 1.0.0.0\nKP 1 4 2 0 10 1 rws\n");
    EXPECT_THROW(CSimVersionDb::Load(path), std::runtime_error) << "no end";
    write("# ok\nlist A\nversion Talvina 1.0.0.0\nwordswap 1\nKP 1..3 4 2 0 10 1 rws Gain\r\nend\n");
    CSimVersionDb db = CSimVersionDb::Load(path);
    ASSERT_EQ(db.Lists().size(), 1u);
    EXPECT_EQ(db.Lists()[0].arParams.size(), 3u);
    EXPECT_EQ(db.Lists()[0].arParams[2].nIndex, 3);
    EXPECT_EQ(db.Lists()[0].arParams[0].sDescription, "Gain");
    EXPECT_TRUE(db.Lists()[0].bWordSwap);
    std::remove(path.c_str());
}
