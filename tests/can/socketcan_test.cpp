// The SocketCAN adapter on a real CAN interface (vcan0, or $TESSITOR_VCAN).
// Kernels without AF_CAN skip these: scripts/socketcan-qemu.sh runs them in
// a virtual machine booted from Debian's kernel, which has it.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <net/if.h>
#include <thread>

#include "can/adapter/socketcanadapter.h"
#include "can/can.h"
#include "can/sdoprotocol.h"
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

// A CiA 301 SDO server for one node on its own socket: objects by index and
// sub-index, expedited and segmented both ways; anything else is aborted.
class CBusServer {
public:
    explicit CBusServer(std::map<std::uint32_t, std::string> objects)
        : m_Adapter(Interface()), m_mapObjects(std::move(objects))
    {
        m_Adapter.AttachNode(0);
        if (m_Adapter.Open(7) != 0)
            throw std::runtime_error(m_Adapter.LastError());
        m_Thread = std::thread([this] { Serve(); });
    }
    ~CBusServer()
    {
        m_bStop = true;
        m_Thread.join();
        m_Adapter.Close();
    }
    std::string Object(std::uint16_t index, std::uint8_t sub)
    {
        std::lock_guard lock(m_csObjects);
        return m_mapObjects[Key(index, sub)];
    }

private:
    static std::uint32_t Key(std::uint16_t index, std::uint8_t sub) { return static_cast<std::uint32_t>(index) << 8 | sub; }

    void Reply(const sdo::Frame& f) { m_Adapter.SendFrame(Frame(kCobSdoResponse + kNode, f)); }

    void Serve()
    {
        std::string upload, download;
        std::uint32_t key = 0;
        while (!m_bStop) {
            CanFrame in;
            if (m_Adapter.ReceiveFrame(kCobSdoRequest, kNode, in, 50) != COM_OK)
                continue;
            const sdo::Frame& f = in.abData;
            sdo::Frame out{};
            std::copy(f.begin() + 1, f.begin() + 4, out.begin() + 1);
            switch (sdo::Specifier(f[0])) {
            case sdo::kCcsInitUpload: {
                key = Key(sdo::Index(f), sdo::SubIndex(f));
                std::lock_guard lock(m_csObjects);
                if (!m_mapObjects.count(key)) {
                    out[0] = sdo::kAbortCommand;
                    out[7] = 0x06, out[6] = 0x02;
                    break;
                }
                upload = m_mapObjects[key];
                out[0] = 0x41;
                out[4] = static_cast<std::uint8_t>(upload.size());
                break;
            }
            case sdo::kCcsUploadSegment: {
                std::size_t n = std::min<std::size_t>(7, upload.size());
                out = sdo::Frame{};
                out[0] = static_cast<std::uint8_t>((f[0] & 0x10) | (7 - n) << 1 | (n == upload.size() ? 1 : 0));
                std::copy(upload.begin(), upload.begin() + static_cast<long>(n), out.begin() + 1);
                upload.erase(0, n);
                break;
            }
            case sdo::kCcsInitDownload:
                key = Key(sdo::Index(f), sdo::SubIndex(f));
                download.clear();
                if (sdo::Expedited(f[0]))
                    Store(key, std::string(f.begin() + 4, f.begin() + 8 - sdo::InitUnused(f[0])));
                out[0] = 0x60;
                break;
            case sdo::kCcsDownloadSegment:
                download.append(f.begin() + 1, f.begin() + 8 - sdo::SegmentUnused(f[0]));
                if (sdo::LastSegment(f[0]))
                    Store(key, download);
                out = sdo::Frame{static_cast<std::uint8_t>(0x20 | (f[0] & 0x10))};
                break;
            default:
                continue;
            }
            Reply(out);
        }
    }
    void Store(std::uint32_t key, const std::string& value)
    {
        std::lock_guard lock(m_csObjects);
        m_mapObjects[key] = value;
    }

    CSocketCanAdapter m_Adapter;
    std::mutex m_csObjects;
    std::map<std::uint32_t, std::string> m_mapObjects;
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
        CCommunicationInfo info;
        info.m_sCommType = "CAN";
        info.sManufacture = "SocketCAN";
        info.sBoardType = Interface();
        info.mNodeID = kNode;
        info.mBaudRateIndex = 7;
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
    ASSERT_EQ(link.Connect(), 0) << link.ConnectError();

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

    ProcessResult up = RunProcess({TessitorPath(), "--can", can, "--node", "5", "sdo", "upload", "0x1008", "0"},
                                  {"TESSITOR_CONFIG=/tmp/tessitor-socketcan.ini"});
    ProcessResult hex = RunProcess(
        {TessitorPath(), "--can", can, "--node", "5", "--trace-frames", "sdo", "upload", "--hex", "4096", "0"},
        {"TESSITOR_CONFIG=/tmp/tessitor-socketcan.ini"});
    ProcessResult down = RunProcess({TessitorPath(), "--can", can, "--node", "5", "sdo", "download", "0x2000", "0",
                                     "written over vcan"},
                                    {"TESSITOR_CONFIG=/tmp/tessitor-socketcan.ini"});
    ProcessResult missing = RunProcess({TessitorPath(), "--can", "socketcan:nosuchcan7", "--node", "5", "sdo",
                                        "upload", "0x1008", "0"},
                                       {"TESSITOR_CONFIG=/tmp/tessitor-socketcan.ini"});

    EXPECT_EQ(up.nStatus, 0) << up.sErr;
    EXPECT_EQ(up.sOut, "Ortiva vcan drive\n");
    EXPECT_EQ(hex.sOut, "92010200\n") << hex.sErr;
    EXPECT_NE(hex.sErr.find("TX 605#4000100000000000"), std::string::npos) << hex.sErr;
    EXPECT_EQ(down.nStatus, 0) << down.sErr;
    EXPECT_EQ(server.Object(0x2000, 0), "written over vcan");
    EXPECT_EQ(missing.nStatus, 1);
    EXPECT_EQ(missing.sErr, "Create Communication Device Fault. socketcan:nosuchcan7: no CAN interface of that name\n");
}
