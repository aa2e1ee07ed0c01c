// For benchmarks: a virtual drive behind a serial line paced at a baud
// rate, and the client's serial link to it, connected.
#pragma once

#include <memory>
#include <string>

#include "communication/rs232.h"
#include "sim/simserialserver.h"

namespace tessitor::bench {

struct CPacedSerialDrive {
    explicit CPacedSerialDrive(unsigned baud, const std::string& product = "Talvina")
        : pDrive(std::make_shared<sim::CSimDrive>(product)), server(pDrive), link(CCommunicationInfo{})
    {
        server.SetPace(baud);
        server.Start();
        link.SetDevicePath(server.SlavePath());
        bConnected = link.Connect() == 0;
    }

    std::shared_ptr<sim::CSimDrive> pDrive;
    sim::CSimSerialServer server;
    CRs232 link;
    bool bConnected = false; ///< false: skip the benchmark, the pseudo-terminal did not open
};

} // namespace tessitor::bench
