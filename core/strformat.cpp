#include "core/strformat.h"

#include <cstdarg>
#include <cstdio>
#include <istream>

namespace tessitor {

std::string StrFormat(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, args);
    va_end(args);
    return text;
}

std::string Trim(const std::string& text)
{
    size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos)
        return {};
    size_t end = text.find_last_not_of(" \t\r\n");
    return text.substr(begin, end - begin + 1);
}

std::string Escaped(std::string_view bytes)
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size());
    for (char c : bytes) {
        switch (c) {
        case '\r': text += "\\r"; break;
        case '\n': text += "\\n"; break;
        case '\t': text += "\\t"; break;
        case '\\': text += "\\\\"; break;
        default:
            if (c >= 0x20 && c < 0x7F) {
                text += c;
            } else {
                const auto b = static_cast<unsigned char>(c);
                text += "\\x";
                text += kHex[b >> 4];
                text += kHex[b & 0xF];
            }
        }
    }
    return text;
}

bool ReadLine(std::istream& in, std::string& line)
{
    if (!std::getline(in, line))
        return false;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return true;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

bool ReadHex(std::string_view text, std::size_t at, std::size_t digits, std::uint32_t& value)
{
    if (at > text.size() || digits > text.size() - at)
        return false;
    value = 0;
    for (std::size_t i = 0; i < digits; ++i) {
        int digit = HexDigit(text[at + i]);
        if (digit < 0)
            return false;
        value = value << 4 | static_cast<std::uint32_t>(digit);
    }
    return true;
}

} // namespace tessitor
