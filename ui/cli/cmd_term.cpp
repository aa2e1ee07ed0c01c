// tessitor term: an interactive terminal to the drive, with line editing
// and history on a terminal, plain lines from a pipe.
#include <cstdio>

#include "core/strformat.h"
#include "core/ui.h"
#include "ui/cli/clicontext.h"
#include "ui/cli/lineeditor.h"
#include "ui/cli/textforms.h"

namespace tessitor::cli {

namespace {

constexpr char kHelpText[] =
    "Lines are sent to the drive as typed and its value is printed (empty for an assignment).\n"
    "The terminal's own commands:\n"
    "  :check      run the link check (it also ends the lock-out after a time-out)\n"
    "  :reconnect  close the link and open it again\n"
    "  :help       this list\n"
    "  :quit       leave (so do Ctrl-D, and Ctrl-C on an empty line twice)\n"
    "Ctrl-C drops the line being typed; while a command waits, it ends the terminal.\n";

class CTerminalSession {
public:
    explicit CTerminalSession(CCliContext& context) : m_Context(context) {}

    int Run()
    {
        Banner(m_Context.Connect());
        if (m_Editor.IsInteractive())
            std::fprintf(stderr, "Type drive commands (PX, MO=1, KP[2]=5); :help lists the terminal's own; "
                                 "Ctrl-D or :quit leaves.\n");
        bool interruptedEmpty = false;
        std::string line;
        for (;;) {
            CLineEditor::Result result = m_Editor.Read(line);
            if (result == CLineEditor::Result::kEnd) {
                m_Editor.Say("\n");
                break;
            }
            if (result == CLineEditor::Result::kInterrupt) {
                if (!Trim(line).empty()) {
                    m_Editor.Say("^C\n");
                } else if (interruptedEmpty) {
                    m_Editor.Say("\n");
                    break;
                } else {
                    m_Editor.Say("\n(To leave, press Ctrl-C again or Ctrl-D, or type :quit)\n");
                }
                interruptedEmpty = Trim(line).empty();
                continue;
            }
            interruptedEmpty = false;
            std::string command = Trim(line);
            if (command.empty())
                continue;
            if (command[0] == ':' || command == "quit" || command == "exit") {
                if (!TerminalCommand(command))
                    break;
                continue;
            }
            if (!Send(command))
                break;
        }
        m_Context.Disconnect();
        return m_nStatus;
    }

private:
    void Banner(CCommunication& link)
    {
        std::fprintf(stderr, "Connected to %s on %s (%s)\n", link.GetInfo().GetDisplayText().c_str(),
                     ForMessage(link.DeviceName()).c_str(), ForMessage(link.GetVersionText()).c_str());
    }

    // Runs a line of the terminal's own; false when the terminal should end.
    bool TerminalCommand(const std::string& command)
    {
        if (command == ":quit" || command == ":q" || command == ":exit" || command == "quit" || command == "exit")
            return false;
        if (command == ":help") {
            std::fputs(kHelpText, stderr);
        } else if (command == ":check") {
            if (!m_Context.Link()) {
                NotConnected();
                return true;
            }
            std::string failure;
            std::int32_t check = m_Context.CheckLink(failure);
            PrintValue(LinkCheckText(check));
            if (!failure.empty())
                std::fprintf(stderr, "%s\n", ForMessage(failure, kMaxMessageBytes).c_str());
            if (check != 1)
                m_nStatus = 1;
        } else if (command == ":reconnect") {
            try {
                Banner(m_Context.Connect());
            } catch (const Failure& e) {
                std::fprintf(stderr, "%s\n", ForMessage(e.what(), kMaxMessageBytes).c_str());
                m_nStatus = 1;
            }
        } else {
            std::fprintf(stderr, "tessitor: unknown terminal command '%s'; :help lists them\n",
                         ForMessage(command).c_str());
        }
        return true;
    }

    void NotConnected()
    {
        std::fprintf(stderr, "tessitor: the link is closed; :reconnect opens it again\n");
        m_nStatus = 1;
    }

    // Sends one command and prints its value; false when the terminal
    // should end (the link was given up with nobody at the terminal).
    bool Send(const std::string& command)
    {
        try {
            RefuseControlBytes(command);
        } catch (const UsageError& e) {
            std::fprintf(stderr, "tessitor: %s\n", ForMessage(e.what(), kMaxMessageBytes).c_str());
            if (m_nStatus == 0)
                m_nStatus = 2;
            return true;
        }
        CCommunication* link = m_Context.Link();
        if (!link) {
            NotConnected();
            return m_Editor.IsInteractive();
        }
        std::string value;
        try {
            if (link->SendCommandGetValue(command, value, m_Context.m_Options.TimeoutMs()) != 0) {
                std::fprintf(stderr, "tessitor: the link is broken; :check tests it, :reconnect opens it again\n");
                m_nStatus = 1;
                return true;
            }
        } catch (CCommunication::CExceptionComm& e) {
            m_nStatus = 1;
            if (IsDriveRefusal(e)) {
                std::fprintf(stderr, "%s\n", ForMessage(e.FillMessage(), kMaxMessageBytes).c_str());
                return true;
            }
            if (e.ReportError(nullptr) != IDYES)
                return true;
            m_Context.Disconnect();
            if (!m_Editor.IsInteractive())
                return false;
            std::fprintf(stderr, "Disconnected; :reconnect opens the link again, :quit leaves.\n");
            return true;
        }
        PrintValue(value == ";" ? "" : value);
        return true;
    }

    CCliContext& m_Context;
    CLineEditor m_Editor;
    int m_nStatus = 0;
};

} // namespace

void RegisterTermCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* sub = app.add_subcommand("term", "Interactive terminal: type commands, read values");
    sub->footer("Each line is sent to the drive and its value printed; a drive error prints its message\n"
                "and the terminal goes on. On a communication failure you are asked whether to\n"
                "disconnect (--yes/--no answer for you when stdin is not a terminal).\n"
                "Lines starting with ':' are the terminal's own: :help, :check, :reconnect, :quit.\n"
                "Ctrl-C drops the line being typed; Ctrl-D (end of input) leaves.\n"
                "Exit status 1 when any command failed or the link was lost.\n\n"
                "Examples:\n"
                "  tessitor term --serial /dev/ttyUSB0\n"
                "  printf 'MO=1\\nPX\\n' | tessitor term --last --no");
    context.SetAction(sub, [&context] { return CTerminalSession(context).Run(); }, CommandUse::kConnection);
}

} // namespace tessitor::cli
