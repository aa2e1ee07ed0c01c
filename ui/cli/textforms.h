// Text as the command line shows and reads it: control bytes of a peer's
// text escaped before they reach a terminal, long texts cut in messages,
// and the shell-quoted form of a one-line descriptor that survives a paste.
#pragma once

#include <cstddef>
#include <string>

namespace tessitor::cli {

/// Longest text a message quotes whole; a longer one keeps its head and tail.
constexpr std::size_t kMaxQuotedBytes = 160;

/// The first control byte (0x00-0x1F, 0x7F) of text, or npos.
std::size_t FindControlByte(const std::string& text);
/// text with every byte outside printable ASCII written as an escape
/// ("\r", "\n", "\t", "\e", "\xHH"), so a terminal shows it and obeys none.
std::string EscapeControlBytes(const std::string& text);
/// text for a message: control bytes escaped (line feeds kept when
/// bKeepLineFeeds), and cut in the middle when longer than maxBytes.
std::string ForMessage(const std::string& text, std::size_t maxBytes = kMaxQuotedBytes, bool bKeepLineFeeds = false);

/// text as a bash $'...' word: what a shell turns back into text exactly.
std::string ShellQuoted(const std::string& text);
/// The text a $'...' word stands for; text as it is when it is not one.
/// False when the word is malformed.
bool ShellUnquoted(const std::string& text, std::string& result);

} // namespace tessitor::cli
