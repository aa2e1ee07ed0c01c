#include "tests/tcp/tcppeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>

namespace tessitor::test {
namespace {

// Blocking reads under a receive time-out (set on accepting) keep a peer
// whose client hangs from holding the test up for ever.
bool ReadExactly(int fd, char* data, std::size_t length)
{
    return length == 0 || ::recv(fd, data, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

bool ReadFrame(int fd, NetFrameHeader& header, std::uint32_t& number, std::string& body)
{
    char bytes[kNetHeaderBytes];
    if (fd < 0 || !ReadExactly(fd, bytes, sizeof bytes))
        return false;
    header = NetDecodeHeader(bytes);
    body.assign(std::min(header.nLength, kNetMaxPayloadBytes), '\0');
    if (header.nLength > kNetMaxPayloadBytes || !ReadExactly(fd, body.data(), body.size()))
        return false;
    number = body.size() >= kNetNumberBytes ? NetGetU32(body.data()) : 0;
    body.erase(0, std::min(body.size(), kNetNumberBytes));
    return true;
}

} // namespace

bool CPeerConnection::Write(const std::string& bytes)
{
    // Blocking: all of it, or the client is gone.
    return ::send(hSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

void CPeerConnection::Reply(std::uint32_t functionId, std::uint32_t status, const std::string& body,
                            std::uint32_t number)
{
    Write(NetBuildFrame(functionId, status, number != 0 ? number : nRequest, body));
}

void CPeerConnection::Abort()
{
    linger hard{1, 0};
    ::setsockopt(hSocket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    ::close(hSocket);
    hSocket = -1;
}

CTcpScriptedPeer::CTcpScriptedPeer(Handler handler) : m_Handler(std::move(handler))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    m_hListen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_hListen < 0 || ::bind(m_hListen, reinterpret_cast<sockaddr*>(&address), size) != 0
        || ::listen(m_hListen, 8) != 0 || ::getsockname(m_hListen, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        if (m_hListen >= 0)
            ::close(m_hListen);
        throw std::runtime_error("cannot listen on loopback");
    }
    m_wPort = ntohs(address.sin_port);
    m_Thread = std::thread([this] {
        for (;;) {
            int fd = ::accept4(m_hListen, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0 && (errno == EINTR || errno == ECONNABORTED))
                continue;
            if (fd < 0)
                return; // the listening socket was shut down
            ++m_nAccepted;
            timeval wait{10, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
            m_arThreads.emplace_back([this, fd] {
                CPeerConnection connection{fd};
                NetFrameHeader header;
                std::string body;
                while (ReadFrame(connection.hSocket, header, connection.nRequest, body))
                    m_Handler(connection, header, body);
                if (connection.hSocket >= 0)
                    connection.Abort();
                ++m_nEnded;
            });
        }
    });
}

CTcpScriptedPeer::~CTcpScriptedPeer()
{
    ::shutdown(m_hListen, SHUT_RDWR); // wakes the accept
    m_Thread.join();
    for (std::thread& thread : m_arThreads)
        thread.join();
    ::close(m_hListen);
}

void ScriptedDevice(CPeerConnection& c, const NetFrameHeader& h, const std::string& payload)
{
    const std::uint32_t id = h.nFunctionId;
    const std::size_t prefix = id == kNetFnCommand ? 4 : id == kNetFnRawReply ? 8 : 0; // time-out, terminator
    std::string what = payload.substr(std::min(prefix, payload.size()));
    const bool abort = !what.empty() && what.back() == '!';
    if (abort)
        what.pop_back();
    if (what == "late")
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
    if (id == kNetFnListDrives)
        c.Reply(id, 0,
                NetDriveListPayload({{kNetDriveSerial, "RS232 Port 1"}, {kNetDriveCanopen, "CANopen Bus 1 NodeID 5"}}));
    else if (id == kNetFnOpenDrive && (what == "RS232 Port 1" || what == "CANopen Bus 1 NodeID 5"))
        c.Reply(id, 0, std::string(what == "RS232 Port 1" ? "\x0B" : "\x0C") + std::string(3, '\0'));
    else if (id == kNetFnCloseDrive)
        c.Reply(id, 0, {});
    else if (id == kNetFnRawReply && payload[4] != (what == "LS\r" ? '\x08' : ';'))
        c.Reply(id, 0, "the terminator is wrong");
    else if (what == "PX")
        c.Reply(id, 0, std::to_string(h.nWord3)); // the handle the request named
    else if (what == "MO=1")
        c.Reply(id, kNetStatusDriveError | 5, "device text");
    else if (what == "MO=2")
        c.Reply(id, kNetStatusDriveError | 250, "Brake not released");
    else if (what == "XX")
        c.Reply(id, kNetStatusBadRequest, "command too long");
    else if (what == "VR\r")
        c.Reply(id, 0, "VR\rTalvina 1.2.3.4;");
    else if (what == "PA\r")
        c.Reply(id, 0, "PA\r5"); // no terminator
    else if (what == "SR\r")
        c.Reply(id, 1, "SR\r"); // the drive never finished
    else if (what == "LS\r")
        c.Reply(id, 0, std::string("LS\rline;\x08", 9));
    else if (what == "small")
        c.Reply(id, 7, "abc");
    else if (what == "big" || what == "drain")
        c.Reply(id, 0, std::string(what == "big" ? 70000 : 1000, 'w'));
    else if (what == "other")
        c.Reply(id + 1, 0, "stale");
    else if (what == "frame") { // 6 bytes for function 3, status 9: the number, "xy"
        std::string frame("\x06\0\0\0\x03\0\0\0\x09\0\0\0", 12);
        NetPutU32(frame, c.nRequest);
        c.Write(frame + "xy");
    } else if (what == "unasked") {
        c.Reply(id, 0, "stale", c.nRequest - 1);
        c.Reply(id, 0, what);
    } else if (what == "short") // a frame too short to hold a number, then the answer
        c.Write(NetEncodeHeader({2, id, 0}) + "ab" + NetBuildFrame(id, 0, c.nRequest, what));
    else if (what == "drip") {
        const std::string frame = NetBuildFrame(id, 0, c.nRequest, what);
        for (char byte : frame) {
            if (!c.Write(std::string(1, byte)))
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
        }
    } else if (what == "half")
        c.Write(NetEncodeHeader({8, id, 0}).substr(0, 6));
    else if (what == "cut")
        c.Write(NetEncodeHeader({100, id, 0}) + std::string(40, 'p'));
    else if (what == "huge")
        c.Write(NetEncodeHeader({0xFFFFFFF0u, id, 0}) + std::string(64, 'h'));
    else if (what != "silent")
        c.Reply(id, 0, what);
    if (abort)
        c.Abort();
}

std::uint16_t ClosedPort()
{
    CTcpScriptedPeer gone(ScriptedDevice);
    return gone.Port();
}

CCommunicationInfo TcpInfo(const std::string& target)
{
    CCommunicationInfo info;
    info.m_sCommType = "TCP";
    info.abIP = {127, 0, 0, 1};
    info.sDesc = target;
    info.nType = target.rfind("CANopen", 0) == 0 ? 1 : 0;
    return info;
}

} // namespace tessitor::test
