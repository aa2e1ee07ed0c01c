// Drive commands over CAN: the classification, the binary interpreter's
// frames, the OS command's polling, and the transaction around them, against
// scripted frames.
#include <gtest/gtest.h>

#include "can/binaryinterpreter.h"
#include "can/canclassify.h"
#include "tests/can/scriptedcan.h"

using namespace tessitor;
using namespace tessitor::test;
using Exception = CCommunication::CExceptionComm;

TEST(CanCommandClass, FollowsTheTableTheShapeAndTheFamily)
{
    struct Case {
        const char* szCommand;
        const char* szType;
        int nKind;
    };
    const Case cases[] = {
        {"VR", "BreNol", kTransferSdoUpload}, {"VR", "DSP", kTransferOsCommand}, {"VR", "", kTransferOsCommand},
        {"PX", "DSP", kTransferBinary},       {"PX", "BreNol", kTransferBinary}, {"PX[2]", "DSP", kTransferBinary},
        {"PX=5", "DSP", kTransferBinary},     {" PX ", "DSP", kTransferBinary},  {"KP[]", "DSP", kTransferBinary},
        {"PX[a]", "DSP", kTransferOsCommand}, {"PX[a]", "BreNol", kTransferBinary},
        {"PX=abc", "DSP", kTransferOsCommand}, {"SP=1.5", "DSP", kTransferOsCommand},
        {"SP=1.5", "BreNol", kTransferBinary}, {"SP=-5", "STP", kTransferOsCommand},
        {"KP[2]x", "BreNol", kTransferBinary}, {"KP[2]x", "DSP", kTransferOsCommand},
        {"VR[1]", "DSP", kTransferBinary},    {"HS", "BreNol", kTransferSdoDownload},
        {"BH=4", "DSP", kTransferSdoUpload},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ClassifyCanCommand(c.szCommand, c.szType).nKind, c.nKind) << c.szCommand << " on " << c.szType;

    CanCommandClass bh = ClassifyCanCommand("BH=12", "DSP");
    EXPECT_TRUE(bh.bRecord);
    EXPECT_EQ(bh.wIndex, 0x2030);
    EXPECT_EQ(bh.bSubIndex, 3) << "lowest set bit of 12 is bit 2";
    EXPECT_EQ(ClassifyCanCommand("BH=0", "DSP").bSubIndex, 33);
    CanCommandClass load = ClassifyCanCommand("LD", "BreNol");
    EXPECT_EQ(load.wIndex, 0x1011);
    EXPECT_EQ(load.bSubIndex, 1);
    EXPECT_EQ(load.sData, "load");
    EXPECT_EQ(ClassifyCanCommand("SV", "BreNol").sData, "save");
    EXPECT_EQ(ClassifyCanCommand("XQ##DL", "BreNol").wIndex, 0x2074) << "the last of DL, ZX, XQ found wins";
    EXPECT_EQ(ClassifyCanCommand("DL ZX\\", "BreNol").wIndex, 0x2060);
    EXPECT_EQ(ClassifyCanCommand("VR", "BreNol").wIndex, 0x1000) << "the first VR row wins";
}

TEST(BinaryInterpreter, RequestAndReplyFramesByteByByte)
{
    BinaryRequest sp = BuildBinaryRequest("SP=1.5");
    EXPECT_EQ(sp.abData, (std::array<std::uint8_t, 8>{'S', 'P', 0x00, 0x80, 0x00, 0x00, 0xC0, 0x3F}));
    EXPECT_EQ(sp.nLength, 8);
    BinaryRequest two = BuildBinaryRequest("SP=2");
    EXPECT_EQ(two.abData, (std::array<std::uint8_t, 8>{'S', 'P', 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(two.nLength, 8);
    BinaryRequest query = BuildBinaryRequest("SP");
    EXPECT_EQ(query.abData, (std::array<std::uint8_t, 8>{'S', 'P'}));
    EXPECT_EQ(query.nLength, 4);
    BinaryRequest indexed = BuildBinaryRequest("KP[2]=-7");
    EXPECT_EQ(indexed.abData, (std::array<std::uint8_t, 8>{'K', 'P', 2, 0, 0xF9, 0xFF, 0xFF, 0xFF}));
    EXPECT_TRUE(indexed.bIndexed);

    const std::uint8_t value[8] = {'K', 'P', 2, 0, 120, 0, 0, 0};
    EXPECT_EQ(FormatBinaryReply(value, 8, true), "KP[2]=120");
    EXPECT_EQ(FormatBinaryReply(value, 8, false), "KP=120") << "the request's index decides the form";
    EXPECT_EQ(FormatBinaryReply(value, 4, true), "KP[2]");
    const std::uint8_t floating[8] = {'S', 'P', 3, 0x80, 0x00, 0x00, 0xC0, 0x3F};
    EXPECT_EQ(FormatBinaryReply(floating, 8, true), "SP[3]=1.5");
    const std::uint8_t negative[8] = {'P', 'X', 0, 0, 0xF9, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(FormatBinaryReply(negative, 8, false), "PX=-7");
    EXPECT_EQ(ShortestFloatText("0.33000001"), "0.33");
    EXPECT_EQ(ShortestFloatText("100000001"), "100000001") << "integers stay exact";
    EXPECT_EQ(ShortestFloatText("1.5"), "1.5");
    const std::uint8_t failed[8] = {'P', 'X', 0, 0x40, 0, 0, 0, 0};
    EXPECT_TRUE(BinaryReplyFailed(failed)) << "bit 14 fails the command even with a zero value";
    EXPECT_EQ(FormatBinaryReply(failed, 8, false), "0");
}

TEST(CanCommand, ValuesAreTheSerialLinesAndDriveErrorsFailWithTheirText)
{
    CScriptedCan link;
    link.SetProcessorType("DSP");
    link.AnswerPdo({'K', 'P', 2, 0, 120, 0, 0, 0});
    link.AnswerPdo({'K', 'P', 2, 0});
    link.AnswerPdo({'P', 'X', 0, 0x40, 5, 0, 0, 0});

    std::string query, assignment;
    link.SendCommandGetValue("KP[2]", query, 1000);
    link.SendCommandGetValue("KP[2]=7", assignment, 1000);
    Exception refused = Caught([&] {
        std::string value;
        link.SendCommandGetValue("PX", value, 1000);
    });

    EXPECT_EQ(query, "120");
    EXPECT_EQ(assignment, ";") << "an assignment has no value, as on a serial line";
    EXPECT_EQ(link.m_arSentIds[0], 0x305);
    EXPECT_EQ(link.m_arSent[1], (sdo::Frame{'K', 'P', 2, 0, 7, 0, 0, 0}));
    EXPECT_EQ(refused.m_nErrorSource, kErrSrcCanDrive);
    EXPECT_EQ(refused.FillMessage(), link.GetDriveErrorText(5));

    std::string value;
    Exception silent = Caught([&] { link.SendCommandGetValue("PX", value, 1000); });
    EXPECT_EQ(silent.m_nErrorCode, COM_TIMEOUT);
    EXPECT_TRUE(link.IsTimeoutLatched());
    std::size_t sent = link.m_arSent.size();
    EXPECT_EQ(Caught([&] { link.SendCommandGetValue("PX", value, 1000); }).m_nErrorCode, COM_TIMEOUT);
    EXPECT_EQ(link.m_arSent.size(), sent) << "a latched link sends nothing";
}

TEST(CanCommand, OsCommandPollsTheStatusAndReadsTheReply)
{
    CScriptedCan link;
    link.SetProcessorType("DSP");
    link.Answer(0x60);                         // 0x1024 cleared
    link.Answer(0x60);                         // 0x1023/1 written
    for (int i = 0; i < 3; ++i)
        link.Answer(0x4F, {0x23, 0x10, 2, 0xFF}); // executing
    link.Answer(0x4F, {0x23, 0x10, 2, 0x01});
    link.Answer(0x43, {0x23, 0x10, 3, '4', '2', 0, 0}); // "42", padded

    std::string value;
    link.SendCommandGetValue("PX=abc", value, 1000);

    EXPECT_EQ(value, "42");
    ASSERT_EQ(link.m_arSent.size(), 7u);
    EXPECT_EQ(link.m_arSent[0], (sdo::Frame{0x2E, 0x24, 0x10, 0, 0}));
    EXPECT_EQ(link.m_arSent[1][0], 0x21) << "PX=abc is six bytes: segmented";
    EXPECT_EQ(link.m_arSent[4], (sdo::Frame{0x40, 0x23, 0x10, 2}));
    EXPECT_EQ(link.m_arSent[6], (sdo::Frame{0x40, 0x23, 0x10, 3}));

    // A refused OS command's text: see CanSim.DriveErrorsAndABusyDriveFailWithTheirMessages.
    CScriptedCan busy;
    busy.SetProcessorType("DSP");
    busy.Answer(0x60);
    busy.Answer(0x60);
    busy.m_optRepeat = sdo::Frame{0x4F, 0x23, 0x10, 2, 0xFF};
    Exception e = Caught([&] { busy.SendCommandGetValue("VR", value, 30); });
    EXPECT_EQ(e.m_nErrorSource, kErrSrcCanDrive);
    EXPECT_EQ(e.FillMessage(), "Error : OSCommand did not answered in expected time");
    EXPECT_GE(busy.m_arSent.size(), 2u + 30u) << "the tick advances at most a millisecond a poll";

    CScriptedCan only;
    only.SetProcessorType("BreNol");
    only.SetOsCommandOnly(true);
    Caught([&] { only.SendCommandGetValue("MO=1", value, 1000); });
    EXPECT_EQ(only.m_arSent.at(0), (sdo::Frame{0x2E, 0x24, 0x10, 0, 0})) << "MO=1 by OS command, not the interpreter";
    EXPECT_TRUE(only.IsMotorOn()) << "set before the transfer, kept when it fails";
}

TEST(CanCommand, GeneralAbortAsksTheDriveForItsError)
{
    CScriptedCan link;
    link.SetProcessorType("BreNol");
    link.AnswerAbort(0x08000000);
    link.AnswerPdo({'E', 'C', 0, 0, 5, 0, 0, 0});

    std::string value;
    Exception e = Caught([&] { link.SendCommandGetValue("SV", value, 1000); });

    EXPECT_EQ(e.m_nErrorSource, kErrSrcSdoAbort);
    EXPECT_EQ(e.FillMessage(), "SDO Abort:\nSDO Aborted with general error!\n" + link.GetDriveErrorText(5));
    EXPECT_EQ(link.m_arSent[0], (sdo::Frame{0x22, 0x10, 0x10, 1, 's', 'a', 'v', 'e'})) << "SV writes \"save\"";
    EXPECT_EQ(link.m_arSentIds[1], 0x305) << "EC goes to the binary interpreter";
}
