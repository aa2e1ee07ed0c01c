// The timing of the serial line between a host and the virtual drive: when
// each byte the host wrote reaches the drive, and when each byte the drive
// sends has reached the host, at a paced rate (10 bits a byte), full duplex
// (RS-232: both directions at once) or half duplex (RS-485: one direction at
// a time). No I/O and no clock of its own: times are seconds on the
// caller's clock, so a test can hand it times and read back times.
#pragma once

namespace tessitor::sim {

/// Which directions of the line may carry bytes at the same time.
enum class SimDuplex {
    kFull, ///< RS-232: the drive echoes each byte once it has arrived
    kHalf, ///< RS-485: the drive answers after the whole command; nothing overlaps
};

class CSimWirePacer {
public:
    /// A host that writes within this long of the drive's last byte is
    /// taken to have written at once: that gap is the machines' wake-up
    /// latency, which the line itself does not have [s].
    static constexpr double kTurnaroundSeconds = 0.005;

    /// Bytes a second each way; 0 = no pacing (every byte takes no time).
    void SetRate(unsigned bytesPerSecond) { m_nBytesPerSecond = bytesPerSecond; }
    unsigned Rate() const { return m_nBytesPerSecond; }
    void SetDuplex(SimDuplex duplex) { m_eDuplex = duplex; }
    SimDuplex Duplex() const { return m_eDuplex; }

    /// When the next byte the host wrote has reached the drive, given when
    /// the drive read it from the host's side. Call once per byte, in order,
    /// after the drive has queued its answers to the bytes before it.
    double Arrival(double readAt);
    /// When the next byte the drive sends has reached the host, given the
    /// earliest time the drive may start it. Call once per byte, in order.
    double Departure(double notBefore);
    /// A byte the drive sent was handed to the host; done is the time
    /// Departure gave it.
    void Delivered(double done);
    /// Forgets the line's past (a new host, or pacing switched on).
    void Reset();

private:
    double ByteTime() const { return 1.0 / m_nBytesPerSecond; }

    unsigned m_nBytesPerSecond = 0;
    SimDuplex m_eDuplex = SimDuplex::kFull;
    double m_dInBusyUntil = -1e300;
    double m_dOutBusyUntil = -1e300;
    double m_dLastDelivered = -1e300;
};

} // namespace tessitor::sim
