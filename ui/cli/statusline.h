// One line of stderr that tells what long work is doing, on a terminal
// only: each Show replaces the line, Show("") clears it, and nothing of it
// reaches a pipe or a file. Progress of a recording, a transfer and the
// wait for a slow answer all use it, so they look alike.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>

namespace tessitor::cli {

class CStatusLine {
public:
    CStatusLine();
    /// Clears the line if it is shown.
    ~CStatusLine();
    CStatusLine(const CStatusLine&) = delete;
    CStatusLine& operator=(const CStatusLine&) = delete;

    /// True when stderr is a terminal, so that Show shows anything.
    bool IsTerminal() const { return m_bTerminal; }
    /// True while a text is shown.
    bool IsShown() const;
    /// Replaces the line with text (safe from any thread); "" clears it.
    void Show(const std::string& text);

private:
    const bool m_bTerminal;
    mutable std::mutex m_csLine;
    std::size_t m_nShownBytes = 0;
};

} // namespace tessitor::cli
