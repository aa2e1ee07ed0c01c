#include "communication/socketcom.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "communication/communication.h"
#include "communication/wiretrace.h"
#include "core/strformat.h"
#include "core/trace.h"

namespace tessitor {
namespace {

std::int64_t NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string TooLongText(std::uint32_t length)
{
    char text[160];
    std::snprintf(text, sizeof text,
                  "TCP/IP Fault. The network device announced a reply of %u bytes, more than the %u bytes allowed.",
                  length, kNetMaxPayloadBytes);
    return text;
}

const std::uint8_t kEmptyPayload[1] = {0};

} // namespace

const CSocketCom::Syscalls CSocketCom::kSystem = {::send, ::recv, ::poll};

CSocketCom::CSocketCom() = default;

CSocketCom::~CSocketCom()
{
    Close();
}

namespace {

// Connects fd to address within deadlineMs; 0 or an errno value.
int ConnectWithin(int fd, const sockaddr* address, socklen_t size, std::int64_t deadlineMs)
{
    if (::connect(fd, address, size) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return errno;
    for (;;) {
        pollfd p{fd, POLLOUT, 0};
        int left = static_cast<int>(std::max<std::int64_t>(0, deadlineMs - NowMs()));
        int ready = ::poll(&p, 1, left);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0)
            return ETIMEDOUT;
        if (ready < 0)
            return errno;
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
            return errno;
        return error;
    }
}

} // namespace

int CSocketCom::Open(const std::string& host, std::uint16_t port, std::uint32_t timeoutMs)
{
    const std::int64_t deadline = NowMs() + timeoutMs;
    m_sOpenError.clear();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV; // no AI_ADDRCONFIG: it hides ::1 on hosts with loopback-only IPv6
    const std::string service = std::to_string(port);
    addrinfo* found = nullptr;
    if (int error = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found); error != 0) {
        m_sOpenError = "cannot resolve '" + host + "': " + ::gai_strerror(error);
        Trace::Printf("CSocketCom::Open: %s\n", m_sOpenError.c_str());
        return error == EAI_SYSTEM ? errno : EINVAL;
    }
    // Every address the name has, in the resolver's order, within the one deadline.
    int error = EINVAL;
    int fd = -1;
    for (addrinfo* a = found; a && fd < 0; a = a->ai_next) {
        fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
        if (fd < 0) {
            error = errno;
            continue;
        }
        error = ConnectWithin(fd, a->ai_addr, a->ai_addrlen, deadline);
        if (error != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    ::freeaddrinfo(found);
    if (fd < 0) {
        m_sOpenError = std::strerror(error);
        Trace::Printf("CSocketCom::Open %s:%u: %s\n", host.c_str(), port, m_sOpenError.c_str());
        return error;
    }
    // Commands are small and wait for their reply: do not let Nagle hold them.
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    Attach(fd);
    std::lock_guard lock(m_csSocket);
    m_sPeer = NetDeviceName(host, port);
    return 0;
}

void CSocketCom::Attach(int fd)
{
    std::lock_guard lock(m_csSocket);
    CloseLocked();
    m_hSocket = fd;
}

void CSocketCom::Close()
{
    std::lock_guard lock(m_csSocket);
    CloseLocked();
}

void CSocketCom::CloseLocked()
{
    if (m_hSocket >= 0) {
        ::shutdown(m_hSocket, SHUT_RDWR);
        ::close(m_hSocket);
        m_hSocket = -1;
    }
}

bool CSocketCom::IsOpen() const
{
    std::lock_guard lock(m_csSocket);
    return m_hSocket >= 0;
}

NetFrameHeader CSocketCom::LastReplyHeader() const
{
    std::lock_guard lock(m_csSocket);
    return m_LastReply;
}

std::uint16_t CSocketCom::Capacity() const
{
    std::lock_guard lock(m_csSocket);
    return m_wCapacity;
}

void CSocketCom::SetBufferExchangeTimeout(std::uint32_t timeoutMs)
{
    std::lock_guard lock(m_csSocket);
    m_nBufferTimeoutMs = timeoutMs;
}

void CSocketCom::SetSyscalls(const Syscalls& calls)
{
    std::lock_guard lock(m_csSocket);
    m_Calls = calls;
}

void CSocketCom::Fail(const std::string& text)
{
    Trace::Printf("CSocketCom: %s\n", text.c_str());
    CloseLocked();
    throw CCommunication::CExceptionComm(-1, nullptr, kErrSrcTcp, text);
}

CSocketCom::Wait CSocketCom::WaitFor(short events, std::int64_t deadlineMs)
{
    for (;;) {
        pollfd p{m_hSocket, events, 0};
        std::int64_t left = std::max<std::int64_t>(0, deadlineMs - NowMs());
        int ready = m_Calls.pPoll(&p, 1, static_cast<int>(std::min<std::int64_t>(left, 1 << 30)));
        if (ready > 0)
            return Wait::kReady; // errors and hang-ups show up in the next send or recv
        if (ready == 0) {
            if (NowMs() >= deadlineMs)
                return Wait::kExpired;
            continue;
        }
        if (errno != EINTR) {
            Trace::Printf("CSocketCom: poll: %s\n", std::strerror(errno));
            return Wait::kFailed;
        }
    }
}

bool CSocketCom::SendAll(const void* data, std::size_t length, std::int64_t deadlineMs)
{
    const auto* p = static_cast<const char*>(data);
    std::size_t sent = 0;
    while (sent < length) {
        ssize_t n = m_Calls.pSend(m_hSocket, p + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            CWireTrace::Bytes(m_sPeer, CWireTrace::kToDevice, p + sent, static_cast<std::size_t>(n));
            sent += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (WaitFor(POLLOUT, deadlineMs) != Wait::kReady)
                return false;
        } else {
            Trace::Printf("CSocketCom: send: %s\n", n < 0 ? std::strerror(errno) : "nothing sent");
            return false;
        }
    }
    return true;
}

std::size_t CSocketCom::RecvFull(void* data, std::size_t length, std::int64_t deadlineMs, RecvEnd* end)
{
    auto* p = static_cast<char*>(data);
    std::size_t got = 0;
    *end = RecvEnd::kDone;
    while (got < length) {
        Wait wait = WaitFor(POLLIN, deadlineMs);
        if (wait != Wait::kReady) {
            *end = wait == Wait::kExpired ? RecvEnd::kExpired : RecvEnd::kClosed;
            return got;
        }
        ssize_t n = m_Calls.pRecv(m_hSocket, p + got, length - got, MSG_DONTWAIT);
        if (n > 0) {
            got += static_cast<std::size_t>(n);
            CWireTrace::Bytes(m_sPeer, CWireTrace::kFromDevice, p + got - n, static_cast<std::size_t>(n));
        } else if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
            continue;
        } else {
            Trace::Printf("CSocketCom: recv: %s\n", n < 0 ? std::strerror(errno) : "closed by the peer");
            *end = RecvEnd::kClosed;
            return got;
        }
    }
    return got;
}

std::string CSocketCom::CutText(const char* part, std::size_t got, std::size_t expected, RecvEnd end,
                                std::int64_t waitedMs)
{
    if (end == RecvEnd::kClosed)
        return StrFormat("TCP/IP Fault. The network device closed the connection after %zu of the %zu %s bytes.",
                         got, expected, part);
    return StrFormat("TCP/IP Fault. Only %zu of the %zu %s bytes came within %lld ms.", got, expected, part,
                     static_cast<long long>(waitedMs));
}

void CSocketCom::SkipToReply(std::uint32_t number, std::int64_t startMs, std::int64_t deadlineMs, bool buffered)
{
    const std::int64_t waited = deadlineMs - startMs;
    for (;;) {
        std::uint8_t header[kNetHeaderBytes];
        RecvEnd end;
        std::size_t got = RecvFull(header, sizeof header, deadlineMs, &end);
        if (got != sizeof header) {
            if (!buffered)
                Fail(got == 0 && end == RecvEnd::kExpired ? kTextTimeout : kTextHeaderDropped);
            if (got == 0)
                Fail(end == RecvEnd::kExpired
                         ? StrFormat("TCP/IP Fault. No answer within %lld ms.", static_cast<long long>(waited))
                         : std::string("TCP/IP Fault. The network device closed the connection."));
            Fail(CutText("header", got, sizeof header, end, waited));
        }
        m_LastReply = NetDecodeHeader(header);
        const std::uint32_t n = m_LastReply.nLength;
        if (n > kNetMaxPayloadBytes)
            Fail(TooLongText(n));
        // The request number opens the payload; a frame too short to hold
        // one answers no request.
        std::uint8_t numberBytes[kNetNumberBytes];
        const std::size_t take = std::min<std::size_t>(n, sizeof numberBytes);
        got = RecvFull(numberBytes, take, deadlineMs, &end);
        if (got == take && take == sizeof numberBytes && NetGetU32(numberBytes) == number) {
            m_nBodyLength = n - kNetNumberBytes;
            return;
        }
        if (got == take) {
            m_arReply.resize(n - take);
            got += RecvFull(m_arReply.data(), n - take, deadlineMs, &end);
        }
        if (got != n)
            Fail(buffered ? CutText("payload", got, n, end, waited) : std::string(kTextPayloadDropped));
        // A late answer to an earlier request, or one nobody asked for: never
        // this request's.
        Trace::Printf("CSocketCom: discarded a frame (function %u, %u bytes, request %u) while waiting for request "
                      "%u\n",
                      m_LastReply.nFunctionId, n, take == sizeof numberBytes ? NetGetU32(numberBytes) : 0u, number);
    }
}

bool CSocketCom::Exchange(std::uint32_t functionId, const void* request, std::size_t requestLength,
                          const std::uint8_t** reply, std::uint32_t* replyLength, std::uint32_t timeoutMs)
{
    std::lock_guard lock(m_csSocket);
    *reply = nullptr;
    *replyLength = 0;
    if (m_hSocket < 0)
        return false;
    if (requestLength < kNetHeaderBytes + kNetNumberBytes)
        Fail(kTextFault);

    // The whole request, sending included, within five times its time-out:
    // the device itself waits up to the time-out for its drive.
    const std::int64_t start = NowMs();
    const std::int64_t deadline = start + CSocketCom::kReplyWaitFactor * static_cast<std::int64_t>(timeoutMs);
    if (!SendAll(request, requestLength, deadline))
        Fail(kTextSendDropped);
    SkipToReply(NetGetU32(static_cast<const std::uint8_t*>(request) + kNetHeaderBytes), start, deadline, false);

    const std::uint32_t n = m_nBodyLength;
    if (n != 0) {
        // The capacity is a 16-bit count, as the system has always kept it; a
        // reply above 65535 bytes wraps it. The buffer itself always gets n.
        if (n > m_wCapacity)
            m_wCapacity = static_cast<std::uint16_t>(n);
        m_arReply.assign(n, 0);
        RecvEnd end;
        if (RecvFull(m_arReply.data(), n, deadline, &end) != n)
            Fail(kTextPayloadDropped);
    }

    if (m_LastReply.nFunctionId != functionId) {
        Trace::Printf("CSocketCom: reply to function %u while waiting for %u\n", m_LastReply.nFunctionId,
                      functionId);
        return false;
    }
    *reply = n != 0 ? m_arReply.data() : kEmptyPayload;
    *replyLength = n;
    return true;
}

std::int32_t CSocketCom::Exchange(const void* request, std::size_t requestLength, void* buffer,
                                  std::size_t bufferSize)
{
    std::lock_guard lock(m_csSocket);
    if (m_hSocket < 0 || requestLength < kNetHeaderBytes + kNetNumberBytes)
        Fail(kTextFault);
    const auto* bytes = static_cast<const std::uint8_t*>(request);
    const std::uint32_t functionId = NetGetU32(bytes + 4);
    const std::int64_t start = NowMs();
    const std::int64_t deadline = start + m_nBufferTimeoutMs;

    if (!SendAll(request, requestLength, deadline))
        Fail("TCP/IP Fault. The request could not be sent whole.");
    SkipToReply(NetGetU32(bytes + kNetHeaderBytes), start, deadline, true);
    const std::uint32_t n = m_nBodyLength;

    if (n > bufferSize) {
        // Read the reply away so that the next exchange starts on a frame.
        char piece[kDrainPieceBytes];
        std::uint32_t left = n;
        while (left > 0) {
            std::size_t size = std::min<std::size_t>(left, sizeof piece);
            RecvEnd end = RecvEnd::kDone;
            if (WaitFor(POLLIN, deadline) != Wait::kReady)
                end = RecvEnd::kExpired;
            ssize_t got = end == RecvEnd::kDone ? m_Calls.pRecv(m_hSocket, piece, size, MSG_DONTWAIT) : 0;
            if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
                continue;
            if (got <= 0)
                Fail(CutText("payload", n - left, n, end == RecvEnd::kDone ? RecvEnd::kClosed : end,
                             deadline - start));
            left -= static_cast<std::uint32_t>(got);
        }
        return E_OUTOFMEMORY;
    }

    // Each receive asks for the whole payload length again, as the system
    // always did; it lands in a scratch area of that size so that a peer
    // sending more than one frame at once cannot write past the caller's
    // buffer (what went beyond this frame is lost, as it always was).
    std::vector<char> scratch(n);
    std::uint32_t got = 0;
    while (got < n) {
        RecvEnd end = RecvEnd::kDone;
        if (WaitFor(POLLIN, deadline) != Wait::kReady)
            end = RecvEnd::kExpired;
        ssize_t part = end == RecvEnd::kDone ? m_Calls.pRecv(m_hSocket, scratch.data(), n, MSG_DONTWAIT) : 0;
        if (part < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
            continue;
        if (part <= 0)
            Fail(CutText("payload", got, n, end == RecvEnd::kDone ? RecvEnd::kClosed : end, deadline - start));
        std::uint32_t take = std::min<std::uint32_t>(static_cast<std::uint32_t>(part), n - got);
        CWireTrace::Bytes(m_sPeer, CWireTrace::kFromDevice, scratch.data(), take);
        std::memcpy(static_cast<char*>(buffer) + got, scratch.data(), take);
        got += take;
    }
    if (m_LastReply.nFunctionId != functionId) {
        Trace::Printf("CSocketCom: reply to function %u while waiting for %u\n", m_LastReply.nFunctionId,
                      functionId);
        throw CCommunication::CExceptionComm(-1, nullptr, kErrSrcTcp, kTextNotSameFunction);
    }
    return static_cast<std::int32_t>(n);
}

} // namespace tessitor
