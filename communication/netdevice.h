// The shared connection to one network device: one socket per device
// address and port, shared by every link to a drive behind that device and
// closed when the last of them lets go. It speaks the network device
// protocol (netprotocol.h): list the drives, open one by name, run a
// command, get a raw reply, upload recorded data, close.
//
// Every request is announced to the front end (Ui::WaitBegin) while its
// answer is awaited.
//
//   std::shared_ptr<CNetDevice> device = CNetDevice::Get("192.168.0.20", kDefaultTcpPort);
//   if (!device->IsUp() && !device->Connect(5000)) ... CNetDevice::LastError()
//   CNetDevice::Drive drive = device->OpenDrive("RS232 Port 1", 1000);
//   std::string value;
//   if (device->SendCommand(drive, "PX", value, 1000) != 0) ... CNetDevice::LastError()
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "communication/netprotocol.h"
#include "communication/socketcom.h"

namespace tessitor {

class CNetDevice {
public:
    /// A drive opened on the device; valid only on the connection that
    /// opened it (a reconnected device refuses older handles).
    struct Drive {
        std::uint32_t nHandle = 0;     ///< 0 = not open
        std::uint64_t nGeneration = 0; ///< which connection opened it
        std::string sName;             ///< the name it was opened by
        bool IsOpen() const { return nHandle != 0; }
    };

    /// Size of the buffer the drive list is received into, in bytes.
    static constexpr std::size_t kListBufferBytes = 64 * 1024;

    /// The connection for address (a host name or an address) and port: the one already
    /// shared when there is one, else a new one that is not yet up. It is
    /// closed when the last holder releases it.
    static std::shared_ptr<CNetDevice> Get(const std::string& address, std::uint16_t port);
    /// Connections alive in this process (tests watch the sharing).
    static std::size_t LiveCount();
    /// The failure text of the last call that failed on this thread.
    static const std::string& LastError();

    CNetDevice(std::string address, std::uint16_t port);
    /// Closes the socket.
    ~CNetDevice();
    CNetDevice(const CNetDevice&) = delete;
    CNetDevice& operator=(const CNetDevice&) = delete;

    const std::string& Address() const { return m_sAddress; }
    /// "host:port", for messages.
    const std::string& Name() const { return m_sName; }
    std::uint16_t Port() const { return m_wPort; }
    bool IsUp() const;
    /// True when drive was opened on the connection that is up now.
    bool Holds(const Drive& drive) const;
    /// Makes the connection unless it is up, within timeoutMs; false
    /// (LastError set) when it cannot be made.
    bool Connect(std::uint32_t timeoutMs);
    /// Closes the socket; drives opened on it become invalid.
    void Close();
    /// The socket (tests shorten its buffer exchange time-out through it).
    CSocketCom& Socket() { return m_Socket; }

    // Requests. Socket failures are thrown as CExceptionComm, error source 10.
    /// The drives behind the device, in its order, under the rules of a
    /// command with timeoutMs; false (LastError) on a refusal or a
    /// malformed list.
    bool ListDrives(std::vector<NetDriveEntry>& drives, std::uint32_t timeoutMs);
    /// Opens the drive of that name, under the rules of a command with
    /// timeoutMs; a closed Drive (LastError) on failure.
    Drive OpenDrive(const std::string& name, std::uint32_t timeoutMs);
    /// Gives the handle back; failures are only traced.
    void CloseDrive(Drive& drive);
    /// Runs command (no CR); 0 with its value, or 1 (LastError: the drive's
    /// error text, a time-out, a refusal by the device).
    int SendCommand(const Drive& drive, const std::string& command, std::string& value, std::uint32_t timeoutMs);
    /// Sends wire to the drive as it stands and returns a coded result: 0
    /// with the drive's bytes up to the terminator in reply (empty when the
    /// device answered with another function ID), 1..12 as the device
    /// reports them, -1 when the request could not be made or the device
    /// refused it (LastError).
    int SendRaw(const Drive& drive, const std::string& wire, char terminator, std::uint32_t timeoutMs,
                std::string& reply);
    /// One chunk of recorded data: samples first..last of the signals in
    /// mask, as the drive's "BH" answers them; 0, or 1 (LastError).
    int Upload(const Drive& drive, std::uint32_t mask, std::uint32_t first, std::uint32_t last,
               std::uint32_t timeoutMs, std::string& data);

private:
    enum class Outcome { kReply, kOtherFunction, kClosed, kStale };
    std::uint32_t NextRequestNumber();
    // what names the request for the front end's wait notice.
    Outcome Request(const Drive& drive, std::uint32_t functionId, const std::string& what, const std::string& payload,
                    std::uint32_t timeoutMs, NetFrameHeader& header, std::string& replyPayload);
    bool Refused(Outcome outcome, std::uint32_t status, const std::string& payload);
    bool DriveRefused(Outcome outcome, std::uint32_t status, const std::string& command, const std::string& payload);

    const std::string m_sAddress;
    const std::uint16_t m_wPort;
    const std::string m_sName;
    mutable std::mutex m_csDevice; // one request and the copy of its reply
    CSocketCom m_Socket;
    std::uint64_t m_nGeneration = 0;
    std::uint32_t m_nLastRequest = 0; // request numbers count up per connection
};

} // namespace tessitor
