// The Ui of the command line: messages on stderr; questions answered at
// the terminal, or by --yes / --no when nobody is there to answer; a wait
// that lasts more than about a second shown on one line of stderr while it
// lasts, when stderr is a terminal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "core/ui.h"
#include "ui/cli/statusline.h"

namespace tessitor::cli {

class CTerminalUi : public Ui {
public:
    /// How long a wait goes unshown.
    static constexpr std::chrono::milliseconds kWaitShownAfter{1000};

    CTerminalUi(bool bAlwaysYes, bool bAlwaysNo);
    /// Clears a wait still shown and stops the thread that shows it.
    ~CTerminalUi() override;
    CTerminalUi(const CTerminalUi&) = delete;
    CTerminalUi& operator=(const CTerminalUi&) = delete;

    /// Prints caption and text on stderr; a question is asked at the
    /// terminal, with what was typed ahead discarded first.
    int MessageBox(Window* parent, const std::string& text, const std::string& caption, unsigned style) override;
    /// Later attempts of one command keep the clock of its first.
    void WaitBegin(const std::string& command, const std::string& device, int attempt, int attempts) override;
    void WaitEnd() override;

private:
    using Clock = std::chrono::steady_clock;
    void ShowWaits();
    void ClearShownWait();

    const bool m_bAlwaysYes;
    const bool m_bAlwaysNo;
    CStatusLine m_WaitLine;

    std::mutex m_csWait;
    std::condition_variable m_cvWait;
    std::thread m_WaitThread; // started by the first wait
    bool m_bStop = false;
    bool m_bWaiting = false;
    bool m_bShown = false; // the wait of now is on m_WaitLine
    std::string m_sWaitText;
    Clock::time_point m_tWaitStart;
};

} // namespace tessitor::cli
