#include "ui/cli/textforms.h"

#include "core/strformat.h"

namespace tessitor::cli {
namespace {

bool IsControl(unsigned char c)
{
    return c < 0x20 || c == 0x7F;
}

// The escape of one byte that is not printable ASCII.
std::string Escape(unsigned char c)
{
    switch (c) {
    case '\r': return "\\r";
    case '\n': return "\\n";
    case '\t': return "\\t";
    case 0x1B: return "\\e";
    default: return StrFormat("\\x%02X", c);
    }
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

std::size_t FindControlByte(const std::string& text)
{
    for (std::size_t i = 0; i < text.size(); ++i)
        if (IsControl(static_cast<unsigned char>(text[i])))
            return i;
    return std::string::npos;
}

std::string EscapeControlBytes(const std::string& text)
{
    std::string shown;
    shown.reserve(text.size());
    // Bytes 0x80 and up are escaped too: as 8-bit controls (0x9B is CSI)
    // some terminals obey them, and drive text is ASCII.
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F)
            shown += c;
        else
            shown += Escape(byte);
    }
    return shown;
}

std::string ForMessage(const std::string& text, std::size_t maxBytes, bool bKeepLineFeeds)
{
    std::string cut = text;
    if (cut.size() > maxBytes) {
        std::size_t head = maxBytes / 2, tail = maxBytes - head;
        cut = text.substr(0, head) + StrFormat("[... %zu bytes ...]", text.size() - head - tail)
              + text.substr(text.size() - tail);
    }
    if (!bKeepLineFeeds)
        return EscapeControlBytes(cut);
    std::string shown;
    std::size_t start = 0;
    for (;;) {
        std::size_t lf = cut.find('\n', start);
        shown += EscapeControlBytes(cut.substr(start, lf - start));
        if (lf == std::string::npos)
            return shown;
        shown += '\n';
        start = lf + 1;
    }
}

std::string ShellQuoted(const std::string& text)
{
    std::string quoted = "$'";
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (c == '\'' || c == '\\')
            quoted += std::string("\\") + c;
        else if (byte < 0x20 || byte >= 0x7F)
            quoted += StrFormat("\\%03o", byte);
        else
            quoted += c;
    }
    return quoted + "'";
}

bool ShellUnquoted(const std::string& text, std::string& result)
{
    if (text.size() < 3 || text.compare(0, 2, "$'") != 0 || text.back() != '\'') {
        result = text;
        return true;
    }
    std::string out;
    const std::size_t end = text.size() - 1;
    for (std::size_t i = 2; i < end; ++i) {
        if (text[i] == '\'')
            return false;
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        if (++i >= end)
            return false;
        char c = text[i];
        if (c >= '0' && c <= '7') {
            int value = 0, digits = 0;
            for (; digits < 3 && i < end && text[i] >= '0' && text[i] <= '7'; ++digits, ++i)
                value = value * 8 + (text[i] - '0');
            --i;
            out += static_cast<char>(value & 0xFF);
        } else if (c == 'x') {
            int value = 0, digits = 0;
            for (; digits < 2 && i + 1 < end && HexDigit(text[i + 1]) >= 0; ++digits, ++i)
                value = value * 16 + HexDigit(text[i + 1]);
            if (digits == 0)
                return false;
            out += static_cast<char>(value);
        } else {
            switch (c) {
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'e': case 'E': out += '\x1B'; break;
            case 'a': out += '\a'; break;
            case '\\': case '\'': case '"': case '?': out += c; break;
            default: return false;
            }
        }
    }
    result = out;
    return true;
}

} // namespace tessitor::cli
