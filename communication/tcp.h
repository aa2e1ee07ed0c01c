// The TCP link: a drive behind a network device, for the descriptor types
// "TCP" and "TCP_KMAS". It never touches a socket itself: it opens its
// drive on the device's shared connection (CNetDevice) and hands every
// command to it. The host is the one given, else the descriptor's IPv4
// address; the port the one given, else settings ("TCP", "Port"), else
// kDefaultTcpPort.
//
//   CTCP link(info);                          // info.abIP, info.sDesc = "RS232 Port 1"
//   link.SetHost("[::1]");                    // optional: a name or an address of any family
//   switch (link.Connect()) { case 3: ... unreachable; case 1: ... no such drive }
//   ... link.GetConnectError() says why in words ...
//   std::string value;
//   link.SendCommandGetValue("PX", value, 1000);   // throws -1/source 11 with the device's text
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "communication/communication.h"
#include "communication/netdevice.h"

namespace tessitor {

/// The port for a link: port when nonzero, else settings ("TCP", "Port"),
/// else kDefaultTcpPort.
std::uint16_t ResolveTcpPort(std::uint16_t port);

class CTCP : public CCommunication {
public:
    /// Connect results besides 0.
    static constexpr int kConnectNoDrive = 1;  ///< the device has no drive of the target's name
    static constexpr int kConnectNoDevice = 3; ///< the network connection cannot be made

    /// A link to the drive info names; port 0 = settings or the default.
    explicit CTCP(const CCommunicationInfo& info, std::uint16_t port = 0);
    /// Tells the listeners while the link is whole, gives the drive back
    /// and lets go of the shared connection.
    ~CTCP() override;

    /// Connects to host (a name, an IPv4 or IPv6 address, brackets
    /// allowed) instead of the descriptor's IPv4 address; "" restores it.
    /// Set before Connect, so that DeviceName() never waits for a command.
    void SetHost(const std::string& host);
    /// The time-out, in ms, the requests of Connect (the drive list and
    /// opening the drive) get under the command time-out's rules.
    void SetConnectTimeout(std::uint32_t timeoutMs) { m_nConnectTimeoutMs = timeoutMs; }

    /// Does nothing: the TCP link has no options.
    void SetOption(std::int32_t option) override;
    /// Answered by the link itself: 1.
    std::int32_t QueryOption() override { return 1; }
    /// 0 connected, 3 the device cannot be reached, 1 it has no such drive.
    int Connect() override;
    /// Gives the drive back, tells the listeners, lets go of the connection.
    void Disconnect() override;
    /// The device's command request: 0 with value; -1 while the link is
    /// broken; a failure throws code -1, source 11, the device's text; a
    /// value the serial line could not carry in 8192 bytes throws code 5.
    /// After a socket failure the connection and the drive are opened
    /// again first (as for every request of this link).
    int SendCommandGetValue(const std::string& command, std::string& value, std::uint32_t timeoutMs) override;
    /// The raw transaction; 0 with the whole reply, -2 when it came back
    /// empty (the device answered with another function ID).
    int SendCommandGetReply(const std::string& command, std::string& reply, std::uint32_t timeoutMs) override;
    /// "host:port target", the host as given or the descriptor's address.
    std::string DeviceName() const override;

    /// The drive name asked for: the target text ("TCP_KMAS" without one:
    /// "CANopen Bus 1 NodeID %d" with the node ID).
    std::string TargetName() const;
    /// The host the link connects to, as given, else the descriptor's
    /// address ("%d.%d.%d.%d").
    std::string Address() const;
    std::uint16_t Port() const { return m_wPort; }
    /// The shared connection while connected (tests).
    std::shared_ptr<CNetDevice> Device() const;

protected:
    int Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                 std::int32_t checkEcho) override;
    void ToggleTerminator() override;
    /// The device's upload request: window and "BH" in one round trip;
    /// failures throw code -1, source 11.
    void ReadRecordChunk(std::uint32_t mask, std::uint32_t first, std::uint32_t last, int send,
                         std::string& chunk) override;

private:
    void Release();
    // Opens the connection and the drive again when a failure closed them.
    void Reattach();
    // The reply limit of every transport, applied to a value of valueBytes.
    void CheckReplySize(const std::string& command, std::size_t valueBytes);
    [[noreturn]] void Rethrow(CExceptionComm& e);

    const std::uint16_t m_wPort;
    std::string m_sHost;
    std::uint32_t m_nConnectTimeoutMs = 1000;
    mutable std::recursive_mutex m_csLink; // value sends, and the device/drive pair
    std::shared_ptr<CNetDevice> m_pDevice;
    CNetDevice::Drive m_Drive;
    char m_cTerminator = ';';
};

} // namespace tessitor
