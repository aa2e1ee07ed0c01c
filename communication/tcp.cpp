#include "communication/tcp.h"

#include <cstdio>

#include "core/settings.h"
#include "core/trace.h"

namespace tessitor {
namespace {

constexpr char kSettingsSection[] = "TCP";
constexpr char kSettingsPortKey[] = "Port";
constexpr char kListingTerminator = 0x08;

} // namespace

std::uint16_t ResolveTcpPort(std::uint16_t port)
{
    if (port != 0)
        return port;
    int configured = Settings::User().GetInt(kSettingsSection, kSettingsPortKey, kDefaultTcpPort);
    if (configured < 1 || configured > 65535) {
        Trace::Printf("CTCP: settings port %d is out of range, using %u\n", configured, kDefaultTcpPort);
        return kDefaultTcpPort;
    }
    return static_cast<std::uint16_t>(configured);
}

CTCP::CTCP(const CCommunicationInfo& info, std::uint16_t port) : CCommunication(info), m_wPort(ResolveTcpPort(port))
{
}

CTCP::~CTCP()
{
    NotifyDestroy();
    std::lock_guard lock(m_csLink);
    Release();
    SetConnected(false);
}

void CTCP::SetOption(std::int32_t /*option*/)
{
}

void CTCP::SetHost(const std::string& host)
{
    m_sHost = host.size() >= 2 && host.front() == '[' && host.back() == ']' ? host.substr(1, host.size() - 2) : host;
}

std::string CTCP::Address() const
{
    if (!m_sHost.empty())
        return m_sHost;
    char text[32];
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", m_Info.abIP[0], m_Info.abIP[1], m_Info.abIP[2], m_Info.abIP[3]);
    return text;
}

std::string CTCP::DeviceName() const
{
    return NetDeviceName(Address(), m_wPort) + " " + TargetName();
}

std::string CTCP::TargetName() const
{
    if (m_Info.GetKind() == kKindTcpKmas && m_Info.sDesc.empty()) {
        char text[64];
        std::snprintf(text, sizeof text, "CANopen Bus 1 NodeID %d", m_Info.mNodeID);
        return text;
    }
    return m_Info.sDesc;
}

std::shared_ptr<CNetDevice> CTCP::Device() const
{
    std::lock_guard lock(m_csLink);
    return m_pDevice;
}

void CTCP::Release()
{
    if (m_pDevice) {
        m_pDevice->CloseDrive(m_Drive);
        m_pDevice.reset();
    }
    m_Drive = {};
}

void CTCP::Rethrow(CExceptionComm& e)
{
    if (!e.m_pCom)
        e.m_pCom = this;
    throw e;
}

int CTCP::Connect()
{
    std::lock_guard lock(m_csLink);
    if (IsConnected() && m_pDevice && m_pDevice->IsUp())
        return 0;
    Release();
    SetConnectError({});
    const std::string target = TargetName();
    m_pDevice = CNetDevice::Get(Address(), m_wPort);
    auto fail = [&](int result, const std::string& text) {
        SetConnectError(text);
        Release();
        return result;
    };
    // Which request failed, so that its failure keeps its own words.
    std::string request = "Connecting to";
    try {
        if (!m_pDevice->IsUp() && !m_pDevice->Connect(CSocketCom::kReplyWaitFactor * m_nConnectTimeoutMs))
            return fail(kConnectNoDevice, CNetDevice::LastError());
        request = "Listing the drives of";
        std::vector<NetDriveEntry> drives;
        if (!m_pDevice->ListDrives(drives, m_nConnectTimeoutMs))
            return fail(kConnectNoDrive, request + " the network device " + m_pDevice->Name()
                                             + " failed: " + CNetDevice::LastError());
        std::string offered;
        for (const NetDriveEntry& drive : drives) {
            offered += (offered.empty() ? "" : ", ") + drive.sName;
            if (drive.sName != target)
                continue;
            request = "Opening \"" + target + "\" on";
            m_Drive = m_pDevice->OpenDrive(drive.sName, m_nConnectTimeoutMs);
            if (!m_Drive.IsOpen())
                return fail(kConnectNoDrive, request + " the network device " + m_pDevice->Name()
                                                 + " failed: " + CNetDevice::LastError());
            m_cTerminator = ';';
            SetLinkBroken(false);
            SetConnected(true);
            return 0;
        }
        Trace::Printf("CTCP::Connect: %s has no drive \"%s\"\n", m_pDevice->Name().c_str(), target.c_str());
        return fail(kConnectNoDrive, "The network device " + m_pDevice->Name() + " has no drive \"" + target
                                         + "\"; it offers: " + (offered.empty() ? "no drive at all" : offered) + ".");
    } catch (CExceptionComm& e) {
        Trace::Printf("CTCP::Connect: %s\n", e.what());
        return fail(kConnectNoDevice,
                    request + " the network device " + m_pDevice->Name() + " failed: " + e.FillMessage());
    }
}

void CTCP::Reattach()
{
    if (m_pDevice->Holds(m_Drive))
        return;
    // A socket failure closed the shared connection (the command that met
    // it has already reported it), or another link has opened it again:
    // this drive's handle is void. Open both again before giving up.
    Trace::Printf("CTCP: opening \"%s\" on %s again\n", TargetName().c_str(), m_pDevice->Name().c_str());
    if (!m_pDevice->IsUp() && !m_pDevice->Connect(CSocketCom::kReplyWaitFactor * m_nConnectTimeoutMs))
        throw CExceptionComm(-1, this, kErrSrcTcpLink, CNetDevice::LastError());
    CNetDevice::Drive drive = m_pDevice->OpenDrive(TargetName(), m_nConnectTimeoutMs);
    if (!drive.IsOpen())
        throw CExceptionComm(-1, this, kErrSrcTcpLink, CNetDevice::LastError());
    m_Drive = drive;
}

void CTCP::CheckReplySize(const std::string& command, std::size_t valueBytes)
{
    // What the serial line would have carried: echo, CR, value, terminator.
    if (command.size() + valueBytes + 2 >= kMaxCommandBytes)
        throw CExceptionComm(COM_BUFFER_TOO_BIG, this, kErrSrcTcpLink);
}

void CTCP::Disconnect()
{
    CCommunication::Disconnect();
    SetLinkBroken(true);
    std::lock_guard lock(m_csLink);
    Release();
    SetConnected(false);
}

int CTCP::SendCommandGetValue(const std::string& command, std::string& value, std::uint32_t timeoutMs)
{
    if (IsLinkBroken())
        return -1;
    std::lock_guard lock(m_csLink);
    if (!IsConnected() || !m_pDevice)
        throw CExceptionComm(3, this, kErrSrcSetup);
    if (command.size() + 2 > kMaxCommandBytes)
        throw CExceptionComm(-1, this, kErrSrcLink, "Output buffer is too long!");
    timeoutMs = EffectiveTimeout(command, timeoutMs);
    NoteStateChange(command);

    std::string result;
    try {
        Reattach();
        if (m_pDevice->SendCommand(m_Drive, command, result, timeoutMs) == 1)
            throw CExceptionComm(-1, this, kErrSrcTcpLink, CNetDevice::LastError());
    } catch (CExceptionComm& e) {
        Rethrow(e);
    }
    CheckReplySize(command, result.size());
    value = std::move(result);
    return 0;
}

int CTCP::SendCommandGetReply(const std::string& command, std::string& reply, std::uint32_t timeoutMs)
{
    int result = SendCommand(command, reply, timeoutMs, 0);
    return reply.empty() ? -2 : result;
}

void CTCP::ReadRecordChunk(std::uint32_t mask, std::uint32_t first, std::uint32_t last, int /*send*/,
                           std::string& chunk)
{
    std::lock_guard lock(m_csLink);
    if (!IsConnected() || !m_pDevice)
        throw CExceptionComm(3, this, kErrSrcSetup);
    try {
        Reattach();
        if (m_pDevice->Upload(m_Drive, mask, first, last, EffectiveTimeout("BH", 0), chunk) == 1)
            throw CExceptionComm(-1, this, kErrSrcTcpLink, CNetDevice::LastError());
    } catch (CExceptionComm& e) {
        Rethrow(e);
    }
    CheckReplySize("BH=" + std::to_string(mask), chunk.size());
}

int CTCP::Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs, std::int32_t checkEcho)
{
    std::lock_guard lock(m_csLink);
    if (!m_pDevice)
        return COM_DEVICE_NULL;
    int result = COM_OK;
    try {
        Reattach();
        result = m_pDevice->SendRaw(m_Drive, command, m_cTerminator, timeoutMs, reply);
        // A closed connection or a refused request has its own text, better
        // than any coded result.
        if (result == -1)
            throw CExceptionComm(-1, this, kErrSrcTcpLink, CNetDevice::LastError());
    } catch (CExceptionComm& e) {
        Rethrow(e);
    }
    if (result != COM_OK || reply.empty())
        return result;
    // The same checks the serial line makes, so the transaction above
    // behaves alike on both.
    if (reply.size() >= kMaxCommandBytes) {
        reply.clear();
        return COM_BUFFER_TOO_BIG;
    }
    if (checkEcho != 0 && reply.compare(0, command.size(), command) != 0)
        return COM_BAD_ECHO;
    if (reply.back() != m_cTerminator)
        return COM_BAD_DATA;
    return COM_OK;
}

void CTCP::ToggleTerminator()
{
    std::lock_guard lock(m_csLink);
    m_cTerminator = m_cTerminator == ';' ? kListingTerminator : ';';
}

} // namespace tessitor
