// The TCP link end to end against the virtual network device: in this
// process (several drives, faults, threads sharing one device) and as
// `tessitor sim --tcp` driven by the `tessitor` command.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "communication/linkfactory.h"
#include "communication/tcp.h"
#include "core/settings.h"
#include "sim/simtcpserver.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"

extern char** environ;

namespace tessitor {
namespace {

using sim::CSimTcpServer;
using sim::FaultKind;
using sim::FaultRule;

CCommunicationInfo TcpInfo(const std::string& target)
{
    CCommunicationInfo info;
    info.m_sCommType = "TCP";
    info.abIP = {127, 0, 0, 1};
    info.sDesc = target;
    info.nType = target.rfind("CANopen", 0) == 0 ? 1 : 0;
    return info;
}

template <class F>
CCommunication::CExceptionComm Thrown(F&& action)
{
    try {
        action();
    } catch (const CCommunication::CExceptionComm& e) {
        return e;
    }
    ADD_FAILURE() << "no CExceptionComm was thrown";
    return CCommunication::CExceptionComm(0, nullptr, -100);
}

std::string Value(CCommunication& link, const std::string& command, std::uint32_t timeoutMs = 2000)
{
    std::string value;
    link.SendCommandGetValue(command, value, timeoutMs);
    return value;
}

FaultRule Rule(FaultKind kind, const std::string& pattern)
{
    FaultRule rule;
    rule.eKind = kind;
    rule.sPattern = pattern;
    rule.bOnce = true;
    return rule;
}

class TcpDevice : public ::testing::Test {
protected:
    void SetUp() override { m_Server.Start(); }

    std::unique_ptr<CCommunication> Link(const std::string& target)
    {
        LinkOptions options;
        options.wTcpPort = m_Server.Port();
        auto link = CreateLink(TcpInfo(target), options);
        EXPECT_EQ(0, link->Connect()) << target;
        return link;
    }

    CSimTcpServer m_Server;
};

TEST_F(TcpDevice, DrivesBehindOneDeviceKeepTheirOwnState)
{
    auto port1 = Link("RS232 Port 1");
    auto port2 = Link("RS232 Port 2");
    auto node5 = Link("CANopen Bus 1 NodeID 5");

    port1->Identify();
    Value(*port1, "SP=1111");
    Value(*port2, "SP=2222");
    Value(*node5, "SP=5555");
    std::string raw;
    port2->SendCommand("SP", raw, 2000, 0);

    EXPECT_EQ(m_Server.Drive("RS232 Port 1")->VersionString(), port1->GetVersionText());
    EXPECT_EQ("DSP", port1->GetProcessorType());
    EXPECT_EQ("1111", Value(*port1, "SP"));
    EXPECT_EQ("2222", raw.substr(3, 4));
    EXPECT_EQ("SP\r2222;", raw);
    EXPECT_EQ("5555", Value(*node5, "SP"));
    EXPECT_EQ(1, port1->CheckLink());
    EXPECT_EQ(1, m_Server.AcceptedCount()); // the three links share one connection
}

TEST_F(TcpDevice, DriveRefusalReadsAsOnTheSerialLine)
{
    auto link = Link("RS232 Port 1");
    std::string reply;

    auto e = Thrown([&] { Value(*link, "XQ##"); });
    link->SendCommand("XQ##", reply, 2000, 0);
    std::string serialMessage;
    int refused = link->CheckDriveError("XQ##", reply, serialMessage);

    EXPECT_EQ(kErrSrcTcpLink, e.m_nErrorSource);
    EXPECT_EQ(-1, e.m_nErrorCode);
    EXPECT_EQ(1, refused);
    EXPECT_EQ(serialMessage, e.FillMessage());
    EXPECT_EQ(0, serialMessage.rfind("Error (", 0)) << serialMessage;
}

TEST_F(TcpDevice, DriveFaultsBecomeTheTransactionsCodes)
{
    auto link = Link("RS232 Port 1");
    m_Server.Faults().Add(Rule(FaultKind::kDrop, "PX"));
    m_Server.Faults().Add(Rule(FaultKind::kWrongEcho, "SP"));
    m_Server.Faults().Add(Rule(FaultKind::kCut, "AC"));
    m_Server.Faults().Add(Rule(FaultKind::kDrop, "DC"));
    FaultRule refuse = Rule(FaultKind::kDriveError, "MO");
    refuse.nErrorNumber = 7;
    m_Server.Faults().Add(refuse);
    std::string reply;

    auto lost = Thrown([&] { Value(*link, "PX", 200); });
    auto badEcho = Thrown([&] { link->SendCommand("SP", reply, 2000, 0); });
    auto cut = Thrown([&] { link->SendCommand("AC", reply, 200, 0); });
    bool latched = link->IsTimeoutLatched();
    auto refusedLatched = Thrown([&] { link->SendCommand("DC", reply, 200, 0); });
    int probe = link->CheckLink(); // the forced echo probe clears the latch
    auto driveError = Thrown([&] { Value(*link, "MO=1"); });

    EXPECT_EQ("Time Out Waiting for Response from Controller", lost.FillMessage());
    EXPECT_EQ(kErrSrcTcpLink, lost.m_nErrorSource);
    EXPECT_EQ(COM_BAD_ECHO, badEcho.m_nErrorCode);
    EXPECT_EQ(COM_TIMEOUT, cut.m_nErrorCode);
    EXPECT_TRUE(latched);
    EXPECT_EQ(COM_TIMEOUT, refusedLatched.m_nErrorCode);
    EXPECT_EQ(1, probe);
    EXPECT_FALSE(link->IsTimeoutLatched());
    EXPECT_EQ("Error (7) :  'MO=1' : " + link->GetDriveErrorText(7) + " !", driveError.FillMessage());
}

TEST_F(TcpDevice, BrokenFramesAreReportedAndTheLinkConnectsAgain)
{
    auto link = Link("RS232 Port 1");
    m_Server.Faults().Add(Rule(FaultKind::kWrongFunctionId, "SR"));
    m_Server.Faults().Add(Rule(FaultKind::kWrongFunctionId, "PX"));
    m_Server.Faults().Add(Rule(FaultKind::kDropConnection, "VR"));
    m_Server.Faults().Add(Rule(FaultKind::kHalfHeader, "UM"));
    std::string reply;

    auto other = Thrown([&] { Value(*link, "SR"); });
    int empty = link->SendCommandGetReply("PX", reply, 2000);
    std::string afterOther = Value(*link, "SP");
    auto dropped = Thrown([&] { Value(*link, "VR"); });
    auto closed = Thrown([&] { Value(*link, "SP"); });
    auto closedRaw = Thrown([&] { link->SendCommand("SP", reply, 2000, 0); });
    link->Disconnect();
    int again = link->Connect();
    auto half = Thrown([&] { link->SendCommand("UM", reply, 100, 0); });
    link->Disconnect();
    int third = link->Connect();
    std::string healthy = Value(*link, "SP");

    EXPECT_EQ("The network device 127.0.0.1:" + std::to_string(m_Server.Port()) + " answered another request.",
              other.FillMessage());
    EXPECT_EQ(-2, empty);
    EXPECT_EQ("100000", afterOther); // the next request got its own answer
    EXPECT_EQ(kErrSrcTcp, dropped.m_nErrorSource);
    EXPECT_EQ(link.get(), dropped.m_pCom);
    EXPECT_EQ("The TCP/IP connection has been dropped because of a network failure or because the peer system "
              "failed to respond.",
              dropped.FillMessage());
    EXPECT_EQ(kErrSrcTcpLink, closed.m_nErrorSource);
    EXPECT_NE(std::string::npos, closed.FillMessage().find("is closed")) << closed.m_sMessage;
    EXPECT_EQ(closed.FillMessage(), closedRaw.FillMessage());
    EXPECT_EQ(0, again);
    EXPECT_EQ(" The TCP/IP connection has been dropped because of a network failure or because the peer system "
              "failed to respond.",
              half.FillMessage());
    EXPECT_EQ(0, third);
    EXPECT_EQ("100000", healthy);
    EXPECT_EQ(3, m_Server.AcceptedCount());
}

TEST_F(TcpDevice, ThreadsSharingOneDeviceNeverMixFrames)
{
    const std::vector<std::string> targets = {"RS232 Port 1", "RS232 Port 2", "CANopen Bus 1 NodeID 5"};
    std::vector<std::unique_ptr<CCommunication>> links;
    for (const auto& target : targets)
        links.push_back(Link(target));
    constexpr int kRounds = 150;
    std::atomic<int> mismatches{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;

    // Two threads per link, each on its own parameter: a value that comes
    // back for another thread's, link's or request's frame shows up as a
    // mismatch.
    for (std::size_t d = 0; d < links.size(); ++d) {
        for (const char* parameter : {"SP", "AC"}) {
            threads.emplace_back([&, d, parameter] {
                CCommunication& link = *links[d];
                for (int i = 0; i < kRounds; ++i) {
                    std::string expected = std::to_string(1000 + static_cast<int>(d) * 100000 + i);
                    std::string value;
                    std::string reply;
                    try {
                        link.SendCommandGetValue(std::string(parameter) + "=" + expected, value, 5000);
                        if (i % 2 == 0) {
                            link.SendCommandGetValue(parameter, value, 5000);
                        } else {
                            link.SendCommand(parameter, reply, 5000, 0);
                            value = CCommunication::ExtractValue(parameter, reply);
                        }
                    } catch (const CCommunication::CExceptionComm&) {
                        ++failures;
                        continue;
                    }
                    if (value != expected)
                        ++mismatches;
                }
            });
        }
    }
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(0, mismatches.load());
    EXPECT_EQ(1, m_Server.AcceptedCount());
}

TEST_F(TcpDevice, RecordedDataChunkMatchesTheDrivesOwnAnswer)
{
    auto link = Link("RS232 Port 1");
    auto* tcp = dynamic_cast<CTCP*>(link.get());
    ASSERT_NE(nullptr, tcp);
    auto busy = Thrown([&] {
        for (const char* command : {"RC=1", "RL=10", "RG=1", "RR=2"})
            Value(*link, command);
        std::string data;
        tcp->UploadRecordedData(1, 0, 9, data, 2000); // still recording
    });
    for (int i = 0; i < 200 && ((std::stol(Value(*link, "SR")) >> 16) & 3) != 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::string data;
    std::string direct;

    tcp->UploadRecordedData(1, 0, 9, data, 2000);
    Value(*link, "RP[8]=0");
    Value(*link, "RP[9]=9");
    std::string reply;
    link->SendCommand("BH=1", reply, 2000, 0);
    direct = CCommunication::ExtractValue("BH=1", reply);

    EXPECT_EQ(kErrSrcTcpLink, busy.m_nErrorSource);
    EXPECT_EQ("Error (17) :  'BH=1' : " + link->GetDriveErrorText(17) + " !", busy.FillMessage());
    ASSERT_GE(data.size(), 20u) << data;
    EXPECT_EQ("000A", data.substr(4, 4)) << data; // ten samples, 0..9
    EXPECT_EQ(20 + 10 * std::stoul(data.substr(2, 2), nullptr, 16), data.size()) << data;
    EXPECT_EQ(direct, data);
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
    CCommunicationInfo info = TcpInfo("CANopen Bus 1 NodeID 5");
    Settings settings(config.string());
    settings.Set("TCP", "Port", port);
    ASSERT_TRUE(settings.Save());
    auto byLine = run({"send", "--conn", info.ToLine(), "SP=77", "SP"});
    auto missing = run({"send", "--tcp", where, "--target", "RS232 Port 7", "SP"});
    auto refused = run({"send", "--tcp", where, "--target", "RS232 Port 1", "XQ##"});
    fs::remove(config);

    EXPECT_EQ(0, sent.nStatus) << sent.sErr;
    EXPECT_EQ(0u, sent.sOut.rfind("\n4321\nTalvina ", 0)) << sent.sOut;
    EXPECT_EQ(0, other.nStatus) << other.sErr;
    EXPECT_EQ("100000\n", other.sOut); // the other drive kept its own value
    EXPECT_EQ(0, byLine.nStatus) << byLine.sErr;
    EXPECT_EQ("\n77\n", byLine.sOut);
    EXPECT_EQ(1, missing.nStatus);
    EXPECT_NE(std::string::npos, missing.sErr.find("RS232 Port 7")) << missing.sErr;
    EXPECT_EQ(1, refused.nStatus);
    EXPECT_EQ(0u, refused.sErr.rfind("Error (", 0)) << refused.sErr;
}

} // namespace
} // namespace tessitor
