#include "can/binaryinterpreter.h"

#include <cstdlib>
#include <cstring>

#include "core/strformat.h"

namespace tessitor {
namespace {

void PutLittleEndian(std::uint8_t* to, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        to[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint32_t LittleEndian32(const std::uint8_t* from)
{
    return static_cast<std::uint32_t>(from[0]) | static_cast<std::uint32_t>(from[1]) << 8
        | static_cast<std::uint32_t>(from[2]) << 16 | static_cast<std::uint32_t>(from[3]) << 24;
}

} // namespace

BinaryRequest BuildBinaryRequest(const std::string& command)
{
    BinaryRequest request;
    request.abData[0] = command.size() > 0 ? static_cast<std::uint8_t>(command[0]) : 0;
    request.abData[1] = command.size() > 1 ? static_cast<std::uint8_t>(command[1]) : 0;
    std::uint16_t word = 0;
    std::size_t open = command.find('['), close = command.find(']');
    if (open != std::string::npos && close != std::string::npos)
        word = static_cast<std::uint16_t>(std::atoi(command.c_str() + open + 1) & kBinaryIndexMask);
    request.bIndexed = word != 0;
    const bool floating = command.find('.') != std::string::npos;
    if (floating)
        word |= kBinaryFloatFlag;
    request.abData[2] = static_cast<std::uint8_t>(word);
    request.abData[3] = static_cast<std::uint8_t>(word >> 8);
    if (std::size_t equals = command.find('='); equals != std::string::npos) {
        const char* value = command.c_str() + equals + 1;
        std::uint32_t bits;
        if (floating) {
            float f = std::strtof(value, nullptr);
            std::memcpy(&bits, &f, sizeof bits);
        } else {
            bits = static_cast<std::uint32_t>(static_cast<std::int32_t>(std::strtol(value, nullptr, 10)));
        }
        PutLittleEndian(&request.abData[4], bits);
        request.nLength = kBinaryValueLength;
    }
    return request;
}

bool BinaryReplyFailed(const std::uint8_t* data)
{
    return (data[3] << 8 & kBinaryErrorFlag) != 0;
}

std::string FormatBinaryReply(const std::uint8_t* data, std::uint16_t length, bool bIndexed)
{
    const auto word = static_cast<std::uint16_t>(data[2] | data[3] << 8);
    const std::uint32_t bits = LittleEndian32(data + 4);
    if (BinaryReplyFailed(data))
        return StrFormat("%d", static_cast<std::int32_t>(bits));
    const bool floating = (word & kBinaryFloatFlag) != 0;
    // The request's index decides the bracketed form; the number shown is
    // the reply's word, its flag bits cleared only for a float.
    const int index = static_cast<std::int16_t>(floating ? word & kBinaryIndexMask : word);
    const char a = static_cast<char>(data[0]), b = static_cast<char>(data[1]);
    if (length <= kBinaryQueryLength)
        return bIndexed ? StrFormat("%c%c[%d]", a, b, index) : StrFormat("%c%c", a, b);
    if (floating) {
        float f;
        std::memcpy(&f, &bits, sizeof f);
        const double value = f;
        return bIndexed ? StrFormat("%c%c[%d]=%.8g", a, b, index, value) : StrFormat("%c%c=%.8g", a, b, value);
    }
    const int value = static_cast<std::int32_t>(bits);
    return bIndexed ? StrFormat("%c%c[%d]=%d", a, b, index, value) : StrFormat("%c%c=%d", a, b, value);
}

std::string ShortestFloatText(const std::string& text)
{
    if (text.find_first_of(".eE") == std::string::npos)
        return text; // an integer: exact as it stands
    char* end = nullptr;
    const float value = std::strtof(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0')
        return text;
    for (int digits = 1; digits < 9; ++digits) {
        std::string shorter = StrFormat("%.*g", digits, static_cast<double>(value));
        if (std::strtof(shorter.c_str(), nullptr) == value)
            return shorter;
    }
    return text;
}

} // namespace tessitor
