// Small text helpers: printf-style formatting into a std::string, for the
// formats the system fixes ("%5.3f", "Error (%d) :  '%s' : "), checked by
// the compiler; trimming; reading a text line whatever its line end;
// showing raw bytes as readable text; and reading the hexadecimal numbers
// of drive answers and adapter lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace tessitor {

/// The text snprintf would produce, whatever its length.
std::string StrFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// text without leading and trailing blanks, tabs, CR and LF.
std::string Trim(const std::string& text);
/// bytes with every one that is not printable ASCII escaped: "\r", "\n",
/// "\t", "\\" for a backslash, "\xNN" for the others ("PX\r1234;").
std::string Escaped(std::string_view bytes);
/// The next line of in without its line end (LF or CR LF); false at the
/// end of the input.
bool ReadLine(std::istream& in, std::string& line);
/// The value of a hex digit (either case), or -1 for any other character.
int HexDigit(char c);
/// The hex number of the digits characters at at, into 32 bits (a longer
/// number keeps its last eight digits); false, value undefined, when the
/// text is too short or holds a character that is not a hex digit.
bool ReadHex(std::string_view text, std::size_t at, std::size_t digits, std::uint32_t& value);

} // namespace tessitor
