// tessitor term: an interactive terminal to the drive, with line editing
// and history on a terminal, plain lines from a pipe.
#include <cstdio>
#include <cstdlib>
#include <editline/readline.h>
#include <filesystem>
#include <iostream>
#include <unistd.h>

#include "core/settings.h"
#include "core/ui.h"
#include "ui/cli/clicontext.h"

namespace tessitor::cli {

namespace {

constexpr char kLinkCheckCommand[] = ":check";

// History is state, not a setting: $XDG_STATE_HOME/tessitor/history.
std::string HistoryPath()
{
    std::string base = Settings::XdgBaseDir("XDG_STATE_HOME", ".local/state");
    std::error_code ignored;
    std::filesystem::create_directories(base + "/tessitor", ignored);
    return base + "/tessitor/history";
}

class CLineSource {
public:
    CLineSource() : m_bInteractive(::isatty(STDIN_FILENO) != 0)
    {
        if (m_bInteractive) {
            using_history();
            read_history(HistoryPath().c_str());
        }
    }
    ~CLineSource()
    {
        if (m_bInteractive)
            write_history(HistoryPath().c_str());
    }
    bool Next(std::string& line)
    {
        if (!m_bInteractive)
            return static_cast<bool>(std::getline(std::cin, line));
        char* text = readline("> ");
        if (!text)
            return false;
        line = text;
        std::free(text);
        if (!line.empty())
            add_history(line.c_str());
        return true;
    }

private:
    bool m_bInteractive;
};

} // namespace

void RegisterTermCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* sub = app.add_subcommand("term", "Interactive terminal: type commands, read values");
    sub->footer("Each line is sent to the drive and its value printed; a drive error prints its message\n"
                "and the terminal goes on. On a communication failure you are asked whether to\n"
                "disconnect (--yes/--no answer for you when stdin is not a terminal).\n"
                "Lines: ':check' runs the link check (it also ends a time-out's lock-out),\n"
                "'quit', 'exit' or end of input leave.\n\n"
                "Example:\n  tessitor term --serial /dev/ttyUSB0");
    context.SetAction(sub, [&context] {
        auto link = context.m_Options.Connect();
        std::fprintf(stderr, "Connected: %s (%s)\n", link->GetInfo().GetDisplayText().c_str(),
                     link->GetVersionText().c_str());
        CLineSource source;
        std::string line;
        int status = 0;
        while (source.Next(line)) {
            if (line == "quit" || line == "exit")
                break;
            if (line.empty())
                continue;
            try {
                if (line == kLinkCheckCommand) {
                    std::printf("link check: %d\n", link->CheckLink());
                } else {
                    std::string value;
                    link->SendCommandGetValue(line, value, context.m_Options.TimeoutMs());
                    std::printf("%s\n", value == ";" ? "" : value.c_str());
                }
                std::fflush(stdout);
            } catch (CCommunication::CExceptionComm& e) {
                if (e.m_nErrorSource == kErrSrcDrive) {
                    std::fprintf(stderr, "%s\n", e.FillMessage().c_str());
                    continue;
                }
                if (e.ReportError(nullptr) == IDYES) {
                    link->Disconnect();
                    status = 1;
                    break;
                }
            }
        }
        if (link->IsConnected())
            link->Disconnect();
        return status;
    });
}

} // namespace tessitor::cli
