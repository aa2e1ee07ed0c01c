// tessitor conn encode|decode|show: the descriptor's text forms.
#include <cstdio>

#include "ui/cli/clicontext.h"

namespace tessitor::cli {

void RegisterConnCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* conn = app.add_subcommand("conn", "Show a connection in its text forms");
    conn->require_subcommand(1);

    CLI::App* encode = conn->add_subcommand("encode", "Print the one-line form of the connection options");
    encode->footer("Example:\n  tessitor conn encode --serial /dev/ttyUSB0 --baud 57600");
    context.SetAction(encode, [&context] {
        if (context.m_Options.m_bSim)
            throw UsageError("--sim has no one-line form");
        std::printf("%s\n", context.m_Options.Resolve().first.ToLine().c_str());
        return 0;
    });

    auto line = std::make_shared<std::string>();
    CLI::App* decode = conn->add_subcommand("decode", "Read a one-line form and print its display text");
    decode->add_option("LINE", *line, "The one-line form")->required();
    context.SetAction(decode, [line] {
        CCommunicationInfo info;
        if (!info.FromLine(*line))
            throw UsageError("malformed one-line form: '" + *line + "'");
        std::printf("%s\n", info.GetDisplayText().c_str());
        return 0;
    });

    CLI::App* show = conn->add_subcommand("show", "Print the display text and the short name of the connection");
    context.SetAction(show, [&context] {
        if (context.m_Options.m_bSim)
            throw UsageError("--sim is made anew each time; there is nothing to show");
        CCommunicationInfo info = context.m_Options.Resolve().first;
        std::printf("%s\n%s\n", info.GetDisplayText().c_str(), info.GetShortName().c_str());
        return 0;
    });
}

} // namespace tessitor::cli
