#include "sim/simcannode.h"

#include <cctype>
#include <stdexcept>

#include "sim/simcanbinary.h"

namespace tessitor::sim {

namespace {

// Emergency error code of a PDO whose length is neither a query's nor an
// assignment's, and the error register it reports (generic, communication).
constexpr std::uint16_t kEmcyPdoLength = 0x8210;
constexpr std::uint8_t kEmcyErrorRegister = 0x11;
constexpr std::uint8_t kSdoFrameLength = 8;

SimCanFrame Frame(std::uint32_t id, std::uint8_t length)
{
    SimCanFrame frame;
    frame.nId = id;
    frame.nLength = length;
    return frame;
}

} // namespace

CSimCanNode::CSimCanNode(std::shared_ptr<CSimDrive> drive, int nodeId)
    : m_Objects(std::move(drive), nodeId), m_Sdo(m_Objects), m_pDb(CSimVersionDb::Default())
{
    if (nodeId < kMinNodeId || nodeId > kMaxNodeId)
        throw std::invalid_argument("node id " + std::to_string(nodeId) + " is not 1 to 127");
    m_pParams = m_pDb->FindVersion(m_Objects.Drive().VersionString());
}

void CSimCanNode::AddFault(FaultRule rule)
{
    // Objects are described with upper-case hex digits; let "/0x100a" find them.
    if (rule.sPattern.size() > 1 && rule.sPattern[0] == '0' && (rule.sPattern[1] == 'x' || rule.sPattern[1] == 'X')) {
        for (char& c : rule.sPattern)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        rule.sPattern[1] = 'x';
    }
    if (rule.eKind == FaultKind::kDriveError || rule.eKind == FaultKind::kBusy)
        m_Objects.CommandFaults().Add(rule);
    else
        m_Faults.Add(rule);
}

void CSimCanNode::ClearFaults()
{
    m_Faults.Clear();
    m_Objects.CommandFaults().Clear();
}

SimCanFrame CSimCanNode::BootUp()
{
    m_nState = kNmtStatePreOperational;
    SimCanFrame frame = Frame(kCobHeartbeat + static_cast<std::uint32_t>(NodeId()), 1);
    frame.arData[0] = kNmtStateBootUp;
    return frame;
}

std::vector<SimCanOutput> CSimCanNode::Receive(const SimCanFrame& frame, Clock::time_point now)
{
    if (frame.bExtended)
        return {};
    auto node = static_cast<std::uint32_t>(NodeId());
    if (frame.nId == kCobNmt && !frame.bRemote && frame.nLength >= 2 && (frame.arData[1] == 0 || frame.arData[1] == node))
        return OnNmt(frame, now);
    if (m_nState == kNmtStateStopped)
        return {};
    // SDO frames are always eight bytes; CiA 301 servers ignore others.
    if (frame.nId == kCobSdoRequest + node && !frame.bRemote && frame.nLength == kSdoFrameLength)
        return OnSdo(frame, now);
    if (frame.nId == kCobBinaryRequest + node && !frame.bRemote) {
        if (!IsSimCanBinaryRequest(frame))
            return {{Emergency(kEmcyPdoLength), now}};
        return OnBinary(frame, now);
    }
    return {};
}

std::vector<SimCanOutput> CSimCanNode::OnNmt(const SimCanFrame& frame, Clock::time_point now)
{
    switch (frame.arData[0]) {
    case kNmtStart:
        m_nState = kNmtStateOperational;
        return {};
    case kNmtStop:
        m_nState = kNmtStateStopped;
        return {};
    case kNmtEnterPreOperational:
        m_nState = kNmtStatePreOperational;
        return {};
    case kNmtResetNode:
    case kNmtResetCommunication:
        // The drive model keeps its state: only the communication restarts.
        m_Sdo.Reset();
        m_Objects.ResetCommunication();
        ScheduleHeartbeat(now);
        return {{BootUp(), now}};
    default:
        return {};
    }
}

std::vector<SimCanOutput> CSimCanNode::OnSdo(const SimCanFrame& frame, Clock::time_point now)
{
    FaultRule rule = m_Faults.Next(m_Sdo.Describe(frame.arData));
    SimCanFrame response = Frame(kCobSdoResponse + static_cast<std::uint32_t>(NodeId()), kSdoFrameLength);
    if (rule.eKind == FaultKind::kAbort) {
        response.arData = m_Sdo.Abort(frame.arData, rule.nAbortCode);
        return {{response, now}};
    }
    if (rule.eKind == FaultKind::kToggle)
        m_Sdo.RepeatToggle();
    bool answered = m_Sdo.Answer(frame.arData, response.arData, now);
    ScheduleHeartbeat(now);
    if (!answered)
        return {};
    return Send(response, rule, now);
}

std::vector<SimCanOutput> CSimCanNode::OnBinary(const SimCanFrame& frame, Clock::time_point now)
{
    std::string command = SimCanBinaryCommand(frame, m_pParams);
    FaultRule rule = m_Faults.Next(command);
    SimReply reply = m_Objects.Run(command);
    SimCanFrame answer = SimCanBinaryReply(frame, reply, m_pParams, NodeId());
    std::uint16_t word = static_cast<std::uint16_t>(answer.arData[2] | answer.arData[3] << 8);
    if (!reply.bError && (word & kBinaryErrorFlag))
        Drive().Refuse(command, answer.arData[4]); // a value this interpreter cannot carry
    return Send(answer, rule, now);
}

std::vector<SimCanOutput> CSimCanNode::Send(const SimCanFrame& frame, const FaultRule& rule, Clock::time_point now)
{
    if (rule.eKind == FaultKind::kDrop)
        return {};
    if (rule.eKind == FaultKind::kDelay)
        return {{frame, now + std::chrono::milliseconds(rule.nDelayMs)}};
    return {{frame, now}};
}

void CSimCanNode::ScheduleHeartbeat(Clock::time_point now)
{
    std::uint16_t period = m_Objects.HeartbeatMs();
    if (period == m_wHeartbeatMs)
        return;
    m_wHeartbeatMs = period;
    m_tNextHeartbeat = period ? now + std::chrono::milliseconds(period) : Clock::time_point::max();
}

std::vector<SimCanOutput> CSimCanNode::Tick(Clock::time_point now)
{
    if (m_wHeartbeatMs == 0 || now < m_tNextHeartbeat)
        return {};
    auto period = std::chrono::milliseconds(m_wHeartbeatMs);
    m_tNextHeartbeat += period;
    if (m_tNextHeartbeat <= now)
        m_tNextHeartbeat = now + period; // fell behind: no burst of heartbeats
    SimCanFrame frame = Frame(kCobHeartbeat + static_cast<std::uint32_t>(NodeId()), 1);
    frame.arData[0] = m_nState;
    return {{frame, now}};
}

CSimCanNode::Clock::time_point CSimCanNode::NextTick() const
{
    return m_tNextHeartbeat;
}

SimCanFrame CSimCanNode::Emergency(std::uint16_t code)
{
    SimCanFrame frame = Frame(kCobEmergency + static_cast<std::uint32_t>(NodeId()), 8);
    frame.arData[0] = static_cast<std::uint8_t>(code & 0xFF);
    frame.arData[1] = static_cast<std::uint8_t>(code >> 8);
    frame.arData[2] = kEmcyErrorRegister;
    return frame;
}

} // namespace tessitor::sim
