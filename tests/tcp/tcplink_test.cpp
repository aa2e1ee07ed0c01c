// The TCP link against a scripted network device: connect results, how the
// device's refusals reach the caller, the raw path under the shared
// transaction, and one shared connection per device address.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "communication/linkfactory.h"
#include "communication/tcp.h"
#include "core/settings.h"
#include "tests/tcp/tcppeer.h"

namespace tessitor {
namespace {

using test::CPeerConnection;
using test::CTcpScriptedPeer;

// Answers list, open and close like a device with two drives, and hands
// command and raw requests to handle (header, payload) -> reply written.
using RequestHandler = std::function<void(CPeerConnection&, const NetFrameHeader&, const std::string&)>;

std::mutex g_csOpened;

CTcpScriptedPeer::Script Device(RequestHandler handle, std::vector<std::string>* opened = nullptr)
{
    return [handle, opened](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        while (c.ReadFrame(header, payload)) {
            switch (header.nFunctionId) {
            case kNetFnListDrives:
                c.Reply(header.nFunctionId, 0,
                        NetDriveListPayload({{kNetDriveSerial, "RS232 Port 1"},
                                             {kNetDriveCanopen, "CANopen Bus 1 NodeID 5"}}));
                break;
            case kNetFnOpenDrive: {
                if (opened) {
                    std::lock_guard lock(g_csOpened);
                    opened->push_back(payload);
                }
                std::string handle32;
                NetPutU32(handle32, payload == "RS232 Port 1" ? 11 : 12);
                c.Reply(header.nFunctionId, 0, handle32);
                break;
            }
            case kNetFnCloseDrive:
                c.Reply(header.nFunctionId, 0, {});
                break;
            default:
                handle(c, header, payload);
            }
        }
    };
}

CCommunicationInfo TcpInfo(const std::string& target)
{
    CCommunicationInfo info;
    info.m_sCommType = "TCP";
    info.abIP = {127, 0, 0, 1};
    info.sDesc = target;
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

TEST(TcpLink, ConnectOpensTheDriveNamedByTheTargetAndReportsThreeOrOne)
{
    std::vector<std::string> opened;
    CTcpScriptedPeer peer(Device([](CPeerConnection&, const NetFrameHeader&, const std::string&) {}, &opened));
    std::uint16_t closedPort = 0;
    {
        CTcpScriptedPeer gone(Device({}));
        closedPort = gone.Port();
    }
    CTCP canopen(TcpInfo("CANopen Bus 1 NodeID 5"), peer.Port());
    CTCP missing(TcpInfo("RS232 Port 9"), peer.Port());
    CTCP unreachable(TcpInfo("RS232 Port 1"), closedPort);
    CCommunicationInfo kmas = TcpInfo("");
    kmas.m_sCommType = "TCP_KMAS";
    kmas.mNodeID = 5;
    CTCP gateway(kmas, peer.Port());

    int found = canopen.Connect();
    int byNode = gateway.Connect();
    int notThere = missing.Connect();
    int noDevice = unreachable.Connect();

    EXPECT_EQ(0, found);
    EXPECT_TRUE(canopen.IsConnected());
    EXPECT_EQ(0, byNode); // a gateway descriptor without target text names the node
    EXPECT_EQ(1, notThere);
    EXPECT_FALSE(missing.IsConnected());
    EXPECT_EQ(3, noDevice);
    std::lock_guard lock(g_csOpened);
    EXPECT_EQ((std::vector<std::string>{"CANopen Bus 1 NodeID 5", "CANopen Bus 1 NodeID 5"}), opened);
    EXPECT_EQ(1, peer.Accepted()); // both links to the device shared one connection
}

TEST(TcpLink, ValueSendThrowsSourceElevenWithTheDevicesText)
{
    CTcpScriptedPeer peer(Device([](CPeerConnection& c, const NetFrameHeader& h, const std::string& payload) {
        std::string command = payload.substr(4);
        if (command == "PX")
            c.Reply(h.nFunctionId, 0, "1234");
        else if (command == "MO=1")
            c.Reply(h.nFunctionId, kNetStatusDriveError | 5, "device text");
        else if (command == "MO=2")
            c.Reply(h.nFunctionId, kNetStatusDriveError | 250, "Brake not released");
        else
            c.Reply(h.nFunctionId, kNetStatusBadRequest, "command too long");
    }));
    CTCP link(TcpInfo("RS232 Port 1"), peer.Port());
    ASSERT_EQ(0, link.Connect());
    std::string value;

    link.SendCommandGetValue("PX", value, 1000);
    auto known = Thrown([&] { link.SendCommandGetValue("MO=1", value, 1000); });
    auto unknown = Thrown([&] { link.SendCommandGetValue("MO=2", value, 1000); });
    auto refused = Thrown([&] { link.SendCommandGetValue("XX", value, 1000); });

    EXPECT_EQ("1234", value);
    EXPECT_EQ(-1, known.m_nErrorCode);
    EXPECT_EQ(kErrSrcTcpLink, known.m_nErrorSource);
    EXPECT_EQ(&link, known.m_pCom);
    // The tool's own text for errors it knows, the device's for the others.
    EXPECT_EQ("Error (5) :  'MO=1' : " + link.GetDriveErrorText(5) + " !", known.FillMessage());
    EXPECT_EQ("Error (250) :  'MO=2' : Brake not released !", unknown.FillMessage());
    EXPECT_EQ("the network device refused a malformed request: command too long", refused.FillMessage());
}

TEST(TcpLink, RawPathRunsTheSharedTransactionWithItsChecks)
{
    std::mutex seenLock;
    std::vector<std::string> wires;
    CTcpScriptedPeer peer(Device([&](CPeerConnection& c, const NetFrameHeader& h, const std::string& payload) {
        std::uint32_t terminator = NetGetU32(payload.data() + 4);
        std::string wire = payload.substr(8);
        {
            std::lock_guard lock(seenLock);
            wires.push_back(wire + "|" + std::to_string(terminator));
        }
        if (wire == "VR\r")
            c.Reply(h.nFunctionId, 0, "VR\rTalvina 1.2.3.4;");
        else if (wire == "PA\r")
            c.Reply(h.nFunctionId, 0, "PA\r5"); // no terminator
        else if (wire == "SR\r")
            c.Reply(h.nFunctionId, 1, "SR\r");  // the drive never finished
        else if (wire == "LS\r")
            c.Reply(h.nFunctionId, 0, std::string("LS\rline;\x08", 9));
        else
            c.Reply(h.nFunctionId + 1, 0, "stale");
    }));
    CTCP link(TcpInfo("RS232 Port 1"), peer.Port());
    ASSERT_EQ(0, link.Connect());
    link.SetProcessorType("BreNol"); // a family that ends listings with 0x08
    std::string reply;

    int identified = link.SendCommandGetReply("VR", reply, 1000);
    std::string version = reply;
    auto badData = Thrown([&] { link.SendCommand("PA", reply, 1000, 0); });
    auto timeOut = Thrown([&] { link.SendCommand("SR", reply, 1000, 0); });
    bool latched = link.IsTimeoutLatched();
    link.SendCommand("LS", reply, 1000, 1);
    std::string listing = reply;
    int stale = link.SendCommandGetReply("UM", reply, 1000);

    EXPECT_EQ(0, identified);
    EXPECT_EQ("VR\rTalvina 1.2.3.4;", version);
    EXPECT_EQ(COM_BAD_DATA, badData.m_nErrorCode);
    EXPECT_EQ(COM_TIMEOUT, timeOut.m_nErrorCode);
    EXPECT_EQ(kErrSrcTransport, timeOut.m_nErrorSource);
    EXPECT_TRUE(latched);
    EXPECT_EQ(std::string("LS\rline;\x08", 9), listing);
    EXPECT_FALSE(link.IsTimeoutLatched());
    EXPECT_EQ(-2, stale);
    std::lock_guard lock(seenLock);
    ASSERT_EQ(5u, wires.size());
    EXPECT_EQ("VR\r|59", wires[0]);
    EXPECT_EQ("LS\r|8", wires[3]); // the listing waits for 0x08, then ";" again
    EXPECT_EQ("UM\r|59", wires[4]);
}

TEST(TcpLink, OneConnectionPerDeviceSharedAndClosedWithTheLastLink)
{
    std::atomic<int> closes{0};
    CTcpScriptedPeer peer([&](CPeerConnection& c) {
        Device([](CPeerConnection&, const NetFrameHeader&, const std::string&) {})(c);
        ++closes;
    });
    LinkOptions options;
    options.wTcpPort = peer.Port();
    auto first = CreateLink(TcpInfo("RS232 Port 1"), options);
    auto second = CreateLink(TcpInfo("CANopen Bus 1 NodeID 5"), options);
    ASSERT_EQ(0, first->Connect());
    ASSERT_EQ(0, second->Connect());
    auto* tcp = dynamic_cast<CTCP*>(first.get());
    ASSERT_NE(nullptr, tcp);
    bool shared = tcp->Device() == dynamic_cast<CTCP*>(second.get())->Device();

    first->Disconnect();
    bool upAfterFirst = dynamic_cast<CTCP*>(second.get())->Device()->IsUp();
    second.reset();
    for (int i = 0; i < 500 && closes == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    EXPECT_TRUE(shared);
    EXPECT_EQ(1, peer.Accepted());
    EXPECT_TRUE(upAfterFirst);
    EXPECT_EQ(1, closes.load());
    EXPECT_EQ(0u, CNetDevice::LiveCount());
}

TEST(TcpLink, PortComesFromTheCallerThenSettingsThenTheDefault)
{
    std::string path = ::testing::TempDir() + "tcp_port_settings.ini";
    std::remove(path.c_str());
    ::setenv("TESSITOR_CONFIG", path.c_str(), 1);

    std::uint16_t unset = ResolveTcpPort(0);
    Settings settings(path);
    settings.Set("TCP", "Port", "40001");
    ASSERT_TRUE(settings.Save());
    std::uint16_t configured = ResolveTcpPort(0);
    std::uint16_t given = ResolveTcpPort(1234);
    settings.Set("TCP", "Port", "70000");
    ASSERT_TRUE(settings.Save());
    std::uint16_t outOfRange = ResolveTcpPort(0);
    ::unsetenv("TESSITOR_CONFIG");
    std::remove(path.c_str());

    EXPECT_EQ(kDefaultTcpPort, unset);
    EXPECT_EQ(40001, configured);
    EXPECT_EQ(1234, given);
    EXPECT_EQ(kDefaultTcpPort, outOfRange);
}

} // namespace
} // namespace tessitor
