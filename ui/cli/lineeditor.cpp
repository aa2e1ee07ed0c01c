#include "ui/cli/lineeditor.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <langinfo.h>
#include <unistd.h>

#include "core/settings.h"
#include "core/strformat.h"

namespace tessitor::cli {
namespace {

constexpr int kHistoryLines = 1000;
constexpr char kPrompt[] = "> ";

// History is state, not a setting: $XDG_STATE_HOME/tessitor/history.
std::string HistoryPath()
{
    std::string base = Settings::XdgBaseDir("XDG_STATE_HOME", ".local/state");
    std::error_code ignored;
    std::filesystem::create_directories(base + "/tessitor", ignored);
    return base + "/tessitor/history";
}

const char* Prompt(EditLine*)
{
    return kPrompt;
}

// libedit decodes what is typed by the locale's character set; in the
// plain "C" locale it would drop every byte above 0x7F. Terminals today
// send UTF-8, so an ASCII locale is read as UTF-8 instead.
void UseTerminalCharacterSet()
{
    std::setlocale(LC_CTYPE, "");
    const char* codeset = nl_langinfo(CODESET);
    if (std::strcmp(codeset, "ANSI_X3.4-1968") == 0 || std::strcmp(codeset, "ASCII") == 0)
        std::setlocale(LC_CTYPE, "C.UTF-8");
}

} // namespace

CLineEditor::CLineEditor()
{
    if (!::isatty(STDIN_FILENO))
        return;
    ::tcgetattr(STDIN_FILENO, &m_SavedModes);
    m_pRestoreModes = std::make_unique<CSignalThread::CCleanup>(
        [this] { ::tcsetattr(STDIN_FILENO, TCSANOW, &m_SavedModes); });
    UseTerminalCharacterSet();

    m_sHistoryPath = HistoryPath();
    HistEvent event;
    m_pHistory = history_init();
    history(m_pHistory, &event, H_SETSIZE, kHistoryLines);
    history(m_pHistory, &event, H_SETUNIQUE, 1);
    history(m_pHistory, &event, H_LOAD, m_sHistoryPath.c_str());

    // The editor talks on stdout when that is the terminal, else on stderr,
    // so that prompts never end up among the values in a file.
    m_pOut = ::isatty(STDOUT_FILENO) ? stdout : stderr;
    m_pEditLine = el_init("tessitor", stdin, m_pOut, stderr);
    el_set(m_pEditLine, EL_EDITOR, "emacs");
    el_set(m_pEditLine, EL_PROMPT, Prompt);
    el_set(m_pEditLine, EL_HIST, history, m_pHistory);
    el_set(m_pEditLine, EL_CLIENTDATA, this);
    el_source(m_pEditLine, nullptr);
    // Ctrl-C reaches the editor as a key rather than as SIGINT while a line
    // is typed; during a command it still interrupts the program.
    // The wide form: the narrow one copies the name and the help text and
    // never frees them.
    el_wset(m_pEditLine, EL_ADDFN, L"tessitor-interrupt", L"Drop the line being typed", OnInterrupt);
    el_set(m_pEditLine, EL_BIND, "^C", "tessitor-interrupt", nullptr);
    el_set(m_pEditLine, EL_SETTY, "-d", "-isig", nullptr);
}

CLineEditor::~CLineEditor()
{
    if (!m_pEditLine)
        return;
    HistEvent event;
    history(m_pHistory, &event, H_SAVE, m_sHistoryPath.c_str());
    el_end(m_pEditLine);
    history_end(m_pHistory);
    m_pRestoreModes.reset();
    ::tcsetattr(STDIN_FILENO, TCSANOW, &m_SavedModes);
}

unsigned char CLineEditor::OnInterrupt(EditLine* el, int)
{
    void* data = nullptr;
    el_get(el, EL_CLIENTDATA, &data);
    static_cast<CLineEditor*>(data)->m_bInterrupted = true;
    return CC_NEWLINE;
}

void CLineEditor::Say(const std::string& text)
{
    if (!m_pOut)
        return;
    std::fputs(text.c_str(), m_pOut);
    std::fflush(m_pOut);
}

CLineEditor::Result CLineEditor::Read(std::string& line)
{
    if (!m_pEditLine)
        return ReadLine(std::cin, line) ? Result::kLine : Result::kEnd;
    m_bInterrupted = false;
    // libedit shows the prompt before it takes the terminal over: a Ctrl-C
    // typed at once would still be SIGINT. Off now, on again after the line.
    termios modes{};
    const bool haveModes = ::tcgetattr(STDIN_FILENO, &modes) == 0;
    if (haveModes) {
        termios quiet = modes;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ISIG);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    int count = 0;
    const char* text = el_gets(m_pEditLine, &count);
    if (haveModes)
        ::tcsetattr(STDIN_FILENO, TCSANOW, &modes);
    line = text && count > 0 ? std::string(text, static_cast<size_t>(count)) : std::string();
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    if (m_bInterrupted)
        return Result::kInterrupt;
    if (!text || count <= 0)
        return Result::kEnd;
    if (!line.empty()) {
        HistEvent event;
        history(m_pHistory, &event, H_ENTER, line.c_str());
    }
    return Result::kLine;
}

} // namespace tessitor::cli
