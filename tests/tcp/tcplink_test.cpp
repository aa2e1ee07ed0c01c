// The TCP link against a scripted network device: connect results, one
// shared connection per device address, and how the device's answers and
// refusals reach the caller on the value and the raw path.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "communication/tcp.h"
#include "tests/support/scriptedpeer.h"
#include "tests/tcp/tcppeer.h"

namespace tessitor {
namespace {

using test::TcpInfo;
using test::Thrown;

TEST(TcpLink, ConnectReportsZeroOneOrThreeAndLinksShareOneConnectionUntilTheLastLetsGo)
{
    test::CTcpScriptedPeer peer(test::ScriptedDevice);
    CCommunicationInfo kmas = TcpInfo("");
    kmas.m_sCommType = "TCP_KMAS";
    kmas.mNodeID = 5;
    auto gateway = std::make_unique<CTCP>(kmas, peer.Port());
    CTCP canopen(TcpInfo("CANopen Bus 1 NodeID 5"), peer.Port());
    CTCP missing(TcpInfo("RS232 Port 9"), peer.Port());
    CTCP unreachable(TcpInfo("RS232 Port 1"), test::ClosedPort());

    auto ui = std::make_unique<test::CWaitRecorder>();
    int found = canopen.Connect();
    std::vector<std::string> waits = ui->arWaits;
    ui.reset();
    int byNode = gateway->Connect();
    std::string handle; // the device answers PX with the handle the request names
    gateway->SendCommandGetValue("PX", handle, 1000);
    int notThere = missing.Connect();
    int noDevice = unreachable.Connect();
    bool shared = canopen.Device() == gateway->Device();
    canopen.Disconnect();
    bool upAfterFirst = gateway->Device()->IsUp();
    test::CLastWordListener last;
    gateway->AddListenerCom(&last);
    gateway.reset();
    for (int i = 0; i < 500 && peer.Ended() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    const std::string device = "127.0.0.1:" + std::to_string(peer.Port());
    EXPECT_EQ(0, found);
    EXPECT_EQ((std::vector<std::string>{"wait the connection " + device + " 1/1", "end",
                                        "wait the drive list " + device + " 1/1", "end",
                                        "wait opening CANopen Bus 1 NodeID 5 " + device + " 1/1", "end"}),
              waits);
    EXPECT_EQ(device + " CANopen Bus 1 NodeID 5", canopen.DeviceName());
    EXPECT_EQ(0, byNode); // a gateway descriptor without target text names the node
    EXPECT_EQ(1, notThere);
    EXPECT_FALSE(missing.IsConnected());
    EXPECT_EQ("The network device " + device
                  + " has no drive \"RS232 Port 9\"; it offers: RS232 Port 1, CANopen Bus 1 NodeID 5.",
              missing.GetConnectError());
    EXPECT_EQ(3, noDevice);
    EXPECT_EQ("Cannot connect to the network device 127.0.0.1:" + std::to_string(unreachable.Port())
                  + ": Connection refused",
              unreachable.GetConnectError());
    EXPECT_EQ("12", handle); // the gateway's drive is node 5's
    EXPECT_TRUE(last.bConnected); // destroyed, the link was still whole for its listener
    EXPECT_EQ("SR", last.sValue); // (the device echoes what it does not know)
    EXPECT_TRUE(shared);
    EXPECT_TRUE(upAfterFirst);
    EXPECT_EQ(1, peer.Accepted());
    EXPECT_EQ(1, peer.Ended()); // closed when the last link let go
    EXPECT_EQ(0u, CNetDevice::LiveCount());
}

TEST(TcpLink, ConnectFailuresSayWhichRequestFailedAndHow)
{
    // A device whose answer to one request (the list, or opening the
    // drive) is broken as named, and whose other answers are sound.
    auto device = [](std::string fault, std::uint32_t broken) {
        return [fault, broken](test::CPeerConnection& c, const NetFrameHeader& h, const std::string& body) {
            if (h.nFunctionId != broken)
                test::ScriptedDevice(c, h, body);
            else if (fault == "function")
                c.Reply(h.nFunctionId + 1, 0, {});
            else if (fault == "half")
                c.Write(NetEncodeHeader({8, h.nFunctionId, 0}).substr(0, 6));
            else if (fault == "huge")
                c.Write(NetEncodeHeader({0xFFFFFFFFu, h.nFunctionId, 0}));
            if (h.nFunctionId == broken && fault != "function" && fault != "silent")
                c.Abort();
        };
    };
    std::vector<std::string> errors;
    for (auto [fault, broken] : std::vector<std::pair<std::string, std::uint32_t>>{
             {"function", kNetFnListDrives}, {"half", kNetFnListDrives}, {"silent", kNetFnListDrives},
             {"huge", kNetFnOpenDrive}, {"closed", kNetFnOpenDrive}}) {
        test::CTcpScriptedPeer peer(device(fault, broken));
        CTCP link(TcpInfo("RS232 Port 1"), peer.Port());
        link.SetConnectTimeout(200);
        EXPECT_EQ(CTCP::kConnectNoDevice, link.Connect()) << fault;
        std::string where = "127.0.0.1:" + std::to_string(peer.Port());
        errors.push_back(link.GetConnectError());
        std::size_t at = errors.back().find(where);
        if (at != std::string::npos)
            errors.back().replace(at, where.size(), "HOST");
    }

    EXPECT_EQ((std::vector<std::string>{
                  "Listing the drives of the network device HOST failed: TCP/IP Communication broken. Not same "
                  "function ID.",
                  "Listing the drives of the network device HOST failed: TCP/IP Fault. The network device closed the "
                  "connection after 6 of the 12 header bytes.",
                  "Listing the drives of the network device HOST failed: TCP/IP Fault. No answer within 1000 ms.",
                  "Opening \"RS232 Port 1\" on the network device HOST failed: TCP/IP Fault. The network device "
                  "announced a reply of 4294967295 bytes, more than the 1048576 bytes allowed.",
                  "Opening \"RS232 Port 1\" on the network device HOST failed: TCP/IP Fault. The network device "
                  "closed the connection."}),
              errors);
}

TEST(TcpLink, LongCommandsGetTheirOwnTimeOutsWhateverTheCallerAsked)
{
    // Each request carries its time-out on the wire: the device notes them.
    std::mutex mutex;
    std::vector<std::string> seen;
    test::CTcpScriptedPeer peer([&](test::CPeerConnection& c, const NetFrameHeader& h, const std::string& body) {
        if (h.nFunctionId != kNetFnCommand && h.nFunctionId != kNetFnRawReply)
            return test::ScriptedDevice(c, h, body);
        const bool raw = h.nFunctionId == kNetFnRawReply;
        const std::string command = body.substr(raw ? 8 : 4);
        {
            std::lock_guard lock(mutex);
            seen.push_back(command + " " + std::to_string(NetGetU32(body.data())));
        }
        c.Reply(h.nFunctionId, 0, raw ? command + body[4] : "");
    });
    CTCP link(TcpInfo("RS232 Port 1"), peer.Port());
    ASSERT_EQ(0, link.Connect());
    link.SetProcessorType("DSP");
    std::string reply;

    for (auto [command, timeoutMs] : std::vector<std::pair<std::string, std::uint32_t>>{
             {"SG", 100}, {"SV", 60000}, {"BH=1", 60000}, {"bh=1", 100}, {"DL##MAIN\\", 100}, {"SGX", 123}})
        link.SendCommand(command, reply, timeoutMs, 0);
    link.SendCommandGetValue("SV", reply, 100);
    link.SendCommandGetValue("BH=2", reply, 60000);

    std::lock_guard lock(mutex);
    EXPECT_EQ((std::vector<std::string>{"SG\r 50000", "SV\r 50000", "BH=1\r 5000", "bh=1\r 5000",
                                        "DL##MAIN\\ 5000", "SGX\r 123", "SV 50000", "BH=2 5000"}),
              seen);
}

TEST(TcpLink, ValueSendThrowsSourceElevenAndRawPathRunsTheSharedTransaction)
{
    test::CTcpScriptedPeer peer(test::ScriptedDevice);
    CTCP link(TcpInfo("RS232 Port 1"), peer.Port());
    ASSERT_EQ(0, link.Connect());
    link.SetProcessorType("BreNol"); // a family that ends listings with 0x08
    std::string value;
    std::string reply;

    link.SendCommandGetValue("PX", value, 1000);
    auto known = Thrown([&] { link.SendCommandGetValue("MO=1", value, 1000); });
    auto unknown = Thrown([&] { link.SendCommandGetValue("MO=2", value, 1000); });
    auto refused = Thrown([&] { link.SendCommandGetValue("XX", value, 1000); });
    auto tooBig = Thrown([&] { link.SendCommandGetValue("big", value, 1000); });
    int identified = link.SendCommandGetReply("VR", reply, 1000);
    std::string version = reply;
    auto badData = Thrown([&] { link.SendCommand("PA", reply, 1000, 0); });
    auto timeOut = Thrown([&] { link.SendCommand("SR", reply, 1000, 0); });
    bool latched = link.IsTimeoutLatched();
    link.SendCommand("LS", reply, 1000, 1); // the device checks each raw request's terminator
    std::string listing = reply;

    EXPECT_EQ("11", value); // the device answers PX with the handle the request names
    EXPECT_EQ(-1, known.m_nErrorCode);
    EXPECT_EQ(kErrSrcTcpLink, known.m_nErrorSource);
    EXPECT_EQ(&link, known.m_pCom);
    // The tool's own text for errors it knows, the device's for the others.
    EXPECT_EQ("Error (5) :  'MO=1' : " + link.GetDriveErrorText(5) + " !", known.FillMessage());
    EXPECT_EQ("Error (250) :  'MO=2' : Brake not released !", unknown.FillMessage());
    EXPECT_EQ("the network device refused a malformed request: command too long", refused.FillMessage());
    EXPECT_EQ(COM_BUFFER_TOO_BIG, tooBig.m_nErrorCode); // the limit of the raw path and the serial line
    EXPECT_EQ("Input or Output Buffers larger then 8196 bytes", tooBig.FillMessage());
    EXPECT_EQ(0, identified);
    EXPECT_EQ("VR\rTalvina 1.2.3.4;", version);
    EXPECT_EQ(COM_BAD_DATA, badData.m_nErrorCode);
    EXPECT_EQ(COM_TIMEOUT, timeOut.m_nErrorCode);
    EXPECT_EQ(kErrSrcTransport, timeOut.m_nErrorSource);
    EXPECT_TRUE(latched);
    EXPECT_EQ(std::string("LS\rline;\x08", 9), listing);
    EXPECT_FALSE(link.IsTimeoutLatched());
}

} // namespace
} // namespace tessitor
