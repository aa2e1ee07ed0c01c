#include "communication/netdevice.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

#include "communication/communication.h"
#include "communication/driveerrortable.h"
#include "communication/waitnotice.h"
#include "core/strformat.h"
#include "core/trace.h"

namespace tessitor {
namespace {

std::mutex g_csDevices;
std::map<std::pair<std::string, std::uint16_t>, std::weak_ptr<CNetDevice>> g_mapDevices;

// Like errno: each thread sees the failure of its own last call, so threads
// sharing one device never read each other's text.
thread_local std::string t_sLastError;

void SetLastError(std::string text)
{
    Trace::Printf("CNetDevice: %s\n", text.c_str());
    t_sLastError = std::move(text);
}

} // namespace

std::shared_ptr<CNetDevice> CNetDevice::Get(const std::string& address, std::uint16_t port)
{
    std::lock_guard lock(g_csDevices);
    for (auto it = g_mapDevices.begin(); it != g_mapDevices.end();) {
        if (it->second.expired())
            it = g_mapDevices.erase(it);
        else
            ++it;
    }
    std::weak_ptr<CNetDevice>& slot = g_mapDevices[{address, port}];
    if (auto device = slot.lock())
        return device;
    auto device = std::make_shared<CNetDevice>(address, port);
    slot = device;
    return device;
}

std::size_t CNetDevice::LiveCount()
{
    std::lock_guard lock(g_csDevices);
    std::size_t count = 0;
    for (const auto& entry : g_mapDevices)
        count += !entry.second.expired();
    return count;
}

const std::string& CNetDevice::LastError()
{
    return t_sLastError;
}

CNetDevice::CNetDevice(std::string address, std::uint16_t port)
    : m_sAddress(std::move(address)), m_wPort(port), m_sName(NetDeviceName(m_sAddress, port))
{
}

CNetDevice::~CNetDevice() = default;

bool CNetDevice::IsUp() const
{
    return m_Socket.IsOpen();
}

bool CNetDevice::Connect(std::uint32_t timeoutMs)
{
    std::lock_guard lock(m_csDevice);
    if (m_Socket.IsOpen())
        return true;
    CWaitNotice notice("the connection", m_sName);
    if (m_Socket.Open(m_sAddress, m_wPort, timeoutMs) != 0) {
        SetLastError("Cannot connect to the network device " + m_sName + ": " + m_Socket.OpenError());
        return false;
    }
    ++m_nGeneration;
    m_nLastRequest = 0;
    return true;
}

bool CNetDevice::Holds(const Drive& drive) const
{
    std::lock_guard lock(m_csDevice);
    return drive.IsOpen() && drive.nGeneration == m_nGeneration && m_Socket.IsOpen();
}

std::uint32_t CNetDevice::NextRequestNumber()
{
    if (++m_nLastRequest == 0) // 0 is no request's number
        m_nLastRequest = 1;
    return m_nLastRequest;
}

void CNetDevice::Close()
{
    std::lock_guard lock(m_csDevice);
    m_Socket.Close();
}

CNetDevice::Outcome CNetDevice::Request(const Drive& drive, std::uint32_t functionId, const std::string& what,
                                        const std::string& payload, std::uint32_t timeoutMs, NetFrameHeader& header,
                                        std::string& replyPayload)
{
    std::lock_guard lock(m_csDevice);
    if (!m_Socket.IsOpen())
        return Outcome::kClosed;
    if (drive.nHandle != 0 && drive.nGeneration != m_nGeneration)
        return Outcome::kStale;
    const std::string frame = NetBuildFrame(functionId, drive.nHandle, NextRequestNumber(), payload);
    CWaitNotice notice(what, m_sName + " " + drive.sName);
    const std::uint8_t* reply = nullptr;
    std::uint32_t length = 0;
    if (!m_Socket.Exchange(functionId, frame.data(), frame.size(), &reply, &length, timeoutMs))
        return m_Socket.IsOpen() ? Outcome::kOtherFunction : Outcome::kClosed;
    header = m_Socket.LastReplyHeader();
    replyPayload.assign(reinterpret_cast<const char*>(reply), length);
    return Outcome::kReply;
}

bool CNetDevice::Refused(Outcome outcome, std::uint32_t status, const std::string& payload)
{
    char text[300];
    switch (outcome) {
    case Outcome::kClosed:
        std::snprintf(text, sizeof text, "The connection to the network device %s is closed.", m_sName.c_str());
        break;
    case Outcome::kStale:
        std::snprintf(text, sizeof text,
                      "The drive was opened on an earlier connection to the network device %s; connect it again.",
                      m_sName.c_str());
        break;
    case Outcome::kOtherFunction:
        std::snprintf(text, sizeof text, "The network device %s answered with another function ID.",
                      m_sName.c_str());
        break;
    case Outcome::kReply:
        if (status == kNetStatusOk)
            return false;
        if (payload.empty() || (status >= 1 && status <= 12)) {
            SetLastError(NetStatusText(status));
        } else {
            SetLastError(NetStatusText(status) + ": " + payload);
        }
        return true;
    }
    SetLastError(text);
    return true;
}

bool CNetDevice::ListDrives(std::vector<NetDriveEntry>& drives, std::uint32_t timeoutMs)
{
    std::lock_guard lock(m_csDevice);
    if (!m_Socket.IsOpen()) {
        Refused(Outcome::kClosed, 0, {});
        return false;
    }
    const std::string frame = NetBuildFrame(kNetFnListDrives, 0, NextRequestNumber(), {});
    CWaitNotice notice("the drive list", m_sName);
    m_Socket.SetBufferExchangeTimeout(CSocketCom::kReplyWaitFactor * timeoutMs);
    std::string buffer(kListBufferBytes, '\0');
    std::int32_t length = m_Socket.Exchange(frame.data(), frame.size(), buffer.data(), buffer.size());
    if (length == E_OUTOFMEMORY) {
        SetLastError("The network device lists more drives than fit in a reply.");
        return false;
    }
    buffer.resize(static_cast<std::size_t>(length));
    std::uint32_t status = m_Socket.LastReplyHeader().nWord3;
    if (Refused(Outcome::kReply, status, buffer))
        return false;
    std::uint32_t version = 0;
    auto parsed = NetParseDriveList(buffer, &version);
    if (parsed && version != kNetProtocolVersion) {
        SetLastError(StrFormat("The network device speaks protocol version %u; this Tessitor speaks version %u.",
                               version, kNetProtocolVersion));
        return false;
    }
    if (!parsed) {
        SetLastError("The network device sent a malformed drive list.");
        return false;
    }
    drives = std::move(*parsed);
    return true;
}

CNetDevice::Drive CNetDevice::OpenDrive(const std::string& name, std::uint32_t timeoutMs)
{
    std::lock_guard lock(m_csDevice);
    if (!m_Socket.IsOpen()) {
        Refused(Outcome::kClosed, 0, {});
        return {};
    }
    if (name.size() > kNetMaxNameBytes) {
        SetLastError("The drive name is too long: " + name);
        return {};
    }
    const std::string frame = NetBuildFrame(kNetFnOpenDrive, 0, NextRequestNumber(), name);
    CWaitNotice notice("opening " + name, m_sName);
    m_Socket.SetBufferExchangeTimeout(CSocketCom::kReplyWaitFactor * timeoutMs);
    char buffer[kNetMaxNameBytes + 64];
    std::int32_t length = m_Socket.Exchange(frame.data(), frame.size(), buffer, sizeof buffer);
    std::uint32_t status = m_Socket.LastReplyHeader().nWord3;
    std::string payload = length >= 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
    if (Refused(Outcome::kReply, status, payload))
        return {};
    if (payload.size() != 4 || NetGetU32(payload.data()) == 0) {
        SetLastError("The network device sent a malformed answer to opening " + name + ".");
        return {};
    }
    return {NetGetU32(payload.data()), m_nGeneration, name};
}

void CNetDevice::CloseDrive(Drive& drive)
{
    if (!drive.IsOpen())
        return;
    try {
        NetFrameHeader header;
        std::string payload;
        Outcome outcome = Request(drive, kNetFnCloseDrive, "closing the drive", {}, 1000, header, payload);
        Refused(outcome, header.nWord3, payload);
    } catch (const CCommunication::CExceptionComm& e) {
        Trace::Printf("CNetDevice::CloseDrive: %s\n", e.what());
    }
    drive = {};
}

int CNetDevice::SendCommand(const Drive& drive, const std::string& command, std::string& value,
                            std::uint32_t timeoutMs)
{
    NetFrameHeader header;
    std::string payload;
    Outcome outcome =
        Request(drive, kNetFnCommand, command, NetCommandPayload(timeoutMs, command), timeoutMs, header, payload);
    if (DriveRefused(outcome, header.nWord3, command, payload) || Refused(outcome, header.nWord3, payload))
        return 1;
    value = std::move(payload);
    return 0;
}

bool CNetDevice::DriveRefused(Outcome outcome, std::uint32_t status, const std::string& command,
                              const std::string& payload)
{
    if (outcome != Outcome::kReply || (status & ~0xFFu) != kNetStatusDriveError || (status & 0xFF) == 0)
        return false;
    // The same message the serial link gives for this refusal; the
    // device's own text only where the tool has none.
    const int n = static_cast<int>(status & 0xFF);
    std::string text = CDriveErrorTable::Default()->Text(n);
    if (text == "Unknown Error" && !payload.empty())
        text = payload;
    std::string head(64 + command.size(), '\0');
    head.resize(static_cast<std::size_t>(
        std::snprintf(head.data(), head.size(), "Error (%d) :  '%s' : ", n, command.c_str())));
    SetLastError(head + text + " !");
    return true;
}

int CNetDevice::SendRaw(const Drive& drive, const std::string& wire, char terminator, std::uint32_t timeoutMs,
                        std::string& reply)
{
    reply.clear();
    NetFrameHeader header;
    std::string payload;
    Outcome outcome = Request(drive, kNetFnRawReply, wire, NetRawPayload(timeoutMs, terminator, wire), timeoutMs,
                              header, payload);
    if (outcome == Outcome::kOtherFunction) {
        Refused(outcome, 0, {});
        return COM_OK;
    }
    if (!Refused(outcome, header.nWord3, payload)) {
        reply = std::move(payload);
        return COM_OK;
    }
    if (outcome == Outcome::kReply && header.nWord3 >= 1 && header.nWord3 <= 12)
        return static_cast<int>(header.nWord3);
    return -1;
}

int CNetDevice::Upload(const Drive& drive, std::uint32_t mask, std::uint32_t first, std::uint32_t last,
                       std::uint32_t timeoutMs, std::string& data)
{
    NetFrameHeader header;
    std::string payload;
    const std::string command = "BH=" + std::to_string(mask);
    Outcome outcome =
        Request(drive, kNetFnUpload, command, NetUploadPayload(timeoutMs, mask, first, last), timeoutMs, header, payload);
    if (DriveRefused(outcome, header.nWord3, command, payload)
        || Refused(outcome, header.nWord3, payload))
        return 1;
    data = std::move(payload);
    return 0;
}

} // namespace tessitor
