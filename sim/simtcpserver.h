// The virtual drive as a network device: several virtual drives, each with
// its own state, behind one TCP port, speaking the network device protocol
// (docs/network-device-protocol.md) to any number of clients at once. It
// answers as a real device would, including its failures: a drive that
// never answers becomes a time-out status after the request's time-out,
// and the device itself can be told to break frames (wrong function ID,
// half a header, a connection dropped mid-reply).
//
//   CSimTcpServer device("Talvina");          // "RS232 Port 1", "RS232 Port 2", "CANopen Bus 1 NodeID 5"
//   device.Start();                           // 127.0.0.1, a free port
//   ... connect a client to device.Host() and device.Port() ...
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/simdrive.h"
#include "sim/simfaults.h"

namespace tessitor::sim {

/// What keeps the device serving whatever its clients do. Times in ms; 0 = no limit.
struct SimTcpLimits {
    int nMaxClients = 16;         ///< connections served at once; one more is closed as soon as accepted
    int nIdleTimeoutMs = 600000;  ///< a connection with no request for this long is closed
    int nStallTimeoutMs = 10000;  ///< a request begun (or a reply unread) for this long ends the connection
    int nMaxHandles = 64;         ///< drives open at once on one connection; one more open is refused (0x202)
};

class CSimTcpServer {
public:
    /// A device with three drives of product (at version, "" = its newest):
    /// "RS232 Port 1", "RS232 Port 2" and "CANopen Bus 1 NodeID 5"; throws
    /// std::invalid_argument for a product or version that is not listed.
    explicit CSimTcpServer(const std::string& product = "Talvina", const std::string& version = "");
    /// Stops serving.
    ~CSimTcpServer();
    CSimTcpServer(const CSimTcpServer&) = delete;
    CSimTcpServer& operator=(const CSimTcpServer&) = delete;

    /// Adds a drive behind the device under name (before Start); a drive
    /// may be shared with other faces.
    void AddDrive(const std::string& name, std::shared_ptr<CSimDrive> drive);
    /// The drive of that name, or null.
    std::shared_ptr<CSimDrive> Drive(const std::string& name) const;
    /// Names of the drives, in the order the device lists them.
    std::vector<std::string> DriveNames() const;

    /// Sets the limits (before Start).
    void SetLimits(const SimTcpLimits& limits);
    const SimTcpLimits& Limits() const;

    /// Listens on host (an IPv4 or IPv6 address, or a name) and port (0 = a free one)
    /// and starts serving; throws std::system_error when it cannot.
    void Start(const std::string& host = "127.0.0.1", std::uint16_t port = 0);
    /// Closes the port and every connection, and joins the threads.
    void Stop();
    /// The address listened on, numeric ("127.0.0.1", "::1"); valid after Start.
    std::string Host() const;
    /// The port listened on; valid after Start.
    std::uint16_t Port() const;
    /// Connections being served now.
    int ClientCount() const;
    /// Connections accepted since Start, refused ones included.
    int AcceptedCount() const;
    /// Connections closed at once since Start: over the cap, or no thread to serve them.
    int RefusedCount() const;
    /// Faults injected into replies; change them at any time.
    CSimFaults& Faults();

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

} // namespace tessitor::sim
