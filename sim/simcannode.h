// One virtual drive as a CANopen node: its SDO server, its binary
// interpreter on the second PDO pair, NMT (start, stop, pre-operational,
// resets with a boot-up message), heartbeat, and the faults a test injects
// into its answers. Fed the frames seen on the bus and the time, it returns
// what it sends and when; no I/O, so a test can hand it frames and read
// frames back.
//
//   CSimCanNode node(std::make_shared<CSimDrive>("Bressa"), 5);
//   node.BootUp();                                        // 705#00
//   for (const SimCanOutput& out : node.Receive(request, now)) ... out.frame, out.tNotBefore ...
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "sim/simcanframe.h"
#include "sim/simcanobjects.h"
#include "sim/simcansdoserver.h"
#include "sim/simfaults.h"
#include "sim/simversiondb.h"

namespace tessitor::sim {

/// A frame a node sends, and the earliest time it may go.
struct SimCanOutput {
    SimCanFrame frame;
    std::chrono::steady_clock::time_point tNotBefore;
};

class CSimCanNode {
public:
    using Clock = std::chrono::steady_clock;

    /// drive (shared; other faces may serve it too) as node nodeId;
    /// throws std::invalid_argument for an id outside 1..127.
    CSimCanNode(std::shared_ptr<CSimDrive> drive, int nodeId);

    /// 1..127.
    int NodeId() const { return m_Objects.NodeId(); }
    /// The drive the node serves (thread-safe, as every CSimDrive).
    CSimDrive& Drive() { return m_Objects.Drive(); }
    /// The node's object dictionary; for the thread that feeds the node.
    CSimCanObjects& Objects() { return m_Objects; }

    /// Adds a fault: "drop", "delay", "abort" and "toggle" act on the answers
    /// to requests (SDO requests named "0xIIII.SS", binary-interpreter
    /// requests by their command line, e.g. "KP[2]=7"); "error" and "busy" on
    /// the command lines the interpreters run. A target "/0x..." is read
    /// with upper-case hex digits. Thread-safe.
    void AddFault(FaultRule rule);
    /// Removes every fault. Thread-safe.
    void ClearFaults();

    /// Powers the node up: its boot-up message; it is then pre-operational.
    SimCanFrame BootUp();
    /// Feeds one frame seen on the bus at now; returns what the node sends.
    std::vector<SimCanOutput> Receive(const SimCanFrame& frame, Clock::time_point now);
    /// The heartbeat due at now, if any (see NextTick).
    std::vector<SimCanOutput> Tick(Clock::time_point now);
    /// When Tick has something to send; the far future when nothing.
    Clock::time_point NextTick() const;

private:
    std::vector<SimCanOutput> OnNmt(const SimCanFrame& frame, Clock::time_point now);
    std::vector<SimCanOutput> OnSdo(const SimCanFrame& frame, Clock::time_point now);
    std::vector<SimCanOutput> OnBinary(const SimCanFrame& frame, Clock::time_point now);
    // Applies a drop or delay rule to an answer.
    std::vector<SimCanOutput> Send(const SimCanFrame& frame, const FaultRule& rule, Clock::time_point now);
    // Follows a change of the heartbeat time written to 0x1017.
    void ScheduleHeartbeat(Clock::time_point now);
    SimCanFrame Emergency(std::uint16_t code);

    CSimCanObjects m_Objects;
    CSimCanSdoServer m_Sdo;
    CSimFaults m_Faults;
    std::shared_ptr<const CSimVersionDb> m_pDb;
    const SimParamList* m_pParams = nullptr;
    std::uint8_t m_nState = kNmtStatePreOperational;
    std::uint16_t m_wHeartbeatMs = 0;
    Clock::time_point m_tNextHeartbeat = Clock::time_point::max();
};

} // namespace tessitor::sim
