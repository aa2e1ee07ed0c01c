#include "ui/cli/textforms.h"

#include "core/strformat.h"

namespace tessitor::cli {
std::size_t FindControlByte(const std::string& text)
{
    for (std::size_t i = 0; i < text.size(); ++i)
        if (static_cast<unsigned char>(text[i]) < 0x20 || text[i] == 0x7F)
            return i;
    return std::string::npos;
}

std::string CutMiddle(const std::string& text, std::size_t maxBytes)
{
    if (text.size() <= maxBytes)
        return text;
    std::size_t head = maxBytes / 2, tail = maxBytes - head;
    return text.substr(0, head) + StrFormat("[... %zu bytes ...]", text.size() - head - tail)
           + text.substr(text.size() - tail);
}

std::string ForMessage(const std::string& text, std::size_t maxBytes, bool bKeepLineFeeds)
{
    std::string cut = CutMiddle(text, maxBytes);
    if (!bKeepLineFeeds)
        return Escaped(cut);
    std::string shown;
    std::size_t start = 0;
    for (;;) {
        std::size_t lf = cut.find('\n', start);
        shown += Escaped(cut.substr(start, lf - start));
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
