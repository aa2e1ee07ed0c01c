// The drive's binary interpreter on the second PDO pair, without I/O:
// requests go on 0x300 + node, replies come on 0x280 + node. Bytes 0..1 the
// mnemonic, 2..3 a word (bits 13..0 index, bit 14 error, bit 15 float),
// 4..7 the value (IEEE single or signed 32-bit), little endian.
//
//   BinaryRequest r = BuildBinaryRequest("SP=1.5");   // float bit, length 8
//   std::string text = FormatBinaryReply(reply, 8, r.bIndexed);   // "SP=1.5"
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tessitor {

constexpr std::uint16_t kBinaryIndexMask = 0x3FFF;
constexpr std::uint16_t kBinaryErrorFlag = 0x4000;
constexpr std::uint16_t kBinaryFloatFlag = 0x8000;
constexpr std::uint8_t kBinaryQueryLength = 4;
constexpr std::uint8_t kBinaryValueLength = 8;

struct BinaryRequest {
    std::array<std::uint8_t, 8> abData{};
    std::uint8_t nLength = kBinaryQueryLength;
    bool bIndexed = false; ///< the request's index is nonzero: the reply is shown with it
};

/// The request for command: letters, the index in brackets, the float bit
/// when the text holds ".", the value after "=" (length 8) or none (4).
BinaryRequest BuildBinaryRequest(const std::string& command);
/// The reply's text: "%c%c", "%c%c[%d]", "%c%c=%d", "%c%c[%d]=%d",
/// "%c%c=%.8g", "%c%c[%d]=%.8g"; with the error flag set, the drive's error
/// number ("%d").
std::string FormatBinaryReply(const std::uint8_t* data, std::uint16_t length, bool bIndexed);
/// True when the reply's error flag is set, whatever its value bytes hold.
bool BinaryReplyFailed(const std::uint8_t* data);
/// A float's text ("0.33000001" as "%.8g" gives it) in the fewest digits
/// that read back as the same single-precision number ("0.33"), the way a
/// drive prints it on a serial line; any other text as it is.
std::string ShortestFloatText(const std::string& text);

} // namespace tessitor
