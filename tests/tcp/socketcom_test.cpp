// Both socket exchanges against the scripted device on loopback, whose
// misbehaviour each request names.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>

#include "communication/socketcom.h"
#include "tests/tcp/tcppeer.h"

namespace tessitor {
namespace {

using test::Thrown;

std::uint32_t g_nRequest = 0; // request numbers, as a client counts them

// The timed exchange: the payload handed out, nullopt when none was.
std::optional<std::string> Timed(CSocketCom& socket, const std::string& request, std::uint32_t timeoutMs = 2000)
{
    std::string frame = NetBuildFrame(kNetFnCommand, 0, ++g_nRequest, NetCommandPayload(timeoutMs, request));
    const std::uint8_t* data = nullptr;
    std::uint32_t length = 0;
    bool handed = socket.Exchange(kNetFnCommand, frame.data(), frame.size(), &data, &length, timeoutMs);
    EXPECT_EQ(handed, data != nullptr);
    return handed ? std::make_optional(std::string(reinterpret_cast<const char*>(data), length)) : std::nullopt;
}

// The buffer exchange into 100 bytes on the heap (an overrun shows under
// ASan): the payload, or "drained" for E_OUTOFMEMORY.
std::string Buffered(CSocketCom& socket, const std::string& request)
{
    std::string frame = NetBuildFrame(kNetFnOpenDrive, 0, ++g_nRequest, request);
    std::vector<char> buffer(100);
    std::int32_t length = socket.Exchange(frame.data(), frame.size(), buffer.data(), buffer.size());
    return length == E_OUTOFMEMORY ? "drained" : std::string(buffer.data(), static_cast<std::size_t>(length));
}

class SocketCom : public ::testing::Test {
protected:
    // A new connection to the peer: each failure closes one.
    CSocketCom& Connect()
    {
        m_arSockets.push_back(std::make_unique<CSocketCom>());
        EXPECT_EQ(0, m_arSockets.back()->Open("127.0.0.1", m_Peer.Port(), 5000));
        return *m_arSockets.back();
    }

    test::CTcpScriptedPeer m_Peer{test::ScriptedDevice};
    std::vector<std::unique_ptr<CSocketCom>> m_arSockets;
};

// System-call seam: sends that fail with EPIPE, calls of each kind that
// fail with EINTR first, one-byte sends, and the sizes receives asked for.
struct SeamState {
    int nSendFailures = 0;
    int nSendInterrupts = 0, nRecvInterrupts = 0, nPollInterrupts = 0;
    bool bOneByteSends = false;
    std::vector<std::size_t> arRecvAsked;
} g_Seam;

bool Fails(int& count, int error)
{
    if (count == 0)
        return false;
    --count;
    errno = error;
    return true;
}

const CSocketCom::Syscalls kSeam = {
    [](int fd, const void* data, size_t length, int flags) -> ssize_t {
        bool failed = Fails(g_Seam.nSendFailures, EPIPE) || Fails(g_Seam.nSendInterrupts, EINTR);
        return failed ? -1 : ::send(fd, data, g_Seam.bOneByteSends ? 1 : length, flags);
    },
    [](int fd, void* data, size_t length, int flags) -> ssize_t {
        g_Seam.arRecvAsked.push_back(length);
        return Fails(g_Seam.nRecvInterrupts, EINTR) ? -1 : ::recv(fd, data, length, flags);
    },
    [](pollfd* fds, nfds_t n, int ms) { return Fails(g_Seam.nPollInterrupts, EINTR) ? -1 : ::poll(fds, n, ms); },
};

TEST_F(SocketCom, TimedExchangeHandsOutOnlyRepliesToItsFunctionAndKeepsASixteenBitCapacity)
{
    CSocketCom& socket = Connect();

    auto small = Timed(socket, "small");
    std::uint16_t capacityAfterSmall = socket.Capacity();
    auto big = Timed(socket, "big");
    std::uint16_t capacityAfterBig = socket.Capacity();
    auto empty = Timed(socket, "");
    std::uint32_t statusAfterEmpty = socket.LastReplyHeader().nWord3;
    auto other = Timed(socket, "other");
    auto next = Timed(socket, "SP");
    auto unasked = Timed(socket, "unasked");
    auto tooShortForANumber = Timed(socket, "short");
    auto frame = Timed(socket, "frame");
    std::uint32_t frameStatus = socket.LastReplyHeader().nWord3;
    auto late = Timed(socket, "late", 200); // the first byte may take 5 x the time-out

    EXPECT_EQ("abc", small);
    EXPECT_EQ(3, capacityAfterSmall);
    EXPECT_EQ(std::string(70000, 'w'), big);
    EXPECT_EQ(70000 - 65536, capacityAfterBig); // wrapped, as the 16-bit count always did
    EXPECT_EQ("", empty);
    EXPECT_EQ(0u, statusAfterEmpty);
    EXPECT_EQ(std::nullopt, other);
    EXPECT_EQ("SP", next); // the next exchange stays in step
    EXPECT_EQ("unasked", unasked); // the answer to an earlier request was read away
    EXPECT_EQ("short", tooShortForANumber);
    EXPECT_EQ("xy", frame); // a header is three little-endian words: length, function, status
    EXPECT_EQ(9u, frameStatus);
    EXPECT_EQ("late", late);
}

TEST_F(SocketCom, SilentCutOversizedAndStrayFramesThrowEachExchangesTexts)
{
    CSocketCom& silent = Connect();
    CSocketCom& cut = Connect();
    CSocketCom& hugeTimed = Connect();
    CSocketCom& hugeBuffered = Connect();
    CSocketCom& stray = Connect();
    CSocketCom unopened;

    auto start = std::chrono::steady_clock::now();
    auto timeOut = Thrown([&] { Timed(silent, "silent", 200); });
    auto waited = std::chrono::steady_clock::now() - start;
    auto afterTimeOut = Timed(silent, "PX");
    auto halfThenClose = Thrown([&] { Timed(Connect(), "half!"); });
    auto halfThenSilence = Thrown([&] { Timed(Connect(), "half", 100); });
    auto cutPayload = Thrown([&] { Timed(cut, "cut!"); });
    auto tooLong = Thrown([&] { Timed(hugeTimed, "huge"); });
    auto tooLongBuffered = Thrown([&] { Buffered(hugeBuffered, "huge"); });
    auto notSame = Thrown([&] { Buffered(stray, "other"); });
    std::string after = Buffered(stray, "y");
    auto halfBuffered = Thrown([&] { Buffered(Connect(), "half!"); });
    auto cutBuffered = Thrown([&] { Buffered(Connect(), "cut!"); });
    auto closedBeforeAnswer = Thrown([&] { Buffered(Connect(), "silent!"); });
    auto dripTimed = Thrown([&] { Timed(Connect(), "drip", 100); });
    CSocketCom& dripping = Connect();
    dripping.SetBufferExchangeTimeout(500);
    auto dripBuffered = Thrown([&] { Buffered(dripping, "drip"); }); // the deadline is the whole request's
    int refused = unopened.Open("127.0.0.1", test::ClosedPort(), 2000);
    int malformed = unopened.Open("not.an.address", 1, 100);
    auto nothing = Timed(unopened, "PX");
    auto closedBuffered = Thrown([&] { Buffered(unopened, "PX"); });

    EXPECT_EQ(CSocketCom::kTextTimeout, timeOut.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, timeOut.m_nErrorSource);
    EXPECT_GE(waited, std::chrono::milliseconds(950)); // 5 x the time-out
    EXPECT_FALSE(silent.IsOpen()); // a late reply must never pass for the next one
    EXPECT_EQ(std::nullopt, afterTimeOut);
    EXPECT_EQ(CSocketCom::kTextHeaderDropped, halfThenClose.m_sMessage);
    EXPECT_EQ(CSocketCom::kTextHeaderDropped, halfThenSilence.m_sMessage);
    EXPECT_EQ(CSocketCom::kTextPayloadDropped, cutPayload.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, cutPayload.m_nErrorSource);
    EXPECT_FALSE(cut.IsOpen());
    EXPECT_EQ("TCP/IP Fault. The network device announced a reply of 4294967280 bytes, more than the 1048576 bytes "
              "allowed.",
              tooLong.m_sMessage);
    EXPECT_EQ(tooLong.m_sMessage, tooLongBuffered.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, tooLongBuffered.m_nErrorSource);
    EXPECT_FALSE(hugeTimed.IsOpen());
    EXPECT_FALSE(hugeBuffered.IsOpen());
    EXPECT_EQ(CSocketCom::kTextNotSameFunction, notSame.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, notSame.m_nErrorSource);
    EXPECT_EQ("y", after);
    // The buffer exchange says which of its failures it met.
    EXPECT_EQ("TCP/IP Fault. The network device closed the connection after 6 of the 12 header bytes.",
              halfBuffered.m_sMessage);
    EXPECT_EQ("TCP/IP Fault. The network device closed the connection after 40 of the 100 payload bytes.",
              cutBuffered.m_sMessage);
    EXPECT_EQ("TCP/IP Fault. The network device closed the connection.", closedBeforeAnswer.m_sMessage);
    EXPECT_EQ(CSocketCom::kTextHeaderDropped, dripTimed.m_sMessage);
    EXPECT_EQ(0u, dripBuffered.m_sMessage.rfind("TCP/IP Fault. Only ", 0)) << dripBuffered.m_sMessage;
    EXPECT_NE(std::string::npos, dripBuffered.m_sMessage.find(" of the 12 header bytes came within 500 ms."))
        << dripBuffered.m_sMessage;
    EXPECT_EQ(ECONNREFUSED, refused);
    EXPECT_EQ(EINVAL, malformed);
    EXPECT_EQ(std::nullopt, nothing);
    EXPECT_EQ(CSocketCom::kTextFault, closedBuffered.m_sMessage);
}

TEST_F(SocketCom, SystemCallsInterruptedOrShortAreCarriedOnFailedSendsThrowAndDrainingTakesSmallPieces)
{
    CSocketCom& socket = Connect();
    CSocketCom& buffered = Connect();
    socket.SetSyscalls(kSeam);
    buffered.SetSyscalls(kSeam);
    g_Seam = {};
    g_Seam.bOneByteSends = true;

    g_Seam.nSendInterrupts = g_Seam.nRecvInterrupts = g_Seam.nPollInterrupts = 1;
    auto timed = Timed(socket, "KP[2]=5");
    int interruptsLeft = g_Seam.nSendInterrupts + g_Seam.nRecvInterrupts + g_Seam.nPollInterrupts;
    g_Seam.nSendInterrupts = g_Seam.nRecvInterrupts = g_Seam.nPollInterrupts = 1;
    std::string echoed = Buffered(socket, "RS232 Port 2");
    g_Seam.arRecvAsked.clear();
    std::string drained = Buffered(socket, "drain");
    std::vector<std::size_t> asked = g_Seam.arRecvAsked;
    std::string next = Buffered(socket, "small");
    std::uint32_t nextStatus = socket.LastReplyHeader().nWord3;
    g_Seam.nSendFailures = 1;
    auto timedSend = Thrown([&] { Timed(socket, "PX"); });
    g_Seam.nSendFailures = 1;
    auto bufferedSend = Thrown([&] { Buffered(buffered, "PX"); });

    EXPECT_EQ("KP[2]=5", timed);
    EXPECT_EQ(0, interruptsLeft); // each kind of call was interrupted once
    EXPECT_EQ("RS232 Port 2", echoed);
    EXPECT_EQ("drained", drained);
    ASSERT_GT(asked.size(), 8u); // the header, then 1000 bytes in pieces
    for (std::size_t i = 1; i < asked.size(); ++i)
        EXPECT_LE(asked[i], CSocketCom::kDrainPieceBytes);
    EXPECT_EQ("abc", next); // the frame after the drained one is intact
    EXPECT_EQ(7u, nextStatus);
    EXPECT_EQ(CSocketCom::kTextSendDropped, timedSend.m_sMessage);
    EXPECT_EQ(kErrSrcTcp, timedSend.m_nErrorSource);
    EXPECT_EQ("TCP/IP Fault. The request could not be sent whole.", bufferedSend.m_sMessage);
}

} // namespace
} // namespace tessitor
