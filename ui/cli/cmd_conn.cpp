// tessitor conn encode|decode|show: the descriptor's text forms.
#include <unistd.h>

#include "ui/cli/clicontext.h"
#include "ui/cli/textforms.h"

namespace tessitor::cli {

void RegisterConnCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* conn = app.add_subcommand("conn", "Show a connection in its text forms");
    conn->require_subcommand(1);
    conn->footer("Examples:\n"
                 "  tessitor conn encode --serial /dev/ttyUSB0 --baud 57600\n"
                 "  tessitor conn decode \"$(tessitor conn encode --last)\"\n"
                 "  tessitor conn show --tcp 192.168.0.20 --target \"RS232 Port 1\"");

    CLI::App* encode = conn->add_subcommand("encode", "Print the one-line form of the connection options");
    encode->footer("The form holds 0x01 bytes where its strings have blanks. To a pipe or file it is\n"
                   "written exactly; on a terminal as a $'...' word that a shell pastes back whole.\n"
                   "--conn and 'conn decode' read either.\n\n"
                   "Examples:\n"
                   "  tessitor conn encode --serial /dev/ttyUSB0 --baud 57600\n"
                   "  tessitor send --conn \"$(tessitor conn encode --last)\" VR");
    context.SetAction(
        encode,
        [&context] {
            if (context.m_Options.m_bSim)
                throw UsageError("--sim has no one-line form");
            std::string line = context.m_Options.Resolve().info.ToLine();
            PrintLine(::isatty(STDOUT_FILENO) ? ShellQuoted(line) : line);
            return 0;
        },
        CommandUse::kConnection);

    auto line = std::make_shared<std::string>();
    CLI::App* decode = conn->add_subcommand("decode", "Read a one-line form and print its display text");
    decode->add_option("LINE", *line, "The one-line form, as written or as a $'...' word")->required();
    decode->footer("Example:\n  tessitor conn decode \"$(tessitor conn encode --serial /dev/ttyS0)\"");
    context.SetAction(
        decode,
        [line] {
            PrintValue(CConnectionOptions::ReadConnLine(*line).GetDisplayText());
            return 0;
        },
        CommandUse::kNothing);

    CLI::App* show = conn->add_subcommand("show", "Print the display text and the short name of the connection");
    show->footer("Example:\n  tessitor conn show --last");
    context.SetAction(
        show,
        [&context] {
            if (context.m_Options.m_bSim)
                throw UsageError("--sim is made anew each time; there is nothing to show");
            CCommunicationInfo info = context.m_Options.Resolve().info;
            PrintValue(info.GetDisplayText());
            PrintValue(info.GetShortName());
            return 0;
        },
        CommandUse::kConnection);
}

} // namespace tessitor::cli
