// The virtual drive as a CANopen node, fed frames and read back byte by
// byte: the SDO server, the OS command, the binary interpreter, NMT and the
// faults, written from CiA 301 and the drive's objects, not from the client.
#include <gtest/gtest.h>

#include "sim/simcannode.h"
#include "tests/sim/simtesthelpers.h"

using namespace tessitor::sim;
using namespace tessitor::sim::test;
using namespace std::chrono_literals;

namespace {

class SimCanTest : public ::testing::Test {
protected:
    void Make(const std::string& product)
    {
        m_pDrive = std::make_shared<CSimDrive>(product);
        m_pDrive->SetClock(m_pClock);
        m_pNode = std::make_unique<CSimCanNode>(m_pDrive, 5);
    }
    void SetUp() override { Make("Talvina"); }

    /// What the node sends for frame, "ID#DATA" each, blank-separated.
    std::string Ask(const std::string& frame)
    {
        std::string sent;
        for (const SimCanOutput& out : m_pNode->Receive(CanFrame(frame), m_tNow))
            sent += (sent.empty() ? "" : " ") + out.frame.Text();
        return sent;
    }
    /// The bytes of a whole SDO upload of index/sub (expedited or segmented).
    std::string Upload(int index, int sub)
    {
        char request[32];
        std::snprintf(request, sizeof request, "605#40%02X%02X%02X00000000", index & 0xFF, index >> 8, sub);
        SimCanFrame answer = CanFrame(Ask(request));
        EXPECT_EQ(answer.arData[0] & 0xF1, 0x41) << "a segmented upload, size indicated";
        std::string data;
        for (int toggle = 0;; toggle ^= 1) {
            answer = CanFrame(Ask(toggle ? "605#7000000000000000" : "605#6000000000000000"));
            if (answer.arData[0] >> 5 != 0)
                return "abort " + answer.Text();
            data.append(answer.arData.begin() + 1, answer.arData.begin() + 8 - (answer.arData[0] >> 1 & 7));
            if (answer.arData[0] & 1)
                break;
        }
        return data;
    }

    std::shared_ptr<CSimManualClock> m_pClock = std::make_shared<CSimManualClock>();
    std::shared_ptr<CSimDrive> m_pDrive;
    std::unique_ptr<CSimCanNode> m_pNode;
    CSimCanNode::Clock::time_point m_tNow = CSimCanNode::Clock::now();
};

} // namespace

TEST(SimCanFrameTest, FrameTimeCountsWorstCaseStuffing)
{
    EXPECT_EQ(SimCanFrameBits(CanFrame("605#4008100000000000")), 135);
    EXPECT_EQ(SimCanFrameBits(CanFrame("000#")), 55);
    EXPECT_EQ(SimCanFrameBits(CanFrame("705#R")), 55) << "a remote request carries no data";
    EXPECT_EQ(SimCanFrameBits(CanFrame("12345678#0011223344556677")), 160);
}

TEST_F(SimCanTest, UploadsExpeditedAndSegmentedWithAlternatingToggles)
{
    EXPECT_EQ(Ask("605#6000000000000000"), "585#8000000001000405") << "a segment with no transfer";
    EXPECT_EQ(Ask("605#4000100000000000"), "585#4300100092010200") << "device type: CiA 402 servo drive";
    EXPECT_EQ(Ask("605#4008100000000000"), "585#4108100007000000");
    EXPECT_EQ(Ask("605#6000000000000000"), "585#0154616C76696E61") << "\"Talvina\", t=0, n=0, c=1";

    EXPECT_EQ(Ask("605#400A100000000000"), "585#410A10000F000000");
    EXPECT_EQ(Ask("605#6000000000000000"), "585#0054616C76696E61");
    EXPECT_EQ(Ask("605#7000000000000000"), "585#1020322E312E302E");
    EXPECT_EQ(Ask("605#6000000000000000"), "585#0D30000000000000") << "one byte: n=6, c=1";

    EXPECT_EQ(Ask("605#400A100000000000"), "585#410A10000F000000");
    EXPECT_EQ(Ask("605#7000000000000000"), "585#800A100000000305") << "toggle not alternated";
    EXPECT_EQ(Ask("605#4018100000000000"), "585#4F18100004000000");
    EXPECT_EQ(Ask("605#4018100300000000"), "585#4318100300000102") << "revision 2.1.0.0";

    Make("Vosk");
    EXPECT_EQ(Ask("605#4008100000000000"), "585#43081000566F736B") << "four bytes go expedited";
    Make("Bressa");
    EXPECT_EQ(Upload(0x1000, 0), "Bressa 1.0.4.2") << "this family keeps its version text in 0x1000";
}

TEST_F(SimCanTest, AbortsWhatItCannotServe)
{
    EXPECT_EQ(Ask("605#4000200000000000"), "585#8000200000000206") << "no such object";
    EXPECT_EQ(Ask("605#4018100500000000"), "585#8018100511000906") << "no such sub-index";
    EXPECT_EQ(Ask("605#2F08100041000000"), "585#8008100002000106") << "read-only";
    EXPECT_EQ(Ask("605#4024100000000000"), "585#8024100001000106") << "write-only";
    EXPECT_EQ(Ask("605#2317100001000000"), "585#8017100012000706") << "four bytes to a 16-bit object";
    EXPECT_EQ(Ask("605#2F17100001000000"), "585#8017100013000706") << "one byte to a 16-bit object";
    EXPECT_EQ(Ask("605#2110100105000000"), "585#8010100112000706") << "five bytes announced for 32 bits";
    EXPECT_EQ(Ask("605#A000100000000000"), "585#8000100001000405") << "block upload is not served";
    EXPECT_EQ(Ask("605#2310100173617665"), "585#6010100100000000") << "\"save\" stores";
    EXPECT_EQ(Ask("605#2310100162616421"), "585#8010100120000008") << "another signature cannot store";
    EXPECT_EQ(Ask("605#4030200100000000"), "585#8030200100000008") << "nothing recorded: the drive's error";
    EXPECT_EQ(Ask("605#4030201100000000"), "585#8030201111000906") << "BH=0 names sub-index 33";
    EXPECT_EQ(m_pDrive->Execute("EC").sValue, "23");
    EXPECT_EQ(Ask("605#8000100000000000"), "") << "a client's abort is not answered";
    EXPECT_EQ(Ask("605#40081000"), "") << "an SDO frame is eight bytes";
}

TEST_F(SimCanTest, OsCommandRunsTheDriveInterpreter)
{
    EXPECT_EQ(Ask("605#2F24100000000000"), "585#6024100000000000") << "1 byte, s clear, n=3";
    EXPECT_EQ(Ask("605#2123100105000000"), "585#6023100100000000");
    EXPECT_EQ(Ask("605#054B505B325D0000"), "585#2000000000000000") << "\"KP[2]\" in one segment";
    EXPECT_EQ(Ask("605#4023100200000000"), "585#4F23100201000000") << "done, with a reply";
    EXPECT_EQ(Ask("605#4023100300000000"), "585#43231003302E3333") << "\"0.33\"";

    EXPECT_EQ(Ask("605#2123100109000000"), "585#6023100100000000");
    EXPECT_EQ(Ask("605#004B505B325D3D37"), "585#2000000000000000");
    EXPECT_EQ(Ask("605#1B2E350000000000"), "585#3000000000000000") << "\".5\" closes \"KP[2]=7.5\"";
    EXPECT_EQ(Ask("605#4023100200000000"), "585#4F23100200000000") << "done, no reply";
    EXPECT_EQ(m_pDrive->Execute("KP[2]").sValue, "7.5") << "the same drive as every other face";

    EXPECT_EQ(Ask("605#2B23100153520000"), "585#6023100100000000") << "\"SR\": n=2";
    EXPECT_EQ(Ask("605#4023100300000000"), "585#4F23100336000000") << "\"6\"";
    EXPECT_EQ(Ask("605#2123100105000000"), "585#6023100100000000");
    EXPECT_EQ(Ask("605#054B505B395D0000"), "585#2000000000000000");
    EXPECT_EQ(Ask("605#4023100200000000"), "585#4F23100203000000") << "a drive error, with a reply";
    EXPECT_EQ(Ask("605#4023100300000000"), "585#4B231003033F0000") << "error 3 before \"?\"";
    EXPECT_EQ(Ask("605#2F24100001000000"), "585#8024100030000906") << "buffered mode is not served";

    EXPECT_EQ(Ask("605#2170200007000000"), "585#6070200000000000");
    EXPECT_EQ(Ask("605#01444C4D4F3D315C"), "585#2000000000000000") << "a program line \"DLMO=1\\\"";
    EXPECT_EQ(Ask("605#4070200000000000"), "585#437020004D4F3D31") << "LS";
    EXPECT_EQ(Ask("605#4073200000000000"), "585#4F73200031000000") << "CC";
    EXPECT_EQ(Ask("605#2B31200048530000"), "585#8031200000000008") << "HS: a command this drive refuses";
    EXPECT_EQ(m_pDrive->Execute("EC").sValue, "2");
}

TEST_F(SimCanTest, BusyFaultHoldsTheOsCommandStatus)
{
    m_pNode->AddFault(CSimFaults::Parse("busy:/SR:100"));
    m_pNode->AddFault(CSimFaults::Parse("busy:/VR"));

    Ask("605#2B23100153520000");
    EXPECT_EQ(Ask("605#4023100200000000"), "585#4F231002FF000000");
    m_tNow += 100ms;
    EXPECT_EQ(Ask("605#4023100200000000"), "585#4F23100201000000");
    Ask("605#2B23100156520000");
    m_tNow += 1h;
    EXPECT_EQ(Ask("605#4023100200000000"), "585#4F231002FF000000") << "busy for ever";
    Ask("605#2F24100000000000");
    EXPECT_EQ(Ask("605#4023100200000000"), "585#4F23100200000000") << "cleared by 0x1024";
}

TEST_F(SimCanTest, FaultsChangeOnlyTheAnswersTheyName)
{
    for (const char* fault : {"abort:/0x100a:0x06040047:once", "toggle:/0x100A", "drop:/SR", "delay:/0x1018:250",
                              "error:/MO=1:25"})
        m_pNode->AddFault(CSimFaults::Parse(fault));

    EXPECT_EQ(Ask("605#400A100000000000"), "585#800A100047000406");
    EXPECT_EQ(Ask("605#400A100000000000"), "585#410A10000F000000") << "once";
    EXPECT_EQ(Ask("605#6000000000000000"), "585#0054616C76696E61");
    EXPECT_EQ(Ask("605#7000000000000000"), "585#0020322E312E302E") << "the first toggle repeated";
    EXPECT_EQ(Ask("605#7000000000000000"), "585#1D30000000000000") << "then alternating again";
    EXPECT_EQ(Ask("305#53520000"), "") << "lost";
    auto late = m_pNode->Receive(CanFrame("605#4018100100000000"), m_tNow);
    ASSERT_EQ(late.size(), 1u);
    EXPECT_EQ(late[0].tNotBefore - m_tNow, 250ms);
    EXPECT_EQ(Ask("305#4D4F000001000000"), "285#4D4F004019000000");
    EXPECT_EQ(m_pDrive->Execute("MO").sValue, "0") << "the refused command did nothing";
}

TEST_F(SimCanTest, BinaryInterpreterCarriesValuesAndErrors)
{
    EXPECT_EQ(Ask("305#4B500200"), "285#4B500280C3F5A83E") << "KP[2] = 0.33 as IEEE single";
    EXPECT_EQ(Ask("305#4B50020007000000"), "285#4B500200") << "an assignment has no value";
    EXPECT_EQ(Ask("305#53500000"), "285#53500000A0860100") << "SP = 100000, an integer";
    EXPECT_EQ(Ask("305#535000800000C03F"), "285#535000401F000000") << "SP=1.5: error 31, not an integer";
    EXPECT_EQ(Ask("305#4B500900"), "285#4B50094003000000") << "KP[9]: error 3";
    EXPECT_EQ(Ask("305#52560000"), "285#5256000001000000") << "index 0 of RV is element 0";
    EXPECT_EQ(Ask("305#494D0000"), "285#494D004020000000") << "a hex image is no number: error 32";
    EXPECT_EQ(m_pDrive->Execute("EC").sValue, "32");
    EXPECT_EQ(Ask("305#4B50"), "085#1082110000000000") << "a PDO of the wrong length";
    EXPECT_EQ(Ask("306#53520000"), "") << "another node's";
}

TEST_F(SimCanTest, NetworkManagementAndHeartbeat)
{
    EXPECT_EQ(Ask("605#2B171000E8030000"), "585#6017100000000000");
    EXPECT_EQ(Ask("605#4017100000000000"), "585#4B171000E8030000");
    EXPECT_TRUE(m_pNode->Tick(m_tNow).empty());
    ASSERT_EQ(m_pNode->NextTick(), m_tNow + 1000ms);
    EXPECT_EQ(m_pNode->Tick(m_tNow + 1000ms)[0].frame.Text(), "705#7F");
    EXPECT_EQ(Ask("000#0100"), "") << "start all";
    EXPECT_EQ(m_pNode->Tick(m_tNow + 2000ms)[0].frame.Text(), "705#05");
    EXPECT_EQ(Ask("000#0205"), "") << "stop node 5";
    EXPECT_EQ(Ask("605#4000100000000000"), "") << "a stopped node serves no SDO";
    EXPECT_EQ(Ask("305#53520000"), "") << "nor its interpreter";
    EXPECT_EQ(Ask("000#8105"), "705#00") << "reset: boot-up";
    EXPECT_EQ(m_pNode->NextTick(), CSimCanNode::Clock::time_point::max()) << "heartbeat back to off";
    EXPECT_EQ(Ask("605#4000100000000000"), "585#4300100092010200");
}
