#include "sim/simcanobjects.h"

#include <cstdio>

#include "sim/simcanframe.h"
#include "sim/simversiondb.h"

namespace tessitor::sim {

namespace {

enum class ObjectKind {
    kDeviceType,
    kErrorRegister,
    kDeviceName,
    kSoftwareVersion,
    kStore,
    kRestore,
    kHeartbeat,
    kIdentity,
    kOsCommand,
    kOsMode,
    kRecord,
    kCommand,
};

struct ObjectDef {
    std::uint16_t wIndex;
    std::uint8_t nSubs;    ///< highest sub-index of a record; 0 for a variable
    ObjectKind eKind;
    const char* pUpload;   ///< command objects: the command an upload runs (null: write-only)
    bool bDownload;        ///< command objects: a download runs the text written
};

constexpr ObjectDef kObjects[] = {
    {0x1000, 0, ObjectKind::kDeviceType, nullptr, false},
    {0x1001, 0, ObjectKind::kErrorRegister, nullptr, false},
    {0x1008, 0, ObjectKind::kDeviceName, nullptr, false},
    {0x100A, 0, ObjectKind::kSoftwareVersion, nullptr, false},
    {0x1010, 1, ObjectKind::kStore, nullptr, false},
    {0x1011, 1, ObjectKind::kRestore, nullptr, false},
    {0x1017, 0, ObjectKind::kHeartbeat, nullptr, false},
    {0x1018, 4, ObjectKind::kIdentity, nullptr, false},
    {0x1023, 3, ObjectKind::kOsCommand, nullptr, false},
    {0x1024, 0, ObjectKind::kOsMode, nullptr, false},
    {0x2030, 16, ObjectKind::kRecord, nullptr, false},
    {0x2031, 0, ObjectKind::kCommand, "HS", true},
    {0x2060, 0, ObjectKind::kCommand, nullptr, true},
    {0x2070, 0, ObjectKind::kCommand, "LS", true},
    {0x2071, 0, ObjectKind::kCommand, "CS", true},
    {0x2072, 0, ObjectKind::kCommand, "MZ", false},
    {0x2073, 0, ObjectKind::kCommand, "CC", false},
    {0x2074, 0, ObjectKind::kCommand, nullptr, true},
    {0x2080, 0, ObjectKind::kCommand, "CD", false},
    {0x2090, 0, ObjectKind::kCommand, nullptr, true},
};

// CiA 402 drive profile, servo drive: what 0x1000 holds on drives whose
// firmware follows CiA 301 there. The "BreNol" firmware keeps its version
// text in 0x1000 instead, which is where its clients read "VR".
constexpr std::uint32_t kDeviceTypeServo = 0x00020192;
// No vendor ID is assigned to the virtual drive.
constexpr std::uint32_t kVendorId = 0;
// 0x1010/0x1011 sub-index 1 on upload: the drive saves and restores on command.
constexpr std::uint32_t kSavesOnCommand = 1;
// Error register bit 0: generic error.
constexpr std::uint8_t kErrorRegisterGeneric = 0x01;
// OS command status (0x1023 sub-index 2).
constexpr std::uint8_t kOsDone = 0x00;
constexpr std::uint8_t kOsDoneWithReply = 0x01;
constexpr std::uint8_t kOsErrorWithReply = 0x03;
constexpr std::uint8_t kOsExecuting = 0xFF;
// OS command mode (0x1024): 0 execute at once, 3 abort and clear; 1 and 2
// (buffered commands) are not supported.
constexpr std::uint8_t kOsModeImmediate = 0;
constexpr std::uint8_t kOsModeAbort = 3;

const ObjectDef* FindDef(std::uint16_t index)
{
    for (const ObjectDef& def : kObjects)
        if (def.wIndex == index)
            return &def;
    return nullptr;
}

std::string Bytes(std::uint32_t value, int length)
{
    std::string bytes;
    for (int i = 0; i < length; ++i)
        bytes += static_cast<char>(value >> (8 * i) & 0xFF);
    return bytes;
}

std::uint32_t Value(const std::string& bytes)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes.size() && i < 4; ++i)
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    return value;
}

std::string ProductOf(const std::string& version)
{
    return version.substr(0, version.find(' '));
}

} // namespace

CSimCanObjects::CSimCanObjects(std::shared_ptr<CSimDrive> drive, int nodeId)
    : m_pDrive(std::move(drive)), m_nNodeId(nodeId)
{
}

std::uint32_t CSimCanObjects::Find(std::uint16_t index, std::uint8_t sub, SimCanObjectInfo& info) const
{
    const ObjectDef* def = FindDef(index);
    if (!def)
        return kAbortNoObject;
    if (sub > def->nSubs)
        return kAbortNoSubIndex;
    info = SimCanObjectInfo{};
    if (def->nSubs > 0 && sub == 0) {
        info = {1, true, false}; // the number of sub-indices
        return 0;
    }
    switch (def->eKind) {
    case ObjectKind::kDeviceType:
        info = {static_cast<std::uint8_t>(m_pDrive->Family() == "BreNol" ? 0 : 4), true, false};
        break;
    case ObjectKind::kErrorRegister:
        info = {1, true, false};
        break;
    case ObjectKind::kDeviceName:
    case ObjectKind::kSoftwareVersion:
    case ObjectKind::kRecord:
        info = {0, true, false};
        break;
    case ObjectKind::kStore:
    case ObjectKind::kRestore:
        info = {4, true, true};
        break;
    case ObjectKind::kHeartbeat:
        info = {2, true, true};
        break;
    case ObjectKind::kIdentity:
        info = {4, true, false};
        break;
    case ObjectKind::kOsCommand:
        info = sub == 2 ? SimCanObjectInfo{1, true, false} : SimCanObjectInfo{0, true, sub == 1};
        break;
    case ObjectKind::kOsMode:
        info = {1, false, true};
        break;
    case ObjectKind::kCommand:
        info = {0, def->pUpload != nullptr, def->bDownload};
        break;
    }
    return 0;
}

std::uint32_t CSimCanObjects::Read(std::uint16_t index, std::uint8_t sub, std::string& data, Clock::time_point now)
{
    SimCanObjectInfo info;
    if (std::uint32_t abort = Find(index, sub, info))
        return abort;
    if (!info.bRead)
        return kAbortWriteOnly;
    const ObjectDef& def = *FindDef(index);
    if (def.nSubs > 0 && sub == 0) {
        data = Bytes(def.nSubs, 1);
        return 0;
    }
    switch (def.eKind) {
    case ObjectKind::kDeviceType:
        data = info.nLength ? Bytes(kDeviceTypeServo, 4) : m_pDrive->VersionString();
        return 0;
    case ObjectKind::kErrorRegister: {
        SimReply fault = m_pDrive->Execute("MF");
        bool faulted = !fault.bError && !fault.sValue.empty() && fault.sValue != "0";
        data = Bytes(faulted ? kErrorRegisterGeneric : 0, 1);
        return 0;
    }
    case ObjectKind::kDeviceName:
        data = ProductOf(m_pDrive->VersionString());
        return 0;
    case ObjectKind::kSoftwareVersion:
        data = m_pDrive->VersionString();
        return 0;
    case ObjectKind::kStore:
    case ObjectKind::kRestore:
        data = Bytes(kSavesOnCommand, 4);
        return 0;
    case ObjectKind::kHeartbeat:
        data = Bytes(m_wHeartbeatMs, 2);
        return 0;
    case ObjectKind::kIdentity: {
        std::uint32_t value = kVendorId;
        if (sub == 2) {
            // The product code: the product's line in the product table.
            std::vector<std::string> names = CSimProducts::Default()->Names();
            std::string product = ProductOf(m_pDrive->VersionString());
            value = 0;
            for (std::size_t i = 0; i < names.size(); ++i)
                if (names[i] == product)
                    value = static_cast<std::uint32_t>(i + 1);
        } else if (sub == 3) {
            unsigned a = 0, b = 0, c = 0, d = 0;
            std::sscanf(m_pDrive->VersionString().c_str(), "%*s %u.%u.%u.%u", &a, &b, &c, &d);
            value = (a & 0xFF) << 24 | (b & 0xFF) << 16 | (c & 0xFF) << 8 | (d & 0xFF);
        } else if (sub == 4) {
            value = 0x00010000u + static_cast<std::uint32_t>(m_nNodeId);
        }
        data = Bytes(value, 4);
        return 0;
    }
    case ObjectKind::kOsCommand: {
        bool busy = m_bBusyForever || now < m_tBusyUntil;
        if (sub == 1)
            data = m_sOsCommand;
        else if (sub == 2)
            data = Bytes(busy ? kOsExecuting : m_nOsStatus, 1);
        else
            data = busy ? std::string() : m_sOsReply;
        return 0;
    }
    case ObjectKind::kRecord: {
        SimReply reply = m_pDrive->Record(1u << (sub - 1));
        if (reply.bError)
            return kAbortGeneral;
        data = std::move(reply.sValue);
        return 0;
    }
    case ObjectKind::kCommand: {
        SimReply reply = Run(def.pUpload);
        if (reply.bError)
            return kAbortGeneral;
        data = std::move(reply.sValue);
        return 0;
    }
    case ObjectKind::kOsMode:
        break;
    }
    return kAbortWriteOnly;
}

std::uint32_t CSimCanObjects::Write(std::uint16_t index, std::uint8_t sub, const std::string& data, Clock::time_point now)
{
    SimCanObjectInfo info;
    if (std::uint32_t abort = Find(index, sub, info))
        return abort;
    if (!info.bWrite)
        return kAbortReadOnly;
    if (info.nLength && data.size() != info.nLength)
        return data.size() > info.nLength ? kAbortTooLong : kAbortTooShort;
    const ObjectDef& def = *FindDef(index);
    switch (def.eKind) {
    case ObjectKind::kStore:
    case ObjectKind::kRestore: {
        // CiA 301 signatures: the drive saves on "save" and loads its flash on "load".
        bool store = def.eKind == ObjectKind::kStore;
        if (data != (store ? "save" : "load"))
            return kAbortCannotStore;
        return Run(store ? "SV" : "LD").bError ? kAbortGeneral : 0;
    }
    case ObjectKind::kHeartbeat:
        m_wHeartbeatMs = static_cast<std::uint16_t>(Value(data));
        return 0;
    case ObjectKind::kOsCommand:
        return RunOsCommand(data, now);
    case ObjectKind::kOsMode: {
        std::uint32_t mode = Value(data);
        if (mode != kOsModeImmediate && mode != kOsModeAbort)
            return kAbortValueRange;
        m_nOsStatus = kOsDone;
        m_sOsReply.clear();
        m_bBusyForever = false;
        m_tBusyUntil = {};
        return 0;
    }
    case ObjectKind::kCommand:
        return Run(data).bError ? kAbortGeneral : 0;
    default:
        return kAbortReadOnly;
    }
}

SimReply CSimCanObjects::Run(const std::string& command)
{
    FaultRule rule;
    return Run(command, rule);
}

SimReply CSimCanObjects::Run(const std::string& command, FaultRule& rule)
{
    rule = m_CommandFaults.Next(command);
    if (rule.eKind == FaultKind::kDriveError)
        return m_pDrive->Refuse(command, rule.nErrorNumber);
    return m_pDrive->Execute(command);
}

std::uint32_t CSimCanObjects::RunOsCommand(const std::string& command, Clock::time_point now)
{
    m_sOsCommand = command;
    FaultRule rule;
    SimReply reply = Run(command, rule);
    if (reply.bError) {
        // The reply a serial line would carry after the echo, so the client's
        // drive error check finds the number in the byte before "?".
        m_nOsStatus = kOsErrorWithReply;
        m_sOsReply = std::string(1, static_cast<char>(reply.nErrorNumber)) + '?';
    } else {
        m_nOsStatus = reply.sValue.empty() ? kOsDone : kOsDoneWithReply;
        m_sOsReply = reply.sValue;
    }
    m_bBusyForever = rule.eKind == FaultKind::kBusy && rule.nDelayMs == 0;
    m_tBusyUntil = rule.eKind == FaultKind::kBusy ? now + std::chrono::milliseconds(rule.nDelayMs) : Clock::time_point{};
    return 0;
}

void CSimCanObjects::ResetCommunication()
{
    m_wHeartbeatMs = 0;
    m_sOsCommand.clear();
    m_nOsStatus = kOsDone;
    m_sOsReply.clear();
    m_bBusyForever = false;
    m_tBusyUntil = {};
}

} // namespace tessitor::sim
