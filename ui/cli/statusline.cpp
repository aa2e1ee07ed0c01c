#include "ui/cli/statusline.h"

#include <unistd.h>

namespace tessitor::cli {
namespace {

// write(2) rather than stdio: the line may change from another thread while
// the main thread prints, and must not wait in a buffer.
void WriteStderr(const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n <= 0)
            return;
        done += static_cast<std::size_t>(n);
    }
}

} // namespace

CStatusLine::CStatusLine() : m_bTerminal(::isatty(STDERR_FILENO) != 0) {}

CStatusLine::~CStatusLine()
{
    Show("");
}

bool CStatusLine::IsShown() const
{
    std::lock_guard lock(m_csLine);
    return m_nShownBytes > 0;
}

void CStatusLine::Show(const std::string& text)
{
    std::lock_guard lock(m_csLine);
    if (!m_bTerminal || (m_nShownBytes == 0 && text.empty()))
        return;
    // Blanks rather than an erase sequence: every terminal knows them.
    std::string line = "\r";
    if (m_nShownBytes > text.size())
        line += std::string(m_nShownBytes, ' ') + "\r";
    WriteStderr(line + text);
    m_nShownBytes = text.size();
}

} // namespace tessitor::cli
