// The frame codec and both socket exchanges against scripted peers on
// loopback: every failure text, the function-ID checks, the 16-bit capacity,
// the five-times first-byte wait, draining and the payload cap.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "communication/communication.h"
#include "communication/socketcom.h"
#include "tests/tcp/tcppeer.h"

namespace tessitor {
namespace {

using test::CPeerConnection;
using test::CTcpScriptedPeer;
using Clock = std::chrono::steady_clock;

constexpr char kTextSendDropped[] =
    " The TCP/IP connection has been dropped, because of a network failure or because the system on the other "
    "end went down without notice.";
constexpr char kTextTimeout[] = "TCP/IP Timeout.The network system has failed. Please check wiring";
constexpr char kTextHeaderDropped[] =
    " The TCP/IP connection has been dropped because of a network failure or because the peer system failed to "
    "respond.";
constexpr char kTextPayloadDropped[] =
    "The TCP/IP connection has been dropped because of a network failure or because the peer system failed to "
    "respond.";

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

struct Reply {
    bool bHanded = false;
    std::string sPayload;
};

Reply Timed(CSocketCom& socket, std::uint32_t functionId, const std::string& payload, std::uint32_t timeoutMs = 2000,
            std::uint32_t replyFunctionId = 0)
{
    std::string frame = NetBuildFrame(functionId, 0, payload);
    const std::uint8_t* data = nullptr;
    std::uint32_t length = 0;
    Reply reply;
    reply.bHanded =
        socket.Exchange(replyFunctionId ? replyFunctionId : functionId, frame.data(), frame.size(), &data, &length,
                        timeoutMs);
    if (data)
        reply.sPayload.assign(reinterpret_cast<const char*>(data), length);
    return reply;
}

void Connect(CSocketCom& socket, const CTcpScriptedPeer& peer)
{
    ASSERT_EQ(0, socket.Open("127.0.0.1", peer.Port(), 5000));
}

TEST(NetFrame, HeaderIsThreeLittleEndianWordsAndListsParseStrictly)
{
    std::string frame = NetBuildFrame(0x04030201, 0xA0B0C0D0, "xy");

    EXPECT_EQ(std::string("\x02\0\0\0\x01\x02\x03\x04\xD0\xC0\xB0\xA0xy", 14), frame);
    NetFrameHeader header = NetDecodeHeader(frame.data());
    EXPECT_EQ(2u, header.nLength);
    EXPECT_EQ(0x04030201u, header.nFunctionId);
    EXPECT_EQ(0xA0B0C0D0u, header.nWord3);

    std::vector<NetDriveEntry> drives = {{kNetDriveSerial, "RS232 Port 1"}, {kNetDriveCanopen, "CANopen Bus 1 NodeID 5"}};
    std::string list = NetDriveListPayload(drives);
    std::uint32_t version = 0;
    auto parsed = NetParseDriveList(list, &version);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(drives, *parsed);
    EXPECT_EQ(kNetProtocolVersion, version);

    EXPECT_FALSE(NetParseDriveList(list.substr(0, list.size() - 1)));          // cut
    EXPECT_FALSE(NetParseDriveList(list + "z"));                               // left over
    EXPECT_FALSE(NetParseDriveList(std::string("\1\0\0\0\xFF\xFF\xFF\x0F", 8))); // hostile count
    std::string longName = NetDriveListPayload({{kNetDriveSerial, std::string(kNetMaxNameBytes + 1, 'n')}});
    EXPECT_FALSE(NetParseDriveList(longName));
    EXPECT_FALSE(NetParseDriveList("abc"));
}

TEST(SocketComTimed, ReplyIsHandedOutAndCapacityKeepsSixteenBits)
{
    std::string seen;
    CTcpScriptedPeer peer([&](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        seen = NetEncodeHeader(header) + payload;
        c.Reply(header.nFunctionId, 7, "abc");
        c.ReadFrame(header, payload);
        c.Reply(header.nFunctionId, 0, std::string(70000, 'w'));
        c.ReadFrame(header, payload);
        c.Reply(header.nFunctionId, 0, std::string());
    });
    CSocketCom socket;
    Connect(socket, peer);

    Reply first = Timed(socket, kNetFnCommand, "PX");
    std::uint16_t capacityAfterSmall = socket.Capacity();
    Reply big = Timed(socket, kNetFnCommand, "BH");
    Reply empty = Timed(socket, kNetFnCommand, "MO=1");

    EXPECT_EQ(NetBuildFrame(kNetFnCommand, 0, "PX"), seen);
    EXPECT_TRUE(first.bHanded);
    EXPECT_EQ("abc", first.sPayload);
    EXPECT_EQ(3, capacityAfterSmall);
    ASSERT_TRUE(big.bHanded);
    EXPECT_EQ(std::string(70000, 'w'), big.sPayload);
    EXPECT_EQ(70000 - 65536, socket.Capacity()); // wrapped, as the 16-bit count always did
    EXPECT_TRUE(empty.bHanded);
    EXPECT_EQ("", empty.sPayload);
    EXPECT_EQ(0u, socket.LastReplyHeader().nWord3);
}

TEST(SocketComTimed, ReplyToAnotherFunctionIsNotHandedOutAndNextExchangeStaysInStep)
{
    CTcpScriptedPeer peer([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Reply(header.nFunctionId + 1, 0, "stale");
        c.ReadFrame(header, payload);
        c.Reply(header.nFunctionId, 0, "fresh");
    });
    CSocketCom socket;
    Connect(socket, peer);

    Reply other = Timed(socket, kNetFnCommand, "PX");
    Reply next = Timed(socket, kNetFnCommand, "PX");

    EXPECT_FALSE(other.bHanded);
    EXPECT_EQ("", other.sPayload);
    EXPECT_TRUE(next.bHanded);
    EXPECT_EQ("fresh", next.sPayload);
}

TEST(SocketComTimed, FirstReplyByteMayTakeFiveTimesTheTimeOut)
{
    CTcpScriptedPeer late([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        std::this_thread::sleep_for(std::chrono::milliseconds(600)); // 3 x the time-out
        c.Reply(header.nFunctionId, 0, "late");
    });
    CTcpScriptedPeer silent([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
    });
    CSocketCom lateSocket;
    CSocketCom silentSocket;
    Connect(lateSocket, late);
    Connect(silentSocket, silent);

    Reply reply = Timed(lateSocket, kNetFnCommand, "PX", 200);
    auto start = Clock::now();
    auto e = Thrown([&] { Timed(silentSocket, kNetFnCommand, "PX", 200); });
    auto waited = Clock::now() - start;

    EXPECT_EQ("late", reply.sPayload);
    EXPECT_EQ(kErrSrcTcp, e.m_nErrorSource);
    EXPECT_EQ(kTextTimeout, e.m_sMessage);
    EXPECT_GE(waited, std::chrono::milliseconds(950));
    EXPECT_FALSE(silentSocket.IsOpen()); // a late reply must never pass for the next one
    EXPECT_FALSE(Timed(silentSocket, kNetFnCommand, "PX").bHanded);
}

TEST(SocketComTimed, CutFramesThrowTheirDroppedTexts)
{
    CTcpScriptedPeer halfThenClose([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Write(NetEncodeHeader({4, header.nFunctionId, 0}).substr(0, 6));
        c.Abort();
    });
    CTcpScriptedPeer halfThenSilence([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Write(NetEncodeHeader({4, header.nFunctionId, 0}).substr(0, 6));
    });
    CTcpScriptedPeer cutPayload([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Write(NetEncodeHeader({100, header.nFunctionId, 0}) + std::string(40, 'p'));
        c.Abort();
    });
    CSocketCom a, b, d;
    Connect(a, halfThenClose);
    Connect(b, halfThenSilence);
    Connect(d, cutPayload);

    auto closed = Thrown([&] { Timed(a, kNetFnCommand, "PX"); });
    auto silent = Thrown([&] { Timed(b, kNetFnCommand, "PX", 100); });
    auto cut = Thrown([&] { Timed(d, kNetFnCommand, "PX"); });

    EXPECT_EQ(kTextHeaderDropped, closed.m_sMessage);
    EXPECT_EQ(kTextHeaderDropped, silent.m_sMessage);
    EXPECT_EQ(kTextPayloadDropped, cut.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, cut.m_nErrorSource);
    EXPECT_FALSE(d.IsOpen());
}

TEST(SocketCom, AnnouncedPayloadAboveTheCapIsRefusedByBothExchanges)
{
    auto hostile = [](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Write(NetEncodeHeader({0xFFFFFFF0u, header.nFunctionId, 0}) + std::string(64, 'h'));
    };
    CTcpScriptedPeer first(hostile);
    CTcpScriptedPeer second(hostile);
    CSocketCom timed, buffered;
    Connect(timed, first);
    Connect(buffered, second);
    std::string frame = NetBuildFrame(kNetFnListDrives, 0, {});
    char buffer[16];

    auto e1 = Thrown([&] { Timed(timed, kNetFnCommand, "PX"); });
    auto e2 = Thrown([&] { buffered.Exchange(frame.data(), frame.size(), buffer, sizeof buffer); });

    EXPECT_EQ("TCP/IP Fault. The network device announced a reply of 4294967280 bytes, more than the 1048576 bytes "
              "allowed.",
              e1.m_sMessage);
    EXPECT_EQ(e1.m_sMessage, e2.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, e2.m_nErrorSource);
    EXPECT_FALSE(timed.IsOpen());
    EXPECT_FALSE(buffered.IsOpen());
}

// System-call seam: what the fakes below do on their next calls.
struct SeamState {
    int nSendFailures = 0;   ///< sends that fail with EPIPE
    int nInterrupts = 0;     ///< each call kind fails once with EINTR while > 0
    bool bOneByteSends = false;
    std::vector<std::size_t> arRecvAsked;
};
SeamState g_Seam;

ssize_t SeamSend(int fd, const void* data, size_t length, int flags)
{
    if (g_Seam.nSendFailures > 0) {
        --g_Seam.nSendFailures;
        errno = EPIPE;
        return -1;
    }
    if (g_Seam.nInterrupts > 0) {
        --g_Seam.nInterrupts;
        errno = EINTR;
        return -1;
    }
    return ::send(fd, data, g_Seam.bOneByteSends ? 1 : length, flags);
}

ssize_t SeamRecv(int fd, void* data, size_t length, int flags)
{
    g_Seam.arRecvAsked.push_back(length);
    if (g_Seam.nInterrupts > 0) {
        --g_Seam.nInterrupts;
        errno = EINTR;
        return -1;
    }
    return ::recv(fd, data, length, flags);
}

int SeamPoll(pollfd* fds, nfds_t count, int timeoutMs)
{
    if (g_Seam.nInterrupts > 0) {
        --g_Seam.nInterrupts;
        errno = EINTR;
        return -1;
    }
    return ::poll(fds, count, timeoutMs);
}

const CSocketCom::Syscalls kSeam = {SeamSend, SeamRecv, SeamPoll};

void Echoing(CPeerConnection& c)
{
    NetFrameHeader header;
    std::string payload;
    while (c.ReadFrame(header, payload))
        c.Reply(header.nFunctionId, 0, payload);
}

TEST(SocketCom, FailedSendsThrowEachExchangesText)
{
    CTcpScriptedPeer peer(Echoing);
    CSocketCom timed, buffered;
    Connect(timed, peer);
    Connect(buffered, peer);
    timed.SetSyscalls(kSeam);
    buffered.SetSyscalls(kSeam);
    std::string frame = NetBuildFrame(kNetFnListDrives, 0, "ab");
    char buffer[16];

    g_Seam = {};
    g_Seam.nSendFailures = 1;
    auto e1 = Thrown([&] { Timed(timed, kNetFnCommand, "PX"); });
    g_Seam.nSendFailures = 1;
    auto e2 = Thrown([&] { buffered.Exchange(frame.data(), frame.size(), buffer, sizeof buffer); });

    EXPECT_EQ(kTextSendDropped, e1.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, e1.m_nErrorSource);
    EXPECT_EQ("TCP/IP Fault.", e2.m_sMessage);
}

TEST(SocketCom, InterruptedAndShortCallsAreCarriedOn)
{
    CTcpScriptedPeer peer(Echoing);
    CSocketCom socket;
    Connect(socket, peer);
    socket.SetSyscalls(kSeam);
    g_Seam = {};
    g_Seam.bOneByteSends = true;

    g_Seam.nInterrupts = 3;
    Reply reply = Timed(socket, kNetFnCommand, "KP[2]=5");
    g_Seam.nInterrupts = 3;
    std::string frame = NetBuildFrame(kNetFnOpenDrive, 0, "RS232 Port 1");
    char buffer[64];
    std::int32_t length = socket.Exchange(frame.data(), frame.size(), buffer, sizeof buffer);

    EXPECT_EQ("KP[2]=5", reply.sPayload);
    ASSERT_EQ(12, length);
    EXPECT_EQ("RS232 Port 1", std::string(buffer, 12));
    socket.SetSyscalls(CSocketCom::kSystem);
}

TEST(SocketComBuffer, OversizedReplyIsDrainedInSmallPiecesAndTheNextFrameIsIntact)
{
    CTcpScriptedPeer peer([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Reply(header.nFunctionId, 0, std::string(1000, 'd'));
        c.ReadFrame(header, payload);
        c.Reply(header.nFunctionId, 3, "next");
    });
    CSocketCom socket;
    Connect(socket, peer);
    socket.SetSyscalls(kSeam);
    g_Seam = {};
    std::string frame = NetBuildFrame(kNetFnListDrives, 0, {});
    char buffer[100];

    std::int32_t drained = socket.Exchange(frame.data(), frame.size(), buffer, sizeof buffer);
    std::vector<std::size_t> asked = g_Seam.arRecvAsked;
    std::int32_t next = socket.Exchange(frame.data(), frame.size(), buffer, sizeof buffer);

    EXPECT_EQ(E_OUTOFMEMORY, drained);
    ASSERT_GT(asked.size(), 8u); // the header, then 1000 bytes in pieces
    for (std::size_t i = 1; i < asked.size(); ++i)
        EXPECT_LE(asked[i], CSocketCom::kDrainPieceBytes);
    ASSERT_EQ(4, next);
    EXPECT_EQ("next", std::string(buffer, 4));
    EXPECT_EQ(3u, socket.LastReplyHeader().nWord3);
}

TEST(SocketComBuffer, OtherFunctionIdAndCutFramesThrowTheirTexts)
{
    CTcpScriptedPeer other([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Reply(header.nFunctionId + 7, 0, "x");
        c.ReadFrame(header, payload);
        c.Reply(header.nFunctionId, 0, "y");
    });
    CTcpScriptedPeer half([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Write(std::string("\x05\0\0", 3));
        c.Abort();
    });
    CTcpScriptedPeer cut([](CPeerConnection& c) {
        NetFrameHeader header;
        std::string payload;
        c.ReadFrame(header, payload);
        c.Write(NetEncodeHeader({50, header.nFunctionId, 0}) + "abc");
        c.Abort();
    });
    CSocketCom a, b, d;
    Connect(a, other);
    Connect(b, half);
    Connect(d, cut);
    std::string frame = NetBuildFrame(kNetFnOpenDrive, 0, "RS232 Port 1");
    char buffer[100];

    auto wrong = Thrown([&] { a.Exchange(frame.data(), frame.size(), buffer, sizeof buffer); });
    std::int32_t after = a.Exchange(frame.data(), frame.size(), buffer, sizeof buffer);
    auto halfHeader = Thrown([&] { b.Exchange(frame.data(), frame.size(), buffer, sizeof buffer); });
    auto cutPayload = Thrown([&] { d.Exchange(frame.data(), frame.size(), buffer, sizeof buffer); });

    EXPECT_EQ("TCP/IP Communication broken. Not same function ID.", wrong.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, wrong.m_nErrorSource);
    EXPECT_EQ(1, after);
    EXPECT_EQ("TCP/IP Fault.", halfHeader.m_sMessage);
    EXPECT_EQ("TCP/IP Fault.", cutPayload.m_sMessage);
}

TEST(SocketCom, ClosedOrUnreachableSocketIsReportedNotCrashed)
{
    int port = 0;
    {
        CTcpScriptedPeer gone(Echoing);
        port = gone.Port();
    }
    CSocketCom socket;
    std::string frame = NetBuildFrame(kNetFnListDrives, 0, {});
    char buffer[8];

    int error = socket.Open("127.0.0.1", static_cast<std::uint16_t>(port), 2000);
    int malformed = socket.Open("not.an.address", 1, 100);
    Reply nothing = Timed(socket, kNetFnCommand, "PX");
    auto e = Thrown([&] { socket.Exchange(frame.data(), frame.size(), buffer, sizeof buffer); });

    EXPECT_EQ(ECONNREFUSED, error);
    EXPECT_EQ(EINVAL, malformed);
    EXPECT_FALSE(nothing.bHanded);
    EXPECT_EQ("TCP/IP Fault.", e.m_sMessage);
}

} // namespace
} // namespace tessitor
