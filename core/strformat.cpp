#include "core/strformat.h"

#include <cstdarg>
#include <cstdio>

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

} // namespace tessitor
