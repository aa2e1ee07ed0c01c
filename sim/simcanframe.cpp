#include "sim/simcanframe.h"

#include <cstdio>

namespace tessitor::sim {

namespace {

// Bits from start of frame through the CRC, where the transmitter stuffs:
// start, identifier, RTR, IDE, r0 and DLC (extended: start, 11-bit base,
// SRR, IDE, 18-bit extension, RTR, r1, r0, DLC), the data, 15 CRC bits.
constexpr int kStuffedBitsStandard = 34;
constexpr int kStuffedBitsExtended = 54;
// CRC delimiter, ACK slot and delimiter, end of frame, interframe space.
constexpr int kUnstuffedTailBits = 13;

} // namespace

std::string SimCanFrame::Text() const
{
    char buffer[40];
    int at = std::snprintf(buffer, sizeof buffer, bExtended ? "%08X#" : "%03X#", static_cast<unsigned>(nId));
    if (bRemote) {
        buffer[at++] = 'R';
    } else {
        for (int i = 0; i < nLength && i < 8; ++i)
            at += std::snprintf(buffer + at, sizeof buffer - static_cast<std::size_t>(at), "%02X", arData[i]);
    }
    return std::string(buffer, static_cast<std::size_t>(at));
}

int SimCanFrameBits(const SimCanFrame& frame)
{
    int dataBits = frame.bRemote ? 0 : 8 * (frame.nLength > 8 ? 8 : frame.nLength);
    int stuffed = (frame.bExtended ? kStuffedBitsExtended : kStuffedBitsStandard) + dataBits;
    // After five equal bits the transmitter inserts one of the other value;
    // the stuff bit itself starts the next run, so at worst every fourth bit
    // after the first is one.
    int stuffBits = (stuffed - 1) / 4;
    return stuffed + stuffBits + kUnstuffedTailBits;
}

} // namespace tessitor::sim
