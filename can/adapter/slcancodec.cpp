#include "can/adapter/slcancodec.h"

#include "core/strformat.h"

namespace tessitor::slcan {
namespace {

// "T" + 8 id digits + length + 16 data digits + a 4-digit time stamp, with room.
constexpr std::size_t kLongestLine = 64;

} // namespace

std::string BitRateCommand(std::uint8_t bitRateIndex)
{
    // Descriptor indices 0..6 are S0..S6; 7 is 1000 kbit/s, which SLCAN
    // calls S8 (its S7 is 800 kbit/s, the descriptor's index 8).
    static constexpr const char* kCommands[] = {"S0\r", "S1\r", "S2\r", "S3\r", "S4\r", "S5\r", "S6\r", "S8\r", "S7\r"};
    return bitRateIndex < std::size(kCommands) ? kCommands[bitRateIndex] : "";
}

std::string EncodeFrame(const CanFrame& frame)
{
    char kind = frame.bRemote ? 'r' : 't';
    std::string line = frame.bExtended ? StrFormat("%c%08X%u", kind - 32, frame.nId & 0x1FFFFFFF, frame.nLength)
                                       : StrFormat("%c%03X%u", kind, frame.nId & 0x7FF, frame.nLength);
    if (!frame.bRemote)
        for (int i = 0; i < frame.nLength && i < 8; ++i)
            line += StrFormat("%02X", frame.abData[static_cast<std::size_t>(i)]);
    return line + kEndOfLine;
}

bool DecodeFrame(const std::string& line, CanFrame& frame)
{
    if (line.empty())
        return false;
    const char kind = line[0];
    const bool extended = kind == 'T' || kind == 'R';
    const bool remote = kind == 'r' || kind == 'R';
    if (!extended && kind != 't' && kind != 'r')
        return false;
    const std::size_t idDigits = extended ? 8 : 3;
    std::uint32_t id = 0, length = 0;
    if (!ReadHex(line, 1, idDigits, id) || !ReadHex(line, 1 + idDigits, 1, length) || length > 8)
        return false;
    if (extended ? id > 0x1FFFFFFF : id > 0x7FF)
        return false;
    CanFrame read;
    read.nId = id;
    read.nLength = static_cast<std::uint8_t>(length);
    read.bExtended = extended;
    read.bRemote = remote;
    if (!remote)
        for (std::uint32_t i = 0; i < length; ++i) {
            std::uint32_t byte = 0;
            if (!ReadHex(line, 2 + idDigits + 2 * i, 2, byte))
                return false;
            read.abData[i] = static_cast<std::uint8_t>(byte);
        }
    frame = read;
    return true;
}

std::vector<std::string> TakeLines(std::string& pending)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t i = 0; i < pending.size(); ++i) {
        char c = pending[i];
        if (c != '\r' && c != '\n' && c != kErrorAnswer)
            continue;
        if (i > start)
            lines.push_back(pending.substr(start, i - start));
        if (c == kErrorAnswer)
            lines.emplace_back(1, kErrorAnswer);
        start = i + 1;
    }
    pending.erase(0, start);
    if (pending.size() > kLongestLine)
        pending.clear();
    return lines;
}

} // namespace tessitor::slcan
