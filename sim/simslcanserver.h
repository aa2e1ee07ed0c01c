// The virtual drive on a CAN bus behind an SLCAN adapter: a pseudo-terminal
// that speaks the Lawicel ASCII protocol as the common USB-CAN sticks do
// ("S0".."S8", "O", "L", "C", "t"/"T"/"r"/"R" frames, "F", "V", "N", "Z"),
// with one or several virtual drives on the bus behind it, each its own
// CANopen node. The bus can be paced at its bit rate: every frame then takes
// its time on the wire with worst-case bit stuffing, one frame at a time.
//
//   CSimSlcanServer bus;
//   bus.AddNode(std::make_shared<CSimDrive>("Bressa"), 5);
//   bus.AddNode(std::make_shared<CSimDrive>("Talvina"), 6);
//   bus.Start();                 // serving when it returns
//   ... open bus.SlavePath() with an SLCAN client: "S8\r", "O\r", "t6058400010...\r" ...
#pragma once

#include <memory>
#include <string>

#include "sim/simcannode.h"
#include "sim/simdrive.h"
#include "sim/simfaults.h"

namespace tessitor::sim {

class CSimSlcanServer {
public:
    CSimSlcanServer();
    /// Stops serving and closes the pseudo-terminal.
    ~CSimSlcanServer();
    CSimSlcanServer(const CSimSlcanServer&) = delete;
    CSimSlcanServer& operator=(const CSimSlcanServer&) = delete;

    /// Puts drive (shared; other faces may serve it too) on the bus as node
    /// nodeId, before Start; throws std::invalid_argument for an id outside
    /// 1..127 or one already on the bus, std::logic_error once serving.
    CSimCanNode& AddNode(std::shared_ptr<CSimDrive> drive, int nodeId);
    /// The node with that id, or null. Its drive and faults may be used
    /// while serving; its frames belong to the serving thread.
    CSimCanNode* Node(int nodeId);

    /// Opens the pseudo-terminal and starts the serving thread; throws
    /// std::system_error when the terminal cannot be made.
    void Start();
    /// Ends serving and closes the pseudo-terminal; a client that still
    /// holds it reads nothing more.
    void Stop();
    /// The device path a client opens (/dev/pts/N); valid after Start.
    std::string SlavePath() const;

    /// True for the bit rates an SLCAN adapter can be set to [kbit/s]:
    /// 10, 20, 50, 100, 125, 250, 500, 800, 1000.
    static bool IsBitrate(unsigned kbit);
    /// The bus's bit rate [kbit/s], default 1000; throws std::invalid_argument
    /// for one IsBitrate refuses. The adapter starts at it; set to another
    /// ("Sn"), it sees no frame, as on a real bus.
    void SetBitrate(unsigned kbit);
    /// true: every frame takes its time on the bus at the bit rate; false:
    /// as fast as the machine goes.
    void SetPace(bool pace);
    /// Adds rule to every node (see CSimCanNode::AddFault).
    void AddFault(const FaultRule& rule);

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

} // namespace tessitor::sim
