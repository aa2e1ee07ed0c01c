// The lines `tessitor term` reads: edited at a terminal (libedit, with
// history kept in $XDG_STATE_HOME/tessitor/history), read plainly from a
// pipe or file. Ctrl-C at the terminal ends the line being typed instead
// of the program, as in a shell.
#pragma once

#include <cstdio>
#include <histedit.h>
#include <iosfwd>
#include <memory>
#include <string>
#include <termios.h>

#include "ui/cli/signalthread.h"

namespace tessitor::cli {

class CLineEditor {
public:
    enum class Result {
        kLine,      ///< a line was entered
        kInterrupt, ///< Ctrl-C: the line typed so far is dropped
        kEnd,       ///< end of input (Ctrl-D on an empty line, end of the pipe)
    };

    /// Edits at the terminal when stdin is one, else reads stdin plainly.
    CLineEditor();
    /// Saves the history and gives the terminal its modes back.
    ~CLineEditor();
    CLineEditor(const CLineEditor&) = delete;
    CLineEditor& operator=(const CLineEditor&) = delete;

    bool IsInteractive() const { return m_pEditLine != nullptr; }
    /// The next line; after kInterrupt, line holds what had been typed.
    Result Read(std::string& line);
    /// Writes text where the editor echoes (stdout when it is the
    /// terminal, else stderr); nothing when not interactive.
    void Say(const std::string& text);

private:
    static unsigned char OnInterrupt(EditLine* el, int ch);

    EditLine* m_pEditLine = nullptr;
    std::FILE* m_pOut = nullptr;
    History* m_pHistory = nullptr;
    std::string m_sHistoryPath;
    bool m_bInterrupted = false;
    termios m_SavedModes{};
    std::unique_ptr<CSignalThread::CCleanup> m_pRestoreModes;
};

} // namespace tessitor::cli
