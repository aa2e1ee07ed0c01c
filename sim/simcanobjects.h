// The object dictionary of one virtual drive on a CAN bus: the CANopen
// communication objects (device type, name, identity, store and restore,
// heartbeat), the OS-command objects 0x1023/0x1024 that run the drive's text
// interpreter, the record upload 0x2030 and the command objects
// 0x2031-0x2090. Values are bytes as SDO carries them (little endian);
// refusals are SDO abort codes. No I/O: the SDO server and the binary
// interpreter call it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "sim/simdrive.h"
#include "sim/simfaults.h"

namespace tessitor::sim {

/// What an object of the dictionary is.
struct SimCanObjectInfo {
    std::uint8_t nLength = 0; ///< fixed length in bytes; 0: a string or domain of any length
    bool bRead = false;       ///< may be uploaded
    bool bWrite = false;      ///< may be downloaded
};

class CSimCanObjects {
public:
    using Clock = std::chrono::steady_clock;

    /// The dictionary of drive as node nodeId (1..127).
    CSimCanObjects(std::shared_ptr<CSimDrive> drive, int nodeId);

    /// The longest string a download may carry (a drive command line and its terminator).
    static constexpr std::uint32_t kMaxStringLength = 8192;

    /// Finds index/sub; returns 0, or the abort code for an object or
    /// sub-index that does not exist.
    std::uint32_t Find(std::uint16_t index, std::uint8_t sub, SimCanObjectInfo& info) const;
    /// Uploads index/sub into data; returns 0 or an abort code. Objects that
    /// run a drive command run it now; a drive refusal is kAbortGeneral
    /// with its number behind "EC".
    std::uint32_t Read(std::uint16_t index, std::uint8_t sub, std::string& data, Clock::time_point now);
    /// Downloads data (its length already checked against the object) to
    /// index/sub; returns 0 or an abort code.
    std::uint32_t Write(std::uint16_t index, std::uint8_t sub, const std::string& data, Clock::time_point now);

    /// Runs a command line on the drive as the node's interpreters do, with
    /// the command faults ("error") applied.
    SimReply Run(const std::string& command);
    /// The command faults: "error" and "busy" rules, matched against the
    /// command lines the interpreters run. Thread-safe.
    CSimFaults& CommandFaults() { return m_CommandFaults; }

    /// The producer heartbeat time of object 0x1017 [ms]; 0 = none.
    std::uint16_t HeartbeatMs() const { return m_wHeartbeatMs; }
    /// Back to the values of power-up (NMT reset): heartbeat off, OS command cleared.
    void ResetCommunication();

    /// The drive the objects run on.
    CSimDrive& Drive() { return *m_pDrive; }
    /// The node id the identity's serial number is made from.
    int NodeId() const { return m_nNodeId; }

private:
    SimReply Run(const std::string& command, FaultRule& rule);
    std::uint32_t RunOsCommand(const std::string& command, Clock::time_point now);

    std::shared_ptr<CSimDrive> m_pDrive;
    int m_nNodeId;
    CSimFaults m_CommandFaults;
    std::uint16_t m_wHeartbeatMs = 0;

    // The OS command: the last command written, its status and reply; while
    // a "busy" fault holds it, the status reads 0xFF until tBusyUntil
    // (forever when bBusyForever).
    std::string m_sOsCommand;
    std::uint8_t m_nOsStatus = 0;
    std::string m_sOsReply;
    bool m_bBusyForever = false;
    Clock::time_point m_tBusyUntil{};
};

} // namespace tessitor::sim
