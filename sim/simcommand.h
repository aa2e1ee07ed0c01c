// How the virtual drive reads one command line of the drive language:
// mnemonic, optional index in brackets, optional "=" and value. Written
// apart from the client's parsers on purpose.
#pragma once

#include <string>

namespace tessitor::sim {

/// One parsed command line.
struct SimCommand {
    std::string sMnemonic;  ///< two letters, upper case
    bool bIndexed = false;  ///< an index in brackets was given
    int nIndex = 0;
    bool bAssign = false;   ///< "=" was given
    std::string sValue;     ///< the text after "=", blanks trimmed
};

/// The text without its leading and trailing blanks and tabs.
std::string TrimBlanks(const std::string& text);

/// Parses line into command; returns 0 or the drive error number (2 bad
/// command, 3 bad index, 6 empty assignment, 35 syntax error).
int ParseSimCommand(const std::string& line, SimCommand& command);

/// Reads a number: decimal integer, decimal fraction with optional
/// exponent, or 0x hexadecimal; returns 0 or 30 (bad number format).
/// bInteger tells whether the text was written as an integer.
int ParseSimNumber(const std::string& text, double& value, bool& bInteger);

} // namespace tessitor::sim
