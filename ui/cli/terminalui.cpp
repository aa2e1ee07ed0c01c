#include "ui/cli/terminalui.h"

#include <cstdio>
#include <termios.h>
#include <unistd.h>

#include "core/strformat.h"
#include "ui/cli/textforms.h"

namespace tessitor::cli {
namespace {

constexpr std::size_t kMaxShownCommandBytes = 40;

// One line typed at the terminal, without its line end; false at end of input.
bool ReadAnswer(std::string& answer)
{
    answer.clear();
    char c;
    for (;;) {
        ssize_t n = ::read(STDIN_FILENO, &c, 1);
        if (n <= 0)
            return !answer.empty();
        if (c == '\n')
            return true;
        if (c != '\r')
            answer += c;
    }
}

} // namespace

CTerminalUi::CTerminalUi(bool bAlwaysYes, bool bAlwaysNo)
    : m_bAlwaysYes(bAlwaysYes), m_bAlwaysNo(bAlwaysNo)
{
}

CTerminalUi::~CTerminalUi()
{
    {
        std::lock_guard lock(m_csWait);
        m_bStop = true;
        ClearShownWait();
    }
    m_cvWait.notify_all();
    if (m_WaitThread.joinable())
        m_WaitThread.join();
}

int CTerminalUi::MessageBox(Window*, const std::string& text, const std::string& caption, unsigned style)
{
    {
        std::lock_guard lock(m_csWait);
        ClearShownWait();
    }
    std::fprintf(stderr, "%s: %s\n", caption.c_str(), ForMessage(text, kMaxMessageBytes, true).c_str());
    const unsigned buttons = style & 0xF;
    const bool yesNo = buttons == MB_YESNO || buttons == MB_YESNOCANCEL;
    if (!yesNo && buttons != MB_OKCANCEL)
        return IDOK;
    const int yes = yesNo ? IDYES : IDOK;
    const int no = yesNo ? IDNO : IDCANCEL;
    if (m_bAlwaysYes)
        return yes;
    if (m_bAlwaysNo)
        return no;
    // Ask only a person at a terminal: from a script the safe answer is no.
    if (!::isatty(STDIN_FILENO))
        return no;
    // Lines typed while the drive was busy were meant for the drive, not
    // for this question.
    ::tcflush(STDIN_FILENO, TCIFLUSH);
    std::fprintf(stderr, yesNo ? "[y/N] " : "[o/C] ");
    std::fflush(stderr);
    std::string answer;
    if (!ReadAnswer(answer))
        std::fprintf(stderr, "\n");
    answer = Trim(answer);
    if (answer == "y" || answer == "Y" || answer == "yes" || (!yesNo && (answer == "o" || answer == "O")))
        return yes;
    return no;
}

void CTerminalUi::WaitBegin(const std::string& command, const std::string& device, int attempt, int attempts)
{
    if (!m_WaitLine.IsTerminal())
        return;
    std::string text = "waiting for " + ForMessage(command, kMaxShownCommandBytes) + " on " + ForMessage(device);
    if (attempts > 1)
        text += StrFormat(", attempt %d of %d", attempt, attempts);
    {
        std::lock_guard lock(m_csWait);
        if (attempt <= 1)
            m_tWaitStart = Clock::now();
        ClearShownWait(); // the thread shows the new text at once
        m_sWaitText = text;
        m_bWaiting = true;
        if (!m_WaitThread.joinable())
            m_WaitThread = std::thread([this] { ShowWaits(); });
    }
    m_cvWait.notify_all();
}

void CTerminalUi::WaitEnd()
{
    if (!m_WaitLine.IsTerminal())
        return;
    std::lock_guard lock(m_csWait);
    m_bWaiting = false;
    ClearShownWait();
}

void CTerminalUi::ClearShownWait()
{
    if (!m_bShown)
        return;
    m_WaitLine.Show("");
    m_bShown = false;
}

void CTerminalUi::ShowWaits()
{
    std::unique_lock lock(m_csWait);
    while (!m_bStop) {
        if (!m_bWaiting || m_bShown) {
            m_cvWait.wait(lock);
            continue;
        }
        if (Clock::now() < m_tWaitStart + kWaitShownAfter) {
            m_cvWait.wait_until(lock, m_tWaitStart + kWaitShownAfter);
            continue;
        }
        m_WaitLine.Show(m_sWaitText);
        m_bShown = true;
    }
}

} // namespace tessitor::cli
