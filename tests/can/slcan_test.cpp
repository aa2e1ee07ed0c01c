// The SLCAN adapter against a scripted USB-CAN stick on a pseudo-terminal
// (answers a real adapter gives and the virtual bus does not), its line
// codec, the choice of adapter, and the CANopen reading of frames.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "can/adapter/slcanadapter.h"
#include "can/adapter/slcancodec.h"
#include "can/canadapterchoice.h"
#include "can/canopenreading.h"
#include "core/settings.h"
#include "tests/support/scriptedpeer.h"

using namespace tessitor;
using namespace tessitor::test;

namespace {

CanFrame Frame(std::uint32_t id, std::initializer_list<std::uint8_t> data)
{
    std::vector<std::uint8_t> bytes(data);
    return MakeCanFrame(id, bytes.data(), static_cast<std::uint8_t>(bytes.size()));
}

// A stick that takes the set-up commands and answers frames through respond.
void ServeStick(CScriptedPeer& peer, std::function<std::string(const CanFrame&)> respond)
{
    peer.SetHandler([respond](const std::string& line) -> std::string {
        CanFrame frame;
        if (slcan::DecodeFrame(line.substr(0, line.size() - 1), frame))
            return "z\r" + respond(frame);
        return line == "\r" ? "" : "\r";
    });
}

} // namespace

TEST(SlcanCodec, ReadsWhatAdaptersSendAndWritesLawicelLines)
{
    CanFrame f;
    ASSERT_TRUE(slcan::DecodeFrame("t58584308100005000000", f));
    EXPECT_EQ(f, Frame(0x585, {0x43, 0x08, 0x10, 0x00, 0x05, 0, 0, 0}));
    ASSERT_TRUE(slcan::DecodeFrame("t2852abcdEA5F", f)) << "lower-case digits and a time stamp";
    EXPECT_EQ(f, Frame(0x285, {0xAB, 0xCD}));
    ASSERT_TRUE(slcan::DecodeFrame("T1234567811F", f));
    EXPECT_TRUE(f.bExtended);
    EXPECT_EQ(f.nId, 0x12345678u);
    ASSERT_TRUE(slcan::DecodeFrame("r7050", f));
    EXPECT_TRUE(f.bRemote);
    for (const char* bad : {"", "z", "V1013", "t5859", "t58581", "t8001AA", "tXYZ0", "T2000000000", "F00"})
        EXPECT_FALSE(slcan::DecodeFrame(bad, f)) << bad;

    EXPECT_EQ(slcan::EncodeFrame(Frame(0x605, {0x40, 0x08, 0x10})), "t6053400810\r");
    CanFrame remote = Frame(0x705, {});
    remote.bRemote = true;
    EXPECT_EQ(slcan::EncodeFrame(remote), "r7050\r");
    EXPECT_EQ(slcan::BitRateCommand(0), "S0\r");
    EXPECT_EQ(slcan::BitRateCommand(6), "S6\r");
    EXPECT_EQ(slcan::BitRateCommand(7), "S8\r") << "1000 kbit/s";

    std::string pending = "\rz\rt1230\a\nt12";
    EXPECT_EQ(slcan::TakeLines(pending), (std::vector<std::string>{"z", "t1230", "\a"}));
    EXPECT_EQ(pending, "t12");
}

TEST(SlcanAdapter, OpensWhateverTheStickAnswersAndSortsFramesByFunctionAndNode)
{
    CScriptedPeer stick;
    stick.SetHandler([](const std::string& line) -> std::string {
        if (line == "C\r")
            return "\a"; // already closed
        if (line == "S8\r")
            return "\r";
        if (line == "O\r")
            return ""; // some sticks say nothing
        if (line.rfind("t605", 0) == 0)
            return "z\rV1013\r" + slcan::EncodeFrame(Frame(0x586, {0x60})) + slcan::EncodeFrame(Frame(0x285, {1, 2}))
                 + "t58586000100000000000ABCD\r";
        return "";
    });
    CSlcanAdapter adapter(stick.Path());
    // A line left cooked at 9600 baud by another program.
    int other = ::open(stick.Path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios found{};
    ::tcgetattr(other, &found);
    found.c_lflag |= ICANON | ECHO;
    ::cfsetspeed(&found, B9600);
    ::tcsetattr(other, TCSANOW, &found);

    ASSERT_EQ(adapter.Open(7), 0) << adapter.LastError();
    ASSERT_EQ(adapter.SendFrame(Frame(0x605, {0x40, 0x00, 0x10})), COM_OK);

    CanFrame sdo5, pdo5, sdo6, none;
    EXPECT_EQ(adapter.ReceiveFrame(kCobSdoResponse, 5, sdo5, 5000), COM_OK);
    EXPECT_EQ(sdo5, Frame(0x585, {0x60, 0x00, 0x10, 0, 0, 0, 0, 0}));
    EXPECT_EQ(adapter.ReceiveFrame(kCobTpdo2, 5, pdo5, 5000), COM_OK);
    EXPECT_EQ(pdo5, Frame(0x285, {1, 2}));
    EXPECT_EQ(adapter.ReceiveFrame(kCobSdoResponse, 6, sdo6, 5000), COM_OK);
    EXPECT_EQ(adapter.ReceiveFrame(kCobSdoResponse, 5, none, 50), COM_TIMEOUT);
    auto lines = stick.Lines();
    std::erase(lines, "\r");
    EXPECT_EQ(lines, (std::vector<std::string>{"C\r", "S8\r", "O\r", "t6053400010\r"}));

    adapter.Close();
    for (int wait = 0; wait < 500 && stick.Lines().back() != "C\r"; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(stick.Lines().back(), "C\r") << "closing closes the channel";
    termios left{};
    ::tcgetattr(other, &left);
    EXPECT_EQ(left.c_lflag, found.c_lflag) << "the line goes back as it was found";
    EXPECT_EQ(::cfgetospeed(&left), static_cast<speed_t>(B9600));
    ::close(other);
}

TEST(SlcanAdapter, MissingDeviceAndVanishingDeviceAreReported)
{
    CSlcanAdapter missing("/dev/no-such-stick");
    EXPECT_EQ(missing.Open(7), ENOENT);
    EXPECT_EQ(missing.LastError(), "No such file or directory");

    auto file = std::filesystem::temp_directory_path() / ("tessitor-slcan-" + std::to_string(::getpid()));
    std::ofstream(file) << "not a tty";
    CSlcanAdapter notTty(file.string());
    EXPECT_NE(notTty.Open(7), 0);
    EXPECT_EQ(notTty.LastError().rfind("not a serial device", 0), 0u) << notTty.LastError();
    std::filesystem::remove(file);

    auto stick = std::make_unique<CScriptedPeer>();
    ServeStick(*stick, [](const CanFrame&) { return std::string(); });
    CSlcanAdapter adapter(stick->Path());
    ASSERT_EQ(adapter.Open(7), 0);
    stick.reset(); // unplugged
    CanFrame frame;
    EXPECT_EQ(adapter.ReceiveFrame(kCobSdoResponse, 5, frame, 20000), COM_READ_ERROR);
    EXPECT_FALSE(adapter.IsOpen());
}

TEST(CanAdapterChoice, DescriptorNamesTheAdapterAndLongPathsGoThroughTheBoardMap)
{
    auto config = std::filesystem::temp_directory_path() / ("tessitor-canboards-" + std::to_string(::getpid()) + ".ini");
    Settings settings(config.string());
    CCommunicationInfo info;
    info.m_sCommType = "CAN";

    info.mCanNr = 1; // the default maker, a board Linux shows as can1
    EXPECT_EQ(ChooseCanAdapter(info, settings).Name(), "socketcan:can1");
    CanAdapterChoice choice;
    ASSERT_TRUE(choice.FromName("socketcan:vcan0"));
    SetCanAdapter(info, choice, settings);
    EXPECT_EQ(ChooseCanAdapter(info, settings).Name(), "socketcan:vcan0");
    EXPECT_FALSE(choice.FromName("kvaser:0"));

    const std::string longPath = "/dev/serial/by-id/usb-Lawicel_CANUSB_LW4HC2R3-if00-port0";
    ASSERT_TRUE(choice.FromName("slcan:" + longPath));
    SetCanAdapter(info, choice, settings);
    EXPECT_EQ(info.sBoardType, "slcan1");
    CCommunicationInfo back;
    ASSERT_TRUE(back.FromLine(info.ToLine()));
    EXPECT_EQ(ChooseCanAdapter(back, settings).sDevice, longPath);
    SetCanAdapter(info, choice, settings);
    EXPECT_EQ(info.sBoardType, "slcan1") << "the same path keeps its key";
}

TEST(CanOpenReading, ReadsTheFramesOfABus)
{
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x000, {0x01, 0x05})), "NMT start node 5");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x000, {0x81, 0x00})), "NMT reset node all nodes");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x080, {})), "SYNC");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x085, {0x30, 0x81, 0x11, 0, 0, 0, 0, 0})),
              "EMCY node 5: error 0x8130, register 0x11");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x705, {0x00})), "heartbeat node 5: boot-up");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x705, {0x05})), "heartbeat node 5: operational");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x285, {1, 2, 3})), "TPDO2 node 5");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x305, {1, 2, 3})), "RPDO2 node 5");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x605, {0x40, 0x08, 0x10, 0, 0, 0, 0, 0})), "SDO request node 5: upload 0x1008/0");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x605, {0x2B, 0x40, 0x60, 0, 0x0F, 0, 0, 0})),
              "SDO request node 5: download 0x6040/0 expedited: 0F 00");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x585, {0x41, 0x08, 0x10, 0, 12, 0, 0, 0})),
              "SDO response node 5: upload 0x1008/0 segmented, 12 bytes");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x585, {0x80, 0x00, 0x20, 0x01, 0x00, 0x00, 0x02, 0x06})),
              "SDO response node 5: abort 0x2000/1 0x06020000 Object does not exist in the object dictionary.");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x585, {0x1B, 'a', 'b', 0, 0, 0, 0, 0})),
              "SDO response node 5: upload segment t=1, 2 bytes, last");
    EXPECT_EQ(ReadCanOpenFrame(Frame(0x7E5, {0x04})), "");
}
