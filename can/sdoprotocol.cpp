#include "can/sdoprotocol.h"

#include <algorithm>

namespace tessitor::sdo {
namespace {

struct AbortEntry {
    std::uint32_t nCode;
    const char* szText;
};

// 0x05040000 and 0x05040002..4 have no message of their own on purpose;
// the "T" that starts the 0x05040001 text is what users have always seen.
constexpr AbortEntry kAbortTexts[] = {
    {kAbortToggle, "Toggle bit not alternated."},
    {kAbortCommandSpecifier, "TClient/server command specifier not valid or unknown."},
    {0x05040005, "Out of memory."},
    {0x06010000, "Unsupported access to an object."},
    {0x06010001, "Attempt to read a write only object."},
    {0x06010002, "Attempt to write a read only object."},
    {kAbortNoObject, "Object does not exist in the object dictionary."},
    {0x06040041, "Object cannot be mapped to the PDO."},
    {0x06040042, "The number and length of the objects to be mapped would exceed PDO length."},
    {0x06040043, "General parameter incompatibility reason."},
    {kAbortInternalIncompatibility, "General internal incompatibility in the device."},
    {0x06060000, "Access failed due to an hardware error."},
    {0x06070010, "Data type does not match, length of service parameter does not match."},
    {0x06070012, "Data type does not match, length of service parameter too high."},
    {0x06070013, "Data type does not match, length of service parameter too low."},
    {kAbortNoSubIndex, "Sub-index does not exist."},
    {0x06090030, "Value range of parameter exceeded (only for write access)."},
    {0x06090031, "Value of parameter written too high."},
    {0x06090032, "Value of parameter written too low."},
    {0x06090036, "Maximum value is less than minimum value."},
    {kAbortGeneralError, "SDO Aborted with general error!\n"},
    {0x08000020, "Data cannot be transferred or stored to the application."},
    {0x08000021, "Data cannot be transferred or stored to the application because of local control."},
    {0x08000022, "Data cannot be transferred or stored to the application because of the present device state."},
    {0x08000023, "Object dictionary dynamic generation fails or no object dictionary is present (e.g. object "
                 "dictionary is generated from file and generation fails because of a file error)."},
};

Frame Initiate(std::uint8_t command, std::uint16_t index, std::uint8_t sub)
{
    return Frame{command, static_cast<std::uint8_t>(index), static_cast<std::uint8_t>(index >> 8), sub, 0, 0, 0, 0};
}

} // namespace

std::uint32_t Value32(const Frame& f)
{
    return static_cast<std::uint32_t>(f[4]) | static_cast<std::uint32_t>(f[5]) << 8
        | static_cast<std::uint32_t>(f[6]) << 16 | static_cast<std::uint32_t>(f[7]) << 24;
}

Frame InitUploadRequest(std::uint16_t index, std::uint8_t sub)
{
    return Initiate(kInitUploadRequest, index, sub);
}

Frame UploadSegmentRequest(int toggle)
{
    return Frame{static_cast<std::uint8_t>(kUploadSegmentRequest | (toggle & 1) << 4), 0, 0, 0, 0, 0, 0, 0};
}

Frame ExpeditedDownload(std::uint16_t index, std::uint8_t sub, const std::uint8_t* data, std::uint32_t length)
{
    length = std::min<std::uint32_t>(length, 4);
    Frame f = Initiate(static_cast<std::uint8_t>(kCcsInitDownload << 5 | ((4 - length) & 3) << 2 | 0x02), index, sub);
    std::copy(data, data + length, f.begin() + 4);
    return f;
}

Frame InitSegmentedDownload(std::uint16_t index, std::uint8_t sub, std::uint32_t size)
{
    Frame f = Initiate(kInitSegmentedDownload, index, sub);
    for (int i = 0; i < 4; ++i)
        f[4 + i] = static_cast<std::uint8_t>(size >> (8 * i));
    return f;
}

Frame DownloadSegment(int toggle, const std::uint8_t* data, std::uint32_t length, bool last)
{
    length = std::min(length, kBytesPerSegment);
    Frame f{};
    f[0] = static_cast<std::uint8_t>((toggle & 1) << 4);
    if (length < kBytesPerSegment)
        f[0] |= static_cast<std::uint8_t>((kBytesPerSegment - length) << 1);
    if (last)
        f[0] |= 0x01;
    std::copy(data, data + length, f.begin() + 1);
    return f;
}

const char* AbortMessage(std::uint32_t code)
{
    for (const AbortEntry& entry : kAbortTexts)
        if (entry.nCode == code)
            return entry.szText;
    return "";
}

std::string AbortText(std::uint32_t code)
{
    return std::string("SDO Abort:\n") + AbortMessage(code);
}

} // namespace tessitor::sdo
