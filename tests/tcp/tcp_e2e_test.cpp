// The TCP link end to end against the virtual network device: in this
// process (several drives, faults, threads sharing one device) and as
// `tessitor sim --tcp` driven by the `tessitor` command.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "communication/tcp.h"
#include "core/settings.h"
#include "sim/simtcpserver.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"
#include "tests/support/scriptedpeer.h"
#include "tests/tcp/tcppeer.h"

namespace tessitor {
namespace {

using sim::FaultKind;
using test::TcpInfo;
using test::Thrown;

std::string Value(CCommunication& link, const std::string& command, std::uint32_t timeoutMs = 2000)
{
    std::string value;
    link.SendCommandGetValue(command, value, timeoutMs);
    return value;
}

class TcpDevice : public ::testing::Test {
protected:
    void SetUp() override { m_Server.Start(); }

    std::unique_ptr<CTCP> Link(const std::string& target)
    {
        auto link = std::make_unique<CTCP>(TcpInfo(target), m_Server.Port());
        EXPECT_EQ(0, link->Connect()) << target;
        return link;
    }

    // The device breaks the next command starting with pattern, once.
    void Fault(FaultKind kind, const std::string& pattern, int errorNumber = 2)
    {
        m_Server.Faults().Add({.eKind = kind, .sPattern = pattern, .nErrorNumber = errorNumber, .bOnce = true});
    }

    sim::CSimTcpServer m_Server;
};

TEST_F(TcpDevice, RefusalsFaultsAndBrokenFramesReachTheCallerAndTheLinkConnectsAgain)
{
    auto link = Link("RS232 Port 1");
    auto neighbour = Link("RS232 Port 2"); // another drive behind the same device
    std::string reply;
    auto refused = Thrown([&] { Value(*link, "XQ##"); });
    link->SendCommand("XQ##", reply, 2000, 0);
    std::string serialMessage;
    int refusedRaw = link->CheckDriveError("XQ##", reply, serialMessage);
    Fault(FaultKind::kDrop, "PX");
    Fault(FaultKind::kWrongEcho, "SP");
    Fault(FaultKind::kCut, "AC");
    Fault(FaultKind::kDriveError, "MO", 7);

    auto lost = Thrown([&] { Value(*link, "PX", 200); });
    auto badEcho = Thrown([&] { link->SendCommand("SP", reply, 2000, 0); });
    auto cut = Thrown([&] { link->SendCommand("AC", reply, 200, 0); });
    bool latched = link->IsTimeoutLatched();
    int probe = link->CheckLink(); // the forced echo probe clears the latch
    auto driveError = Thrown([&] { Value(*link, "MO=1"); });
    Fault(FaultKind::kWrongFunctionId, "SR"); // after the probe, which sends SR
    Fault(FaultKind::kWrongFunctionId, "PA");
    Fault(FaultKind::kDropConnection, "VR");
    Fault(FaultKind::kHalfHeader, "UM");
    auto other = Thrown([&] { Value(*link, "SR"); });
    int empty = link->SendCommandGetReply("PA", reply, 2000);
    std::string afterOther = Value(*link, "SP");
    auto dropped = Thrown([&] { Value(*link, "VR"); });
    std::string reopened = Value(*link, "SP"); // the next command opens the connection again
    link->SendCommand("SP", reply, 2000, 0);
    std::string reopenedRaw = reply;
    std::string neighbourAfterDrop = Value(*neighbour, "SP");
    int acceptedAfterDrop = m_Server.AcceptedCount();
    // An answer to an earlier request sent again before the real one shifts nothing.
    Fault(FaultKind::kUnaskedFrame, "VR");
    Fault(FaultKind::kUnaskedFrame, "SR");
    std::string version = Value(*link, "VR");
    link->SendCommand("SR", reply, 2000, 0);
    std::string status = reply;
    std::string afterUnasked = Value(*link, "SP");
    auto half = Thrown([&] { link->SendCommand("UM", reply, 100, 0); });
    link->Disconnect();
    int third = link->Connect();
    std::string healthy = Value(*link, "SP");
    Fault(FaultKind::kWrongFunctionId, "VR");
    link->Identify(); // its reply comes back empty

    EXPECT_EQ(kErrSrcTcpLink, refused.m_nErrorSource);
    EXPECT_EQ(-1, refused.m_nErrorCode);
    EXPECT_EQ(1, refusedRaw);
    EXPECT_EQ(serialMessage, refused.FillMessage()); // read as on the serial line
    EXPECT_EQ(0, serialMessage.rfind("Error (", 0)) << serialMessage;
    EXPECT_EQ("Time Out Waiting for Response from Controller", lost.FillMessage());
    EXPECT_EQ(kErrSrcTcpLink, lost.m_nErrorSource);
    EXPECT_EQ(COM_BAD_ECHO, badEcho.m_nErrorCode);
    EXPECT_EQ(COM_TIMEOUT, cut.m_nErrorCode);
    EXPECT_TRUE(latched);
    EXPECT_EQ(1, probe);
    EXPECT_EQ("Error (7) :  'MO=1' : " + link->GetDriveErrorText(7) + " !", driveError.FillMessage());
    EXPECT_EQ("The network device 127.0.0.1:" + std::to_string(m_Server.Port())
                  + " answered with another function ID.",
              other.FillMessage());
    EXPECT_EQ(-2, empty);
    EXPECT_EQ("100000", afterOther); // the next request got its own answer
    EXPECT_EQ(kErrSrcTcp, dropped.m_nErrorSource);
    EXPECT_EQ(link.get(), dropped.m_pCom);
    EXPECT_EQ("The TCP/IP connection has been dropped because of a network failure or because the peer system "
              "failed to respond.",
              dropped.FillMessage());
    EXPECT_EQ("100000", reopened);
    EXPECT_EQ("SP\r100000;", reopenedRaw);
    EXPECT_EQ("100000", neighbourAfterDrop);
    EXPECT_EQ(2, acceptedAfterDrop); // both drives share the one new connection
    EXPECT_EQ(m_Server.Drive("RS232 Port 1")->VersionString(), version);
    EXPECT_EQ(0u, status.rfind("SR\r", 0)) << status;
    EXPECT_EQ("100000", afterUnasked);
    EXPECT_EQ(" The TCP/IP connection has been dropped because of a network failure or because the peer system "
              "failed to respond.",
              half.FillMessage());
    EXPECT_EQ(0, third);
    EXPECT_EQ("100000", healthy);
    EXPECT_EQ("Unknown version", link->GetVersionText());
    EXPECT_EQ(3, m_Server.AcceptedCount());
}

TEST_F(TcpDevice, DrivesBehindOneDeviceKeepTheirStateAndThreadsSharingItNeverMixFrames)
{
    std::vector<std::unique_ptr<CTCP>> links;
    for (const char* target : {"RS232 Port 1", "RS232 Port 2", "CANopen Bus 1 NodeID 5"})
        links.push_back(Link(target));
    links[0]->Identify();
    std::atomic<int> wrong{0};
    std::vector<std::jthread> threads;

    // Two threads per drive, each on its own parameter, every other read a
    // raw one: a reply that belongs to another thread's, drive's or
    // request's frame shows up as a wrong one.
    for (int n = 0; n < 6; ++n) {
        threads.emplace_back([&, n] {
            CCommunication& link = *links[static_cast<std::size_t>(n / 2)];
            const std::string parameter = n % 2 ? "AC" : "SP";
            for (int i = 0; i < 150; ++i) {
                std::string value = std::to_string(1000 + n / 2 * 100000 + i);
                std::string got;
                try {
                    Value(link, parameter + "=" + value, 5000);
                    if (i % 2 == 0)
                        got = Value(link, parameter, 5000);
                    else
                        link.SendCommand(parameter, got, 5000, 0);
                } catch (const CCommunication::CExceptionComm&) {
                    got = "a failure";
                }
                wrong += got != (i % 2 == 0 ? value : parameter + "\r" + value + ";");
            }
        });
    }
    threads.clear(); // joins them

    EXPECT_EQ(0, wrong.load());
    EXPECT_EQ(m_Server.Drive("RS232 Port 1")->VersionString(), links[0]->GetVersionText());
    EXPECT_EQ("DSP", links[0]->GetProcessorType());
    EXPECT_EQ(1, links[0]->CheckLink());
    EXPECT_EQ(1, m_Server.AcceptedCount()); // the three links share one connection
}

TEST_F(TcpDevice, RecordedDataUploadIsTheDrivesOwnBhAnswer)
{
    auto link = Link("RS232 Port 2");
    for (const char* command : {"RR=0", "RC=3", "RG=1", "RL=130", "RP[3]=0", "RR=2"})
        Value(*link, command);
    for (int poll = 0; poll < 500 && ((std::stoul(Value(*link, "SR")) >> 16) & 3) != 2; ++poll)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(2u, (std::stoul(Value(*link, "SR")) >> 16) & 3) << "the recording completes";

    test::CChunkRecorder store;
    store.nRefuse = 1; // the first answer "does not decode": the device is asked again
    test::CPostCounter progress;
    EXPECT_EQ(0, link->UploadRecordedData(130, 2, store, &progress, nullptr));
    Value(*link, "RP[8]=100");
    Value(*link, "RP[9]=129");
    ASSERT_EQ(2u, store.arChunks.size());
    EXPECT_EQ(Value(*link, "BH=2"), store.arChunks[1]);
    EXPECT_EQ(30u * 8u + 20u, store.arChunks[1].size()) << "header and thirty 32-bit samples";
    EXPECT_EQ(100u * 8u + 20u, store.arChunks[0].size());
    EXPECT_EQ(2, progress.nPosted.load());
    EXPECT_EQ(kMsgRecProgress, progress.nLastMessage);
}

TEST(TcpCommand, TessitorReachesDrivesOfTessitorSimOverTcp)
{
    namespace fs = std::filesystem;
    fs::path config = fs::temp_directory_path() / ("tessitor-tcp-" + std::to_string(::getpid()) + ".ini");
    fs::remove(config);
    test::CBackgroundProcess device({test::TessitorPath(), "sim", "--tcp", "0"});
    std::string where = device.FirstLine();
    ASSERT_EQ(0u, where.rfind("127.0.0.1:", 0)) << where;
    std::string port = where.substr(where.find(':') + 1);
    auto run = [&](std::vector<std::string> args) {
        args.insert(args.begin(), test::TessitorPath());
        return test::RunProcess(args, {"TESSITOR_CONFIG=" + config.string()});
    };

    auto sent = run({"send", "--tcp", where, "--target", "RS232 Port 2", "SP=4321", "SP", "VR"});
    auto other = run({"send", "--tcp", where, "--target", "RS232 Port 1", "SP"});
    Settings settings(config.string());
    settings.Set("TCP", "Port", port);
    ASSERT_TRUE(settings.Save());
    auto byLine = run({"send", "--conn", TcpInfo("CANopen Bus 1 NodeID 5").ToLine(), "SP=77", "SP"});
    auto refused = run({"send", "--tcp", where, "--target", "RS232 Port 1", "XQ##"});
    fs::remove(config);

    EXPECT_EQ(0, sent.nStatus) << sent.sErr;
    EXPECT_EQ(0u, sent.sOut.rfind("\n4321\nTalvina ", 0)) << sent.sOut;
    EXPECT_EQ(0, other.nStatus) << other.sErr;
    EXPECT_EQ("100000\n", other.sOut); // the other drive kept its own value
    EXPECT_EQ(0, byLine.nStatus) << byLine.sErr;
    EXPECT_EQ("\n77\n", byLine.sOut);
    EXPECT_EQ(1, refused.nStatus);
    EXPECT_EQ(0u, refused.sErr.rfind("Error (", 0)) << refused.sErr;
}

TEST(TcpCommand, TessitorSimServesIpv6)
{
    if (!std::filesystem::exists("/proc/net/if_inet6"))
        GTEST_SKIP() << "this machine has no IPv6";
    test::CBackgroundProcess device({test::TessitorPath(), "sim", "--tcp", "[::1]:0"});
    std::string where = device.FirstLine();
    ASSERT_EQ(0u, where.rfind("[::1]:", 0)) << where;
    auto config = std::filesystem::temp_directory_path() / ("tessitor-tcp6-" + std::to_string(::getpid()) + ".ini");
    auto sent = test::RunProcess({test::TessitorPath(), "send", "--tcp", where, "--target", "RS232 Port 1", "SP"},
                                 {"TESSITOR_CONFIG=" + config.string()});
    std::filesystem::remove(config);
    EXPECT_EQ(0, sent.nStatus) << sent.sErr;
    EXPECT_EQ("100000\n", sent.sOut);
}

} // namespace
} // namespace tessitor
