// The virtual drive on a pseudo-terminal: the serial face. Echoes every
// byte it receives, runs each line through CSimDrive, and sends the value
// and terminator back (or the error byte and "?;"), optionally paced like a
// real baud rate and with injected faults.
#pragma once

#include <memory>
#include <string>

#include "sim/simdrive.h"
#include "sim/simfaults.h"

namespace tessitor::sim {

class CSimSerialServer {
public:
    /// Serves drive (shared; may also be served by other faces).
    explicit CSimSerialServer(std::shared_ptr<CSimDrive> drive);
    /// Stops serving and closes the pseudo-terminal.
    ~CSimSerialServer();

    /// Opens the pseudo-terminal and starts the serving thread; throws
    /// std::system_error when the terminal cannot be made.
    void Start();
    void Stop();
    /// The device path a client opens (/dev/pts/N); valid after Start.
    std::string SlavePath() const;
    /// Bytes per second on the wire: baud / 10; 0 = as fast as possible.
    void SetPace(unsigned baud);
    /// The faults injected into replies; change them at any time.
    CSimFaults& Faults();

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

} // namespace tessitor::sim
