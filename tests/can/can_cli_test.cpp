// `tessitor` on a CAN link end to end: the sdo and can dump commands over a
// scripted SLCAN stick on a pseudo-terminal with an SDO server behind it.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "can/adapter/slcancodec.h"
#include "can/canmessage.h"
#include "tests/can/sdoresponder.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"
#include "tests/support/scriptedpeer.h"

using namespace tessitor;
using namespace tessitor::test;
namespace fs = std::filesystem;

namespace {

class CanCli : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Config = fs::temp_directory_path() / ("tessitor-cancli-" + std::to_string(::getpid()) + "-" +
                                                ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".ini");
        fs::remove(m_Config);
        m_Stick.SetHandler([this](const std::string& line) -> std::string {
            CanFrame request;
            if (!slcan::DecodeFrame(line.substr(0, line.size() - 1), request))
                return line == "\r" ? "" : "\r";
            if (request.nId != kCobSdoRequest + 5)
                return "z\r";
            auto answer = m_Node.Answer(request.abData);
            return "z\r" + (answer ? slcan::EncodeFrame(MakeCanFrame(kCobSdoResponse + 5, answer->data(), 8)) : "");
        });
    }
    void TearDown() override { fs::remove(m_Config); }

    ProcessResult Run(std::vector<std::string> args)
    {
        args.insert(args.begin(), TessitorPath());
        return RunProcess(args, {"TESSITOR_CONFIG=" + m_Config.string()});
    }
    std::vector<std::string> Can(std::vector<std::string> args, const std::string& node = "5")
    {
        std::vector<std::string> all = {"--can", "slcan:" + m_Stick.Path(), "--node", node};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }

    CSdoResponder m_Node{{{CSdoResponder::Key(0x1008, 0), "Ortiva Talvina"},
                          {CSdoResponder::Key(0x1000, 0), std::string("\x92\x01\x02\x00", 4)}}};
    CScriptedPeer m_Stick;
    fs::path m_Config;
};

} // namespace

TEST_F(CanCli, SdoUploadPrintsEachValueAndDownloadWrites)
{
    ProcessResult up = Run(Can({"sdo", "upload", "0x1008", "0", "4096", "0"}));
    ProcessResult hex = Run(Can({"sdo", "upload", "--hex", "0x1000", "0"}));
    ProcessResult text = Run(Can({"sdo", "download", "0x2000", "1", "a text of twenty bytes"}));
    ProcessResult bytes = Run(Can({"sdo", "download", "--hex", "0x2000", "2", "0A 1b"}));

    EXPECT_EQ(up.nStatus, 0) << up.sErr;
    EXPECT_EQ(up.sOut, "Ortiva Talvina\n" + std::string("\x92\x01\x02\x00", 4) + "\n");
    EXPECT_EQ(hex.sOut, "92010200\n");
    EXPECT_EQ(text.nStatus, 0) << text.sErr;
    EXPECT_EQ(m_Node.Object(0x2000, 1), "a text of twenty bytes");
    EXPECT_EQ(bytes.nStatus, 0) << bytes.sErr;
    EXPECT_EQ(m_Node.Object(0x2000, 2), "\x0A\x1B");

    ProcessResult last = Run({"--last", "sdo", "upload", "0x1008", "0"});
    EXPECT_EQ(last.sOut, "Ortiva Talvina\n") << "--last names the CAN connection again: " << last.sErr;

    ProcessResult bad = Run(Can({"sdo", "upload", "0x10000", "0"}));
    EXPECT_EQ(bad.nStatus, 2);
    ProcessResult serial = Run({"--serial", m_Stick.Path(), "sdo", "upload", "0x1008", "0"});
    EXPECT_EQ(serial.nStatus, 2) << serial.sErr;
}

TEST_F(CanCli, AbortAndSilenceEndWithTheirMessagesAndExitOne)
{
    ProcessResult abort = Run(Can({"sdo", "upload", "0x1009", "0"}));
    ProcessResult silent = Run(Can({"--timeout", "300", "sdo", "upload", "0x1008", "0"}, "6"));

    EXPECT_EQ(abort.nStatus, 1);
    EXPECT_EQ(abort.sErr, "SDO Abort:\nObject does not exist in the object dictionary.\n");
    EXPECT_EQ(silent.nStatus, 1);
    EXPECT_EQ(silent.sErr, "Time Out Waiting for Response from Controller\n");
}

TEST_F(CanCli, TraceFramesAndDumpShowTheBus)
{
    ProcessResult traced = Run(Can({"--trace-frames", "sdo", "upload", "0x1008", "0"}));
    EXPECT_NE(traced.sErr.find(") TX 605#4008100000000000\n"), std::string::npos) << traced.sErr;
    EXPECT_NE(traced.sErr.find(") RX 585#41081000"), std::string::npos) << traced.sErr;
    EXPECT_EQ(traced.sOut, "Ortiva Talvina\n");

    CBackgroundProcess dump({TessitorPath(), "can", "dump", "--can", "slcan:" + m_Stick.Path()});
    for (int wait = 0; wait < 2000 && m_Stick.Count("O\r") < 2; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    m_Stick.SendRaw("t70510012\r");
    std::string line = dump.FirstLine();
    EXPECT_EQ(line.substr(0, 12), "(0.000000) 7") << line;
    EXPECT_NE(line.find("705#00"), std::string::npos) << line;
    EXPECT_NE(line.find("heartbeat node 5: boot-up"), std::string::npos) << line;
    EXPECT_EQ(dump.Stop(SIGINT), 0);
}
