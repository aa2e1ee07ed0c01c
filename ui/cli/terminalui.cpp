#include "ui/cli/terminalui.h"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace tessitor::cli {

int CTerminalUi::MessageBox(Window*, const std::string& text, const std::string& caption, unsigned style)
{
    std::fprintf(stderr, "%s: %s\n", caption.c_str(), text.c_str());
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
    std::fprintf(stderr, yesNo ? "[y/N] " : "[o/C] ");
    std::fflush(stderr);
    char answer[32] = {};
    bool got = std::fgets(answer, sizeof answer, stdin) != nullptr;
    if (got && (answer[0] == 'y' || answer[0] == 'Y' || answer[0] == 'o' || answer[0] == 'O'))
        return yes;
    return no;
}

} // namespace tessitor::cli
