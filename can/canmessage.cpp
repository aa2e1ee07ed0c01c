#include "can/canmessage.h"

#include <algorithm>

#include "core/strformat.h"

namespace tessitor {

CanFrame MakeCanFrame(std::uint32_t id, const std::uint8_t* data, std::uint8_t length)
{
    CanFrame frame;
    frame.nId = id;
    frame.nLength = std::min<std::uint8_t>(length, 8);
    if (data)
        std::copy(data, data + frame.nLength, frame.abData.begin());
    return frame;
}

std::string FormatCanFrame(const CanFrame& frame)
{
    std::string text = frame.bExtended ? StrFormat("%08X#", frame.nId) : StrFormat("%03X#", frame.nId);
    if (frame.bRemote)
        return text + "R";
    for (int i = 0; i < frame.nLength && i < 8; ++i)
        text += StrFormat("%02X", frame.abData[static_cast<size_t>(i)]);
    return text;
}

} // namespace tessitor
