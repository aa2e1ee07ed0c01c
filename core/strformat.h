// Small text helpers: printf-style formatting into a std::string, for the
// formats the system fixes ("%5.3f", "Error (%d) :  '%s' : "), checked by
// the compiler; and trimming.
#pragma once

#include <string>

namespace tessitor {

/// The text snprintf would produce, whatever its length.
std::string StrFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// text without leading and trailing blanks, tabs, CR and LF.
std::string Trim(const std::string& text);

} // namespace tessitor
