#include "tests/tcp/tcppeer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace tessitor::test {
namespace {

constexpr int kPeerWaitMs = 10000;

bool ReadExactly(int fd, char* data, std::size_t length)
{
    std::size_t got = 0;
    while (got < length) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, kPeerWaitMs) <= 0)
            return false;
        ssize_t n = ::recv(fd, data + got, length - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

bool CPeerConnection::ReadFrame(NetFrameHeader& header, std::string& payload)
{
    char bytes[kNetHeaderBytes];
    if (!ReadExactly(m_hSocket, bytes, sizeof bytes))
        return false;
    header = NetDecodeHeader(bytes);
    if (header.nLength > kNetMaxPayloadBytes)
        return false;
    payload.assign(header.nLength, '\0');
    return ReadExactly(m_hSocket, payload.data(), payload.size());
}

void CPeerConnection::Write(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = ::send(m_hSocket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        sent += static_cast<std::size_t>(n);
    }
}

void CPeerConnection::Reply(std::uint32_t functionId, std::uint32_t status, const std::string& payload)
{
    Write(NetBuildFrame(functionId, status, payload));
}

void CPeerConnection::Abort()
{
    if (m_hSocket < 0)
        return;
    linger hard{1, 0};
    ::setsockopt(m_hSocket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    ::close(m_hSocket);
    m_hSocket = -1;
}

void CPeerConnection::WaitForClose()
{
    char sink[4096];
    while (m_hSocket >= 0) {
        pollfd p{m_hSocket, POLLIN, 0};
        if (::poll(&p, 1, kPeerWaitMs) <= 0)
            return;
        ssize_t n = ::recv(m_hSocket, sink, sizeof sink, 0);
        if (n == 0 || (n < 0 && errno != EINTR))
            return;
    }
}

CTcpScriptedPeer::CTcpScriptedPeer(Script script) : m_Script(std::move(script))
{
    m_hListen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (m_hListen < 0 || ::bind(m_hListen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::listen(m_hListen, 8) != 0
        || ::getsockname(m_hListen, reinterpret_cast<sockaddr*>(&address), &size) != 0
        || ::pipe2(m_hWake, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot listen on loopback");
    m_wPort = ntohs(address.sin_port);
    m_Thread = std::thread([this] { AcceptLoop(); });
}

CTcpScriptedPeer::~CTcpScriptedPeer()
{
    char poke = 1;
    [[maybe_unused]] ssize_t ignored = ::write(m_hWake[1], &poke, 1);
    m_Thread.join();
    for (std::thread& thread : m_arThreads)
        thread.join();
    ::close(m_hListen);
    ::close(m_hWake[0]);
    ::close(m_hWake[1]);
}

void CTcpScriptedPeer::AcceptLoop()
{
    for (;;) {
        pollfd fds[2] = {{m_hListen, POLLIN, 0}, {m_hWake[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno == EINTR)
            continue;
        if (fds[1].revents & POLLIN)
            return;
        int fd = ::accept4(m_hListen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        ++m_nAccepted;
        std::lock_guard lock(m_csThreads);
        m_arThreads.emplace_back([this, fd] {
            CPeerConnection connection(fd);
            m_Script(connection);
            connection.WaitForClose();
            connection.Abort();
        });
    }
}

} // namespace tessitor::test
