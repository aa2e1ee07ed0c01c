#include "sim/simcommand.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace tessitor::sim {

namespace {

bool IsLetter(char c)
{
    return std::isalpha(static_cast<unsigned char>(c)) != 0;
}

} // namespace

std::string TrimBlanks(const std::string& text)
{
    auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return {};
    auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

int ParseSimCommand(const std::string& line, SimCommand& command)
{
    command = SimCommand{};
    std::string text = TrimBlanks(line);
    if (text.size() < 2 || !IsLetter(text[0]) || !IsLetter(text[1]))
        return text.empty() || IsLetter(text[0]) ? 2 : 35;
    command.sMnemonic = {static_cast<char>(std::toupper(static_cast<unsigned char>(text[0]))),
                         static_cast<char>(std::toupper(static_cast<unsigned char>(text[1])))};
    std::size_t pos = 2;
    if (pos < text.size() && IsLetter(text[pos]))
        return 2; // a longer word is no mnemonic of this language
    if (pos < text.size() && text[pos] == '[') {
        auto close = text.find(']', pos);
        if (close == std::string::npos)
            return 35;
        std::string index = TrimBlanks(text.substr(pos + 1, close - pos - 1));
        if (index.empty())
            return 3;
        bool negative = index[0] == '-';
        std::size_t digits = negative ? 1 : 0;
        if (digits >= index.size())
            return 35;
        for (std::size_t i = digits; i < index.size(); ++i)
            if (!std::isdigit(static_cast<unsigned char>(index[i])))
                return 35;
        if (negative || index.size() > 6)
            return 3;
        command.bIndexed = true;
        command.nIndex = std::atoi(index.c_str());
        pos = close + 1;
    }
    while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t'))
        ++pos;
    if (pos == text.size())
        return 0;
    if (text[pos] != '=')
        return 35;
    command.bAssign = true;
    command.sValue = TrimBlanks(text.substr(pos + 1));
    return command.sValue.empty() ? 6 : 0;
}

int ParseSimNumber(const std::string& text, double& value, bool& bInteger)
{
    if (text.empty())
        return 30;
    const char* begin = text.c_str();
    char* end = nullptr;
    std::size_t sign = (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (text.size() > sign + 2 && text[sign] == '0' && (text[sign + 1] == 'x' || text[sign + 1] == 'X')) {
        for (std::size_t i = sign + 2; i < text.size(); ++i)
            if (!std::isxdigit(static_cast<unsigned char>(text[i])))
                return 30;
        errno = 0;
        unsigned long long raw = std::strtoull(begin + sign + 2, &end, 16);
        if (errno == ERANGE || raw > 0xFFFFFFFFull)
            return 30;
        value = sign && text[0] == '-' ? -static_cast<double>(raw) : static_cast<double>(raw);
        bInteger = true;
        return 0;
    }
    // Only plain decimal notation: strtod alone would also take "inf" and "nan".
    bool digit = false;
    for (std::size_t i = sign; i < text.size(); ++i) {
        char c = text[i];
        if (std::isdigit(static_cast<unsigned char>(c)))
            digit = true;
        else if (c != '.' && c != 'e' && c != 'E' && c != '-' && c != '+')
            return 30;
    }
    if (!digit)
        return 30;
    errno = 0;
    value = std::strtod(begin, &end);
    if (end != begin + text.size() || errno == ERANGE || !std::isfinite(value))
        return 30;
    bInteger = text.find_first_of(".eE") == std::string::npos;
    return 0;
}

} // namespace tessitor::sim
