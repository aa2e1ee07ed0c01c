// tessitor send CMD...: each command's value on its own line.
#include <cstdio>

#include "ui/cli/clicontext.h"

namespace tessitor::cli {

namespace {

// An assignment has no value: the drive answers with the terminator alone,
// which the value extraction hands back as ";". Print an empty line so that
// line N of the output stays the answer to command N.
std::string Printable(const std::string& value)
{
    return value == ";" ? std::string() : value;
}

} // namespace

void RegisterSendCommand(CLI::App& app, CCliContext& context)
{
    auto commands = std::make_shared<std::vector<std::string>>();
    CLI::App* sub = app.add_subcommand("send", "Send commands to the drive and print the value of each");
    sub->add_option("CMD", *commands, "Commands of the drive language, e.g. MO=1 PX \"KP[2]=5\"")->required();
    sub->footer("Prints one line per command (empty for an assignment). Stops at the first failure:\n"
                "its message goes to stderr, exit status 1, later commands are not sent.\n\n"
                "Examples:\n"
                "  tessitor send --serial /dev/ttyUSB0 VR SR\n"
                "  tessitor --sim send MO=1 \"JV=1000\" BG VX");
    context.SetAction(sub, [&context, commands] {
        auto link = context.m_Options.Connect();
        for (const std::string& command : *commands) {
            std::string value;
            if (link->SendCommandGetValue(command, value, context.m_Options.TimeoutMs()) != 0)
                throw CCommunication::CExceptionComm(3, link.get(), kErrSrcSetup);
            std::printf("%s\n", Printable(value).c_str());
            std::fflush(stdout);
        }
        link->Disconnect();
        return 0;
    });
}

} // namespace tessitor::cli
