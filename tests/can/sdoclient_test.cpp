// The SDO client of the CAN link against scripted frames: exact bytes out,
// canned responses back.
#include <gtest/gtest.h>

#include "tests/can/scriptedcan.h"

using namespace tessitor;
using namespace tessitor::test;
using Exception = CCommunication::CExceptionComm;

namespace {

sdo::Frame Bytes(std::initializer_list<std::uint8_t> bytes)
{
    sdo::Frame frame{};
    std::copy(bytes.begin(), bytes.end(), frame.begin());
    return frame;
}

// Segment response t, with the given text (1..7 bytes), c when last.
sdo::Frame Segment(int toggle, const std::string& text, bool last)
{
    sdo::Frame frame{};
    frame[0] = static_cast<std::uint8_t>(toggle << 4 | (7 - text.size()) << 1 | (last ? 1 : 0));
    std::copy(text.begin(), text.end(), frame.begin() + 1);
    return frame;
}

} // namespace

TEST(SdoClient, ExpeditedUploadIsFourCharactersWhateverNSays)
{
    CScriptedCan link(5);
    link.Answer(0x4F, {0x08, 0x10, 0x00, 'A', 0, 0, 0}); // n = 3, e, s: one byte
    link.Answer(0x4F, {0x08, 0x10, 0x00, 'A', 0, 0, 0});

    std::string text, tool;
    link.SDO_UpLoad(0x605, 0x1008, 0, text, 1000);
    link.SdoUpload(0x1008, 0, tool, 1000);

    EXPECT_EQ(text, std::string("A\0\0\0", 4));
    EXPECT_EQ(tool, "A") << "the tool honours the size the server indicates";
    ASSERT_EQ(link.m_arSent.size(), 2u);
    EXPECT_EQ(link.m_arSent[0], Bytes({0x40, 0x08, 0x10, 0x00, 0, 0, 0, 0}));
    EXPECT_EQ(link.m_arSentIds[0], 0x605);
}

TEST(SdoClient, TextUploadFollowsTheReceivedToggleButARecordUploadRefusesARepeat)
{
    CScriptedCan link;
    link.Answer(0x41, {0x08, 0x10, 0x00, 9, 0, 0, 0});
    link.Answer(Segment(0, "Talvina", false));
    link.Answer(Segment(0, " 2", true)); // the toggle repeated

    std::string text;
    link.SDO_UpLoad(0x605, 0x1008, 0, text, 1000);

    EXPECT_EQ(text, "Talvina 2");
    ASSERT_EQ(link.m_arSent.size(), 3u);
    EXPECT_EQ(link.m_arSent[1][0], 0x60);
    EXPECT_EQ(link.m_arSent[2][0], 0x70);

    link.Answer(0x41, {0x30, 0x20, 0x03, 9, 0, 0, 0});
    link.Answer(Segment(0, "0204000", false));
    link.Answer(Segment(0, "12", true));
    std::string record;
    Exception e = Caught([&] { link.SDO_UpLoadRecord(0x605, 0x2030, 3, "BH=4", record, 1000, nullptr); });
    EXPECT_EQ(e.m_nErrorSource, kErrSrcCan);
    EXPECT_EQ(e.FillMessage(), "Error: Toggle bit error in the segmented part of  SDO upload.");
}

TEST(SdoClient, RecordUploadWantsSegmentsAndPostsProgressEveryTwentySegments)
{
    CScriptedCan link;
    link.Answer(0x43, {0x30, 0x20, 0x01, 1, 2, 3, 4});
    std::string record;
    Exception e = Caught([&] { link.SDO_UpLoadRecord(0x605, 0x2030, 1, "BH=1", record, 1000, nullptr); });
    EXPECT_EQ(e.m_nErrorSource, kErrSrcCan);
    EXPECT_EQ(e.FillMessage(), "Error:\nThe response contains transfer type expedited in SDO segmented upload.");

    link.Answer(0x41, {0x30, 0x20, 0x01, 0, 0, 0, 0});
    std::string expected;
    for (int i = 0; i < 45; ++i) {
        std::string part = std::string(6, static_cast<char>('a' + i % 26)) + (i == 44 ? "" : "-");
        link.Answer(Segment(i % 2, part, i == 44));
        expected += part;
    }
    CRecordingWindow window;
    link.SDO_UpLoadRecord(0x605, 0x2030, 1, "BH=1", record, 1000, &window);

    EXPECT_EQ(record, expected);
    CRecordingWindow::Message progress{kMsgRecProgress, 0, 0, true};
    EXPECT_EQ(window.m_arMessages, (std::vector{progress, progress}));

    link.Answer(0x41, {0x30, 0x20, 0x01, 0, 0, 0, 0});
    link.Answer(Segment(0, "first", false));
    link.Answer(Segment(1, "second", true));
    std::atomic<std::int32_t> cancel{1};
    link.SDO_UpLoadRecord(0x605, 0x2030, 1, "BH=1", record, 1000, nullptr, &cancel);
    EXPECT_EQ(record, "first") << "a cancel stops between segments";
}

TEST(SdoClient, DownloadLayoutsFromOneToFourteenBytes)
{
    CScriptedCan link;
    for (int i = 0; i < 13; ++i)
        link.Answer(0x60); // confirmations: never checked beyond "not an abort"
    const std::uint8_t data[14] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd'};

    link.SDO_DownLoad(0x605, 0x2000, 1, data, 4, 1000, nullptr);
    link.SDO_DownLoad(0x605, 0x2000, 1, data, 1, 1000, nullptr);
    link.SDO_DownLoad(0x605, 0x2000, 1, data, 5, 1000, nullptr);
    CRecordingWindow window;
    link.SDO_DownLoad(0x605, 0x2000, 2, data, 14, 1000, &window);
    link.SDO_DownLoad(0x605, 0x2000, 3, data, 2, 1000, nullptr);
    link.SDO_DownLoad(0x605, 0x2000, 3, data, 3, 1000, nullptr);
    link.SDO_DownLoad(0x605, 0x2000, 3, data, 7, 1000, nullptr);

    ASSERT_EQ(link.m_arSent.size(), 11u);
    EXPECT_EQ(link.m_arSent[0], Bytes({0x22, 0x00, 0x20, 0x01, '0', '1', '2', '3'}));
    EXPECT_EQ(link.m_arSent[1], Bytes({0x2E, 0x00, 0x20, 0x01, '0'}));
    EXPECT_EQ(link.m_arSent[2], Bytes({0x21, 0x00, 0x20, 0x01, 5, 0, 0, 0}));
    EXPECT_EQ(link.m_arSent[3], Bytes({0x05, '0', '1', '2', '3', '4'}));
    EXPECT_EQ(link.m_arSent[4], Bytes({0x21, 0x00, 0x20, 0x02, 14, 0, 0, 0}));
    EXPECT_EQ(link.m_arSent[5], Bytes({0x00, '0', '1', '2', '3', '4', '5', '6'}));
    EXPECT_EQ(link.m_arSent[6], Bytes({0x11, '7', '8', '9', 'a', 'b', 'c', 'd'}));
    EXPECT_EQ(link.m_arSent[7][0], 0x2A);
    EXPECT_EQ(link.m_arSent[8][0], 0x26);
    EXPECT_EQ(link.m_arSent[10], Bytes({0x01, '0', '1', '2', '3', '4', '5', '6'})) << "seven bytes: one full, last segment";
    using M = CRecordingWindow::Message;
    EXPECT_EQ(window.m_arMessages, (std::vector<M>{{kMsgSdoStart, 14, 7, false},
                                                   {kMsgSdoProgress, 0, 0, false},
                                                   {kMsgSdoProgress, 0, 0, false},
                                                   {kMsgSdoDone, 0, 0, false}}));
}

TEST(SdoClient, AbortsCarryTheirTextAndTheirErrorSource)
{
    struct Case {
        std::uint32_t nCode;
        std::int32_t nSource;
        std::string sText;
    };
    const Case cases[] = {
        {0x06040047, kErrSrcSdoInternal, "SDO Abort:\nGeneral internal incompatibility in the device."},
        {0x414C4C41, kErrSrcSdoAlla, "SDO Abort:\n"},
        {0x06090011, kErrSrcSdoAbort, "SDO Abort:\nSub-index does not exist."},
        {0x05040001, kErrSrcSdoAbort, "SDO Abort:\nTClient/server command specifier not valid or unknown."},
        {0x05040002, kErrSrcSdoAbort, "SDO Abort:\n"},
        {0x12345678, kErrSrcSdoAbort, "SDO Abort:\n"},
    };
    for (const Case& c : cases) {
        CScriptedCan link;
        link.AnswerAbort(c.nCode);
        std::string text;
        Exception e = Caught([&] { link.SDO_UpLoad(0x605, 0x1008, 0, text, 1000); });
        EXPECT_EQ(e.m_nErrorCode, -1);
        EXPECT_EQ(e.m_nErrorSource, c.nSource) << std::hex << c.nCode;
        EXPECT_EQ(e.FillMessage(), c.sText) << std::hex << c.nCode;
    }

    // An abort in the middle of a segmented download stops it there.
    CScriptedCan link;
    link.Answer(0x60);
    link.AnswerAbort(0x06070010);
    const std::uint8_t data[20] = {};
    Exception e = Caught([&] { link.SDO_DownLoad(0x605, 0x2000, 0, data, 20, 1000, nullptr); });
    EXPECT_EQ(e.FillMessage(), "SDO Abort:\nData type does not match, length of service parameter does not match.");
    EXPECT_EQ(link.m_arSent.size(), 2u);
}

TEST(SdoClient, MissingResponseIsATimeOutAndLateOrOddOnesAreNoData)
{
    CScriptedCan link;
    std::string text = "stale";
    Exception e = Caught([&] { link.SDO_UpLoad(0x605, 0x1008, 0, text, 1000); });
    EXPECT_EQ(e.m_nErrorCode, COM_TIMEOUT);
    EXPECT_EQ(e.FillMessage(), "Time Out Waiting for Response from Controller");

    link.Answer(0x60, {0x08, 0x10, 0x00}); // a download confirmation, not an upload response
    link.SDO_UpLoad(0x605, 0x1008, 0, text, 1000);
    EXPECT_EQ(text, "");

    // A late answer for another object is passed over.
    link.Answer(0x4F, {0x08, 0x10, 0x00, 'X'});
    link.Answer(0x43, {0x18, 0x10, 0x01, 1, 2, 3, 4});
    link.SDO_UpLoad(0x605, 0x1018, 1, text, 1000);
    EXPECT_EQ(text, "\x01\x02\x03\x04");

    // An initiate response inside the segment loop (a late answer to an
    // earlier request for the same object) is not data.
    link.Answer(0x41, {0x0A, 0x10, 0x00, 15, 0, 0, 0});
    link.Answer(0x41, {0x0A, 0x10, 0x00, 15, 0, 0, 0});
    e = Caught([&] { link.SDO_UpLoad(0x605, 0x100A, 0, text, 1000); });
    EXPECT_EQ(e.m_nErrorCode, COM_BAD_DATA);
}
