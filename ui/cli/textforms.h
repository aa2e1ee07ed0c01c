// Text as the command line shows and reads it: control bytes found in a
// command, long texts cut and escaped in messages (values on a terminal go
// through Escaped of core/strformat.h), and the shell-quoted form of a
// one-line descriptor that survives a paste.
#pragma once

#include <cstddef>
#include <string>

namespace tessitor::cli {

/// Longest text a message quotes whole; a longer one keeps its head and tail.
constexpr std::size_t kMaxQuotedBytes = 160;
/// Longest message shown whole (it may quote a reply or a settings line).
constexpr std::size_t kMaxMessageBytes = 600;

/// The first control byte (0x00-0x1F, 0x7F) of text, or npos.
std::size_t FindControlByte(const std::string& text);
/// text cut in the middle when longer than maxBytes: for quoting a peer's
/// or the user's text in a message, which is escaped once where it is shown.
std::string CutMiddle(const std::string& text, std::size_t maxBytes = kMaxQuotedBytes);
/// text as a message is shown: cut as CutMiddle does, and escaped so that a
/// terminal obeys none of it (line feeds kept when bKeepLineFeeds).
std::string ForMessage(const std::string& text, std::size_t maxBytes = kMaxQuotedBytes, bool bKeepLineFeeds = false);

/// text as a bash $'...' word: what a shell turns back into text exactly.
std::string ShellQuoted(const std::string& text);
/// The text a $'...' word stands for; text as it is when it is not one.
/// False when the word is malformed.
bool ShellUnquoted(const std::string& text, std::string& result);

} // namespace tessitor::cli
