// The SocketCAN adapter on a real CAN interface (vcan0, or $TESSITOR_VCAN).
// Kernels without AF_CAN skip these: scripts/socketcan-qemu.sh runs them in
// a virtual machine booted from Debian's kernel, which has it.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <net/if.h>
#include <thread>

#include "can/adapter/socketcanadapter.h"
#include "can/can.h"
#include "can/sdoprotocol.h"
#include "tests/can/scriptedcan.h"
#include "tests/can/sdoresponder.h"
#include "tests/support/process.h"

using namespace tessitor;
using namespace tessitor::test;

namespace {

constexpr std::uint8_t kNode = 5;

std::string Interface()
{
    const char* name = std::getenv("TESSITOR_VCAN");
    return name && *name ? name : "vcan0";
}

CanFrame Frame(std::uint32_t id, const sdo::Frame& data)
{
    return MakeCanFrame(id, data.data(), 8);
}

// The test's SDO server of node 5 on its own socket.
class CBusServer : public CSdoResponder {
public:
    explicit CBusServer(std::map<std::uint32_t, std::string> objects)
        : CSdoResponder(std::move(objects)), m_Adapter(Interface())
    {
        m_Adapter.AttachNode(0);
        if (m_Adapter.Open(7) != 0)
            throw std::runtime_error(m_Adapter.LastError());
        m_Thread = std::thread([this] {
            while (!m_bStop) {
                CanFrame in;
                if (m_Adapter.ReceiveFrame(kCobSdoRequest, kNode, in, 50) != COM_OK)
                    continue;
                if (auto out = Answer(in.abData))
                    m_Adapter.SendFrame(Frame(kCobSdoResponse + kNode, *out));
            }
        });
    }
    ~CBusServer()
    {
        m_bStop = true;
        m_Thread.join();
        m_Adapter.Close();
    }

private:
    CSocketCanAdapter m_Adapter;
    std::atomic<bool> m_bStop{false};
    std::thread m_Thread;
};

class SocketCan : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!CSocketCanAdapter::Available())
            GTEST_SKIP() << "this kernel has no AF_CAN: the SocketCAN tests run in the qemu tier "
                            "(scripts/socketcan-qemu.sh)";
        if (::if_nametoindex(Interface().c_str()) == 0)
            GTEST_SKIP() << "no CAN interface " << Interface() << " (ip link add dev vcan0 type vcan)";
    }

    static CCommunicationInfo Info()
    {
        CCommunicationInfo info = SlcanInfo(Interface(), kNode);
        info.sManufacture = "SocketCAN";
        return info;
    }
};

} // namespace

TEST_F(SocketCan, FramesCrossTheBusAndTheFilterKeepsOtherNodesOut)
{
    CSocketCanAdapter client(Interface()), bus(Interface());
    client.AttachNode(kNode);
    ASSERT_EQ(client.Open(7), 0) << client.LastError();
    ASSERT_EQ(bus.Open(7), 0) << bus.LastError();
    std::atomic<int> seen{0};
    client.AddMonitor([&seen](const CanFrame&, bool bSent) { seen += bSent ? 0 : 1; });

    ASSERT_EQ(bus.SendFrame(Frame(0x586, {0x43})), COM_OK);
    ASSERT_EQ(bus.SendFrame(Frame(0x285, {1, 2, 3})), COM_OK);
    ASSERT_EQ(bus.SendFrame(Frame(0x585, {0x60, 0x00, 0x10})), COM_OK);

    CanFrame frame;
    ASSERT_EQ(client.ReceiveFrame(kCobSdoResponse, kNode, frame, 5000), COM_OK);
    EXPECT_EQ(frame, Frame(0x585, {0x60, 0x00, 0x10}));
    ASSERT_EQ(client.ReceiveFrame(kCobTpdo2, kNode, frame, 5000), COM_OK);
    EXPECT_EQ(frame.abData[2], 3);
    EXPECT_EQ(client.ReceiveFrame(kCobSdoResponse, 6, frame, 200), COM_TIMEOUT);
    EXPECT_EQ(seen, 2) << "node 6's frame never reached the client";

    CSocketCanAdapter missing("nosuchcan7");
    EXPECT_EQ(missing.Open(7), ENODEV);
    EXPECT_EQ(missing.LastError(), "no CAN interface of that name");
}

TEST_F(SocketCan, LinkReadsAndWritesObjectsOfANodeOnTheBus)
{
    CBusServer server({{0x100800, "Ortiva vcan drive"}});
    CCan link(Info());
    ASSERT_EQ(link.Connect(), 0) << link.GetConnectError();

    std::string name;
    link.SdoUpload(0x1008, 0, name, 5000);
    link.SdoDownload(0x2000, 1, "fourteen bytes", 5000);
    link.SdoDownload(0x2000, 2, "ab", 5000);

    EXPECT_EQ(name, "Ortiva vcan drive");
    EXPECT_EQ(server.Object(0x2000, 1), "fourteen bytes");
    EXPECT_EQ(server.Object(0x2000, 2), "ab");
    try {
        link.SdoUpload(0x1009, 0, name, 5000);
        ADD_FAILURE() << "no abort";
    } catch (CCommunication::CExceptionComm& e) {
        EXPECT_EQ(e.FillMessage(), "SDO Abort:\nObject does not exist in the object dictionary.");
    }
}

TEST_F(SocketCan, TessitorSdoSessionWithANodeInAnotherProcess)
{
    CBusServer server({{0x100800, "Ortiva vcan drive"}, {0x100000, std::string("\x92\x01\x02\x00", 4)}});
    const std::string can = "socketcan:" + Interface();

    auto run = [](const std::string& adapter, std::vector<std::string> args) {
        args.insert(args.begin(), {TessitorPath(), "--can", adapter, "--node", "5"});
        return RunProcess(args, {"TESSITOR_CONFIG=/tmp/tessitor-socketcan.ini"});
    };

    ProcessResult up = run(can, {"sdo", "upload", "0x1008", "0"});
    ProcessResult hex = run(can, {"--trace-frames", "sdo", "upload", "--hex", "4096", "0"});
    ProcessResult down = run(can, {"sdo", "download", "0x2000", "0", "written over vcan"});
    ProcessResult missing = run("socketcan:nosuchcan7", {"sdo", "upload", "0x1008", "0"});

    EXPECT_EQ(up.nStatus, 0) << up.sErr;
    EXPECT_EQ(up.sOut, "Ortiva vcan drive\n");
    EXPECT_EQ(hex.sOut, "92010200\n") << hex.sErr;
    EXPECT_NE(hex.sErr.find("TX 605#4000100000000000"), std::string::npos) << hex.sErr;
    EXPECT_EQ(down.nStatus, 0) << down.sErr;
    EXPECT_EQ(server.Object(0x2000, 0), "written over vcan");
    EXPECT_EQ(missing.nStatus, 1);
    EXPECT_EQ(missing.sErr, "Create Communication Device Fault. socketcan:nosuchcan7: no CAN interface of that name\n");
}
