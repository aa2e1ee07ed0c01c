#include "sim/simwirepacer.h"

#include <algorithm>

namespace tessitor::sim {

double CSimWirePacer::Arrival(double readAt)
{
    if (m_nBytesPerSecond == 0)
        return readAt;
    // A host answering the drive's last byte at once started on the wire
    // when that byte arrived, whatever its own wake-up took; after a
    // longer pause it started when it wrote.
    double start = readAt - m_dLastDelivered <= kTurnaroundSeconds ? std::min(readAt, m_dLastDelivered) : readAt;
    start = std::max(start, m_dInBusyUntil);
    if (m_eDuplex == SimDuplex::kHalf)
        start = std::max(start, m_dOutBusyUntil);
    m_dInBusyUntil = start + ByteTime();
    return m_dInBusyUntil;
}

double CSimWirePacer::Departure(double notBefore)
{
    if (m_nBytesPerSecond == 0)
        return notBefore;
    double start = std::max(notBefore, m_dOutBusyUntil);
    if (m_eDuplex == SimDuplex::kHalf)
        start = std::max(start, m_dInBusyUntil);
    m_dOutBusyUntil = start + ByteTime();
    return m_dOutBusyUntil;
}

void CSimWirePacer::Delivered(double done)
{
    m_dLastDelivered = std::max(m_dLastDelivered, done);
}

void CSimWirePacer::Reset()
{
    m_dInBusyUntil = m_dOutBusyUntil = m_dLastDelivered = -1e300;
}

} // namespace tessitor::sim
