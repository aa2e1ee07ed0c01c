// The virtual drive on a pseudo-terminal: the serial face. Echoes every
// byte it receives, runs each line through CSimDrive, and sends the value
// and terminator back (or the error byte and "?;"), optionally paced like a
// real line of a baud rate in both directions, full or half duplex, and
// with injected faults. Serves one client after another, whoever they are.
#pragma once

#include <memory>
#include <string>

#include "sim/simdrive.h"
#include "sim/simfaults.h"
#include "sim/simwirepacer.h"

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
    /// Paces both directions like a line of baud (10 bits a byte); 0 = as
    /// fast as possible.
    void SetPace(unsigned baud);
    /// Full duplex (the default: echo byte by byte) or half duplex (the
    /// answer, echo included, after the whole command; nothing overlaps).
    void SetDuplex(SimDuplex duplex);
    /// The faults injected into replies; change them at any time.
    CSimFaults& Faults();

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

} // namespace tessitor::sim
