#include "bench/tcpfloorclient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "communication/netprotocol.h"

namespace tessitor::bench {

CTcpFloorClient::CTcpFloorClient(std::uint16_t port, const std::string& drive)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    m_hSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    std::string reply;
    if (m_hSocket < 0 || ::connect(m_hSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::setsockopt(m_hSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0
        || !Request(kNetFnOpenDrive, drive, reply) || reply.size() != 4)
        throw std::runtime_error("cannot open " + drive + " on the network device");
    m_nHandle = NetGetU32(reply.data());
}

CTcpFloorClient::~CTcpFloorClient()
{
    if (m_hSocket >= 0)
        ::close(m_hSocket);
}

bool CTcpFloorClient::Command(const std::string& command, std::string& value)
{
    return Request(kNetFnCommand, NetCommandPayload(1000, command), value);
}

bool CTcpFloorClient::Request(std::uint32_t functionId, const std::string& body, std::string& reply)
{
    const std::string frame = NetBuildFrame(functionId, m_nHandle, ++m_nNumber, body);
    if (::send(m_hSocket, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size()))
        return false;
    char header[kNetHeaderBytes + kNetNumberBytes];
    if (::recv(m_hSocket, header, sizeof header, MSG_WAITALL) != static_cast<ssize_t>(sizeof header))
        return false;
    const NetFrameHeader h = NetDecodeHeader(header);
    if (h.nWord3 != kNetStatusOk || h.nLength < kNetNumberBytes || h.nLength > kNetMaxPayloadBytes)
        return false;
    reply.resize(h.nLength - kNetNumberBytes);
    return reply.empty()
        || ::recv(m_hSocket, reply.data(), reply.size(), MSG_WAITALL) == static_cast<ssize_t>(reply.size());
}

} // namespace tessitor::bench
