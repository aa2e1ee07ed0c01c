// The CAN link and the `tessitor` command end to end against the virtual
// drives on a CAN bus: `tessitor sim --slcan` in another process, and the
// same drive model behind a serial and a CAN face at once for "same values".
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "can/can.h"
#include "communication/rs232.h"
#include "sim/simserialserver.h"
#include "sim/simslcanserver.h"
#include "tests/can/scriptedcan.h"
#include "tests/sim/simtesthelpers.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"
#include "tests/support/scriptedpeer.h"

using namespace tessitor;
using namespace tessitor::test;
namespace fs = std::filesystem;

namespace {

class CanSim : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Config = fs::temp_directory_path() / ("tessitor-cansim-" + std::to_string(::getpid()) + "-" +
                                                ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".ini");
        fs::remove(m_Config);
    }
    void TearDown() override { fs::remove(m_Config); }

    ProcessResult Run(std::vector<std::string> args)
    {
        args.insert(args.begin(), TessitorPath());
        return RunProcess(args, {"TESSITOR_CONFIG=" + m_Config.string()});
    }
    static std::vector<std::string> Can(const std::string& path, int node, std::vector<std::string> args)
    {
        std::vector<std::string> all = {"--yes", "--can", "slcan:" + path, "--node", std::to_string(node)};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }

    fs::path m_Config;
};

std::string Value(CCommunication& link, const std::string& command)
{
    std::string value;
    link.SendCommandGetValue(command, value, 5000);
    return value;
}

std::vector<double> Samples(const std::vector<std::string>& chunks)
{
    std::vector<double> samples;
    for (const std::string& chunk : chunks) {
        sim::test::Upload u = sim::test::DecodeUpload(chunk);
        EXPECT_TRUE(u.bOk) << chunk.substr(0, 40);
        samples.insert(samples.end(), u.arSamples.begin(), u.arSamples.end());
    }
    return samples;
}

} // namespace

TEST_F(CanSim, SdoCommandsReadWriteAndReportAbortsAndSilence)
{
    CBackgroundProcess bus({TessitorPath(), "sim", "--slcan", "--product", "Bressa", "--node", "5:Talvina,6", "--fault",
                            "abort:/0x1018:0x06040047"});
    const std::string path = bus.FirstLine();
    ASSERT_FALSE(path.empty());

    ProcessResult names = Run(Can(path, 5, {"sdo", "upload", "0x1008", "0", "0x100A", "0"}));
    ProcessResult other = Run(Can(path, 6, {"sdo", "upload", "0x1008", "0"}));
    ProcessResult write = Run(Can(path, 5, {"sdo", "download", "--hex", "0x1017", "0", "E8 03"}));
    ProcessResult back = Run(Can(path, 5, {"sdo", "upload", "--hex", "0x1017", "0"}));
    ProcessResult refused = Run(Can(path, 5, {"sdo", "upload", "0x1018", "1"}));
    ProcessResult missing = Run(Can(path, 5, {"sdo", "upload", "0x1234", "0"}));
    ProcessResult silent = Run(Can(path, 7, {"--timeout", "300", "sdo", "upload", "0x1008", "0"}));

    EXPECT_EQ(names.sOut, "Talvina\nTalvina 2.1.0.0\n") << names.sErr;
    EXPECT_EQ(other.sOut, "Bressa\n") << "two nodes on one bus answer for themselves";
    EXPECT_EQ(write.nStatus, 0) << write.sErr;
    EXPECT_EQ(back.sOut, "E803\n");
    EXPECT_EQ(refused.nStatus, 1);
    EXPECT_EQ(refused.sErr, "SDO Abort:\nGeneral internal incompatibility in the device.\n");
    EXPECT_EQ(missing.sErr, "SDO Abort:\nObject does not exist in the object dictionary.\n");
    EXPECT_EQ(silent.nStatus, 1);
    EXPECT_EQ(silent.sErr, "Time Out Waiting for Response from Controller\n");
    EXPECT_EQ(bus.Stop(SIGINT), 0);
}

TEST_F(CanSim, TwoLinksShareOneAdapterAndNeverMixTheirNodesAnswers)
{
    sim::CSimSlcanServer bus;
    bus.AddNode(std::make_shared<sim::CSimDrive>("Talvina"), 5);
    bus.AddNode(std::make_shared<sim::CSimDrive>("Bressa"), 6);
    bus.Start();
    CCan node5(SlcanInfo(bus.SlavePath(), 5)), node6(SlcanInfo(bus.SlavePath(), 6));
    ASSERT_EQ(node5.Connect(), 0) << node5.GetConnectError();
    ASSERT_EQ(node6.Connect(), 0) << node6.GetConnectError() << " (the second link shares the open adapter)";

    // Segmented uploads of both nodes at once, their frames interleaved on the bus.
    std::atomic<int> mixed{0};
    auto run = [&mixed](CCan& link, const std::string& name) {
        for (int i = 0; i < 50; ++i) {
            std::string value;
            try {
                link.SdoUpload(0x1008, 0, value, 10000);
            } catch (const CCommunication::CExceptionComm&) {
            }
            mixed += value != name;
        }
    };
    std::thread other([&] { run(node6, "Bressa"); });
    run(node5, "Talvina");
    other.join();

    EXPECT_EQ(mixed, 0);
    node5.Disconnect();
    std::string value;
    node6.SdoUpload(0x1008, 0, value, 10000);
    EXPECT_EQ(value, "Bressa") << "the adapter stays open for the other link";
}

TEST_F(CanSim, DumpTraceAndLastShowAndReachTheBus)
{
    CBackgroundProcess bus({TessitorPath(), "sim", "--slcan", "--node", "5"});
    const std::string path = bus.FirstLine();
    // The drives boot when the first client opens the channel: the dump sees it.
    CBackgroundProcess dump({TessitorPath(), "can", "dump", "--can", "slcan:" + path});
    std::string line = dump.FirstLine();
    EXPECT_EQ(line.rfind("(0.000000) 705#00", 0), 0u) << line;
    EXPECT_NE(line.find("heartbeat node 5: boot-up"), std::string::npos) << line;
    EXPECT_EQ(dump.Stop(SIGINT), 0);

    ProcessResult traced = Run(Can(path, 5, {"--trace-frames", "sdo", "upload", "0x1008", "0"}));
    ProcessResult last = Run({"--last", "--trace-frames", "sdo", "upload", "0x1008", "0"});
    ProcessResult bad = Run(Can(path, 5, {"sdo", "upload", "0x10000", "0"}));
    ProcessResult odd = Run(Can(path, 5, {"sdo", "upload", "0x1008"}));

    EXPECT_NE(traced.sErr.find(") TX 605#4008100000000000\n"), std::string::npos) << traced.sErr;
    EXPECT_NE(traced.sErr.find(") RX 585#4"), std::string::npos) << traced.sErr;
    EXPECT_EQ(traced.sOut, "Talvina\n");
    EXPECT_EQ(last.sOut, "Talvina\n") << "--last names the CAN connection again: " << last.sErr;
    EXPECT_NE(last.sErr.find(") TX 605#4008100000000000\n"), std::string::npos) << last.sErr;
    EXPECT_EQ(bad.nStatus, 2);
    EXPECT_EQ(odd.nStatus, 2);
}

TEST_F(CanSim, CommandsGiveTheSerialLinesValuesOnBothFamilies)
{
    auto talvina = std::make_shared<sim::CSimDrive>("Talvina");
    auto bressa = std::make_shared<sim::CSimDrive>("Bressa");
    sim::CSimSerialServer talvinaSerial(talvina), bressaSerial(bressa);
    sim::CSimSlcanServer bus;
    bus.AddNode(talvina, 5);
    bus.AddNode(bressa, 6);
    talvinaSerial.Start();
    bressaSerial.Start();
    bus.Start();
    // Every transfer: OS command (VR and values with a point on Talvina),
    // SDO upload (VR on Bressa), binary interpreter, SDO download (LD).
    const std::vector<std::string> commands = {"send", "VR", "KP[2]=7", "KP[2]", "KP[1]=1.5", "KP[1]", "SP=2000",
                                               "SP", "UM", "LD", "KP[2]"};

    for (auto [serialPath, node] : {std::pair{talvinaSerial.SlavePath(), 5}, std::pair{bressaSerial.SlavePath(), 6}}) {
        std::vector<std::string> serialArgs = {"--yes", "--serial", serialPath};
        serialArgs.insert(serialArgs.end(), commands.begin(), commands.end());
        ProcessResult overSerial = Run(serialArgs);
        ProcessResult overCan = Run(Can(bus.SlavePath(), node, commands));

        EXPECT_EQ(overCan.nStatus, 0) << overCan.sErr;
        EXPECT_EQ(overCan.sOut, overSerial.sOut) << "node " << node;
        EXPECT_NE(overCan.sOut.find("\n\n7\n"), std::string::npos) << overCan.sOut;
    }

    ProcessResult info = Run(Can(bus.SlavePath(), 6, {"info"}));
    EXPECT_NE(info.sOut.find("product: Bressa\nprocessor: BreNol\nlink check: ok (1)"), std::string::npos)
        << info.sOut << info.sErr;
}

TEST_F(CanSim, DriveErrorsAndABusyDriveFailWithTheirMessages)
{
    CBackgroundProcess bus({TessitorPath(), "sim", "--slcan", "--node", "5", "--fault", "busy:/KP[1]=1.5", "--fault",
                            "error:/PX:5"});
    const std::string path = bus.FirstLine();

    ProcessResult busy = Run(Can(path, 5, {"--timeout", "300", "send", "KP[1]=1.5"}));
    ProcessResult interpreter = Run(Can(path, 5, {"send", "PX"}));
    ProcessResult os = Run(Can(path, 5, {"send", "UM=abc"}));

    EXPECT_EQ(busy.nStatus, 1);
    EXPECT_EQ(busy.sErr, "Error : OSCommand did not answered in expected time\n");
    EXPECT_EQ(interpreter.nStatus, 1);
    EXPECT_EQ(interpreter.sErr, "Command not supported by this product\n");
    EXPECT_EQ(os.nStatus, 1);
    EXPECT_EQ(os.sErr, "Error (30) :  'UM=abc' : Bad number format !\n");
}

TEST_F(CanSim, RecordingComesOverCanAsOverTheSerialLine)
{
    auto drive = std::make_shared<sim::CSimDrive>("Talvina");
    sim::CSimSerialServer serialFace(drive);
    sim::CSimSlcanServer bus;
    bus.AddNode(drive, 5);
    serialFace.Start();
    bus.Start();
    CCommunicationInfo serialInfo;
    CRs232 serial(serialInfo);
    serial.SetDevicePath(serialFace.SlavePath());
    CCan can(SlcanInfo(bus.SlavePath(), 5));
    ASSERT_EQ(serial.Connect(), 0);
    ASSERT_EQ(can.Connect(), 0) << can.GetConnectError();
    can.Identify();
    for (const char* command : {"RR=0", "RC=3", "RG=1", "RL=250", "RP[3]=0", "RR=2"})
        Value(can, command);
    for (int poll = 0; poll < 1000 && (std::stoul(Value(can, "SR")) >> 16 & 3) != 2; ++poll)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    CChunkRecorder overSerial, overCan;
    overCan.nRefuse = 1; // asked again when it does not decode
    CPostCounter progress;
    EXPECT_EQ(serial.UploadRecordedData(250, 2, overSerial, nullptr, nullptr), 0);
    EXPECT_EQ(can.UploadRecordedData(250, 2, overCan, &progress, nullptr), 0);

    ASSERT_EQ(overCan.arChunks.size(), 1u) << "one record holds the whole recording";
    EXPECT_EQ(overSerial.arChunks.size(), 3u);
    std::vector<double> samples = Samples(overCan.arChunks);
    EXPECT_EQ(samples.size(), 250u);
    EXPECT_EQ(samples, Samples(overSerial.arChunks));
    const int segments = static_cast<int>((overCan.arChunks[0].size() + 6) / 7);
    EXPECT_EQ(progress.nPosted.load(), 2 * (segments / kRecordProgressSegments)) << "every 20 segments, both sends";

    bus.Node(5)->AddFault(sim::CSimFaults::Parse("toggle:/0x2030:once"));
    try {
        can.UploadRecordedData(250, 2, overCan, nullptr, nullptr);
        ADD_FAILURE() << "a repeated toggle went unnoticed";
    } catch (CCommunication::CExceptionComm& e) {
        EXPECT_EQ(e.FillMessage(), "Error: Toggle bit error in the segmented part of  SDO upload.");
    }
}
