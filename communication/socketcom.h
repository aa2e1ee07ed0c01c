// One TCP socket to a network device, carrying request and reply frames
// (netprotocol.h) one pair at a time under a lock. A reply is matched to
// its request by the request number that opens both payloads: frames that
// answer another request (late, or unasked) are read away and traced, and
// the wait goes on within the same deadline. Every socket failure is
// thrown as CCommunication::CExceptionComm with error source 10 and the
// system's own text. A failure that leaves the stream between two frame
// boundaries closes the socket.
//
//   CSocketCom socket;
//   if (int err = socket.Open("192.168.0.20", kDefaultTcpPort, 5000)) ... errno
//   std::string frame = NetBuildFrame(kNetFnCommand, handle, ++number, NetCommandPayload(1000, "PX"));
//   const std::uint8_t* reply = nullptr; std::uint32_t length = 0;
//   socket.Exchange(kNetFnCommand, frame.data(), frame.size(), &reply, &length, 1000);
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "communication/netprotocol.h"

namespace tessitor {

/// Result of the buffer exchange when the reply did not fit and was drained.
constexpr std::int32_t E_OUTOFMEMORY = static_cast<std::int32_t>(0x8007000EU);

class CSocketCom {
public:
    /// The system calls the object makes; tests replace them to inject
    /// EINTR, short writes and errors no real peer can provoke.
    struct Syscalls {
        ssize_t (*pSend)(int fd, const void* buffer, size_t length, int flags);
        ssize_t (*pRecv)(int fd, void* buffer, size_t length, int flags);
        int (*pPoll)(pollfd* fds, nfds_t count, int timeoutMs);
    };
    /// The real ones.
    static const Syscalls kSystem;

    /// A request's reply may take this many times its time-out: the device
    /// itself waits up to the time-out for its drive before it answers.
    static constexpr std::uint32_t kReplyWaitFactor = 5;
    /// Pieces in which an oversized reply is read away, in bytes.
    static constexpr std::size_t kDrainPieceBytes = 128;

    // The failure texts users of the system know; the leading blanks are theirs.
    /// Timed exchange: the request could not be sent whole.
    static constexpr char kTextSendDropped[] =
        " The TCP/IP connection has been dropped, because of a network failure or because the system on the "
        "other end went down without notice.";
    /// Timed exchange: no reply byte within five times the time-out.
    static constexpr char kTextTimeout[] = "TCP/IP Timeout.The network system has failed. Please check wiring";
    /// Timed exchange: the reply header came in part.
    static constexpr char kTextHeaderDropped[] =
        " The TCP/IP connection has been dropped because of a network failure or because the peer system failed "
        "to respond.";
    /// Timed exchange: the reply payload came in part.
    static constexpr char kTextPayloadDropped[] =
        "The TCP/IP connection has been dropped because of a network failure or because the peer system failed "
        "to respond.";
    /// Buffer exchange: any socket failure.
    static constexpr char kTextFault[] = "TCP/IP Fault.";
    /// Buffer exchange: the reply belonged to another function.
    static constexpr char kTextNotSameFunction[] = "TCP/IP Communication broken. Not same function ID.";

    CSocketCom();
    /// Closes the socket.
    ~CSocketCom();
    CSocketCom(const CSocketCom&) = delete;
    CSocketCom& operator=(const CSocketCom&) = delete;

    /// Connects to host (a name, or an IPv4 or IPv6 address) within
    /// timeoutMs, trying each address the name has; 0 or an errno value
    /// (EINVAL for a name that does not resolve, ETIMEDOUT on expiry).
    int Open(const std::string& host, std::uint16_t port, std::uint32_t timeoutMs);
    /// Why the last Open failed, in words ("Connection refused",
    /// "cannot resolve 'x': Name or service not known").
    const std::string& OpenError() const { return m_sOpenError; }
    /// Takes over a connected socket (owned from now on).
    void Attach(int fd);
    /// Closes the socket; exchanges then do nothing.
    void Close();
    bool IsOpen() const;

    /// Sends a whole request frame (its request number read from its
    /// payload) and receives the reply to it, all within 5 x timeoutMs.
    /// When the reply's function ID equals functionId, *reply points to its
    /// payload after the request number in this object's buffer (valid
    /// until the next exchange; callers sharing the object hold their own
    /// lock across exchange and copy) and *replyLength is its length;
    /// otherwise both are null/0. Returns true when the reply was handed
    /// out. Does nothing (and returns false) while the socket is closed.
    bool Exchange(std::uint32_t functionId, const void* request, std::size_t requestLength,
                  const std::uint8_t** reply, std::uint32_t* replyLength, std::uint32_t timeoutMs);
    /// Sends a whole request frame (its function ID read from its header,
    /// its request number from its payload) and receives the reply's
    /// payload after the request number into buffer, all within the time
    /// SetBufferExchangeTimeout gave. Returns the payload length, or
    /// E_OUTOFMEMORY when it was larger than bufferSize and was drained.
    /// Throws "TCP/IP Fault." with what went wrong on socket failures and
    /// "TCP/IP Communication broken. Not same function ID." on a reply with
    /// another function ID.
    std::int32_t Exchange(const void* request, std::size_t requestLength, void* buffer, std::size_t bufferSize);

    /// Header of the last reply received (its third word is the status).
    NetFrameHeader LastReplyHeader() const;
    /// The reply buffer's capacity: the largest reply seen, kept in 16 bits.
    std::uint16_t Capacity() const;
    /// How long a whole buffer exchange may take, in ms.
    void SetBufferExchangeTimeout(std::uint32_t timeoutMs);
    /// Replaces the system calls (tests); kSystem restores them.
    void SetSyscalls(const Syscalls& calls);

private:
    enum class Wait { kReady, kExpired, kFailed };
    enum class RecvEnd { kDone, kExpired, kClosed };

    Wait WaitFor(short events, std::int64_t deadlineMs);
    bool SendAll(const void* data, std::size_t length, std::int64_t deadlineMs);
    std::size_t RecvFull(void* data, std::size_t length, std::int64_t deadlineMs, RecvEnd* end);
    // Reads frames until one answers request number, leaving its body (the
    // payload after the number, m_nBodyLength bytes) unread; buffered picks
    // the buffer exchange's failure texts.
    void SkipToReply(std::uint32_t number, std::int64_t startMs, std::int64_t deadlineMs, bool buffered);
    static std::string CutText(const char* part, std::size_t got, std::size_t expected, RecvEnd end,
                               std::int64_t waitedMs);
    [[noreturn]] void Fail(const std::string& text);
    void CloseLocked();

    mutable std::recursive_mutex m_csSocket;
    int m_hSocket = -1;
    Syscalls m_Calls = kSystem;
    std::vector<std::uint8_t> m_arReply;
    std::uint16_t m_wCapacity = 0;
    NetFrameHeader m_LastReply;
    std::uint32_t m_nBufferTimeoutMs = 10000;
    std::uint32_t m_nBodyLength = 0;
    std::string m_sOpenError;
    std::string m_sPeer = "socket"; // "host:port", for the wire trace
};

} // namespace tessitor
