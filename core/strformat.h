// Small text helpers: printf-style formatting into a std::string, for the
// formats the system fixes ("%5.3f", "Error (%d) :  '%s' : "), checked by
// the compiler; trimming; and showing raw bytes as readable text.
#pragma once

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

} // namespace tessitor
