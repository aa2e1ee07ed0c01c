// The floor the TCP link is measured against: the least a program can do
// for one command request of the network device protocol. One blocking
// socket, one send, the reply's header and payload read; no lock, no
// checks, no sharing, no reconnecting.
#pragma once

#include <cstdint>
#include <string>

namespace tessitor::bench {

class CTcpFloorClient {
public:
    /// Connects to 127.0.0.1:port and opens the drive of that name; throws
    /// std::runtime_error when it cannot.
    CTcpFloorClient(std::uint16_t port, const std::string& drive);
    ~CTcpFloorClient();
    CTcpFloorClient(const CTcpFloorClient&) = delete;
    CTcpFloorClient& operator=(const CTcpFloorClient&) = delete;

    /// Runs command (the command request, 1000 ms) and stores its value;
    /// false when the socket fails or the device refuses.
    bool Command(const std::string& command, std::string& value);

private:
    bool Request(std::uint32_t functionId, const std::string& body, std::string& reply);

    int m_hSocket = -1;
    std::uint32_t m_nHandle = 0;
    std::uint32_t m_nNumber = 0;
};

} // namespace tessitor::bench
