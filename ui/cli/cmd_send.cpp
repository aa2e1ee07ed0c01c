// tessitor send CMD... | -f FILE: each command's value on its own line.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "core/strformat.h"
#include "ui/cli/clicontext.h"
#include "ui/cli/textforms.h"

namespace tessitor::cli {

namespace {

// The commands of a file ("-" for stdin): one a line, blank lines and
// lines starting with "#" skipped. Every line is checked before the first
// command goes out, so a bad line 50 sends nothing at all.
std::vector<std::string> ReadCommandFile(const std::string& path)
{
    std::ifstream file;
    std::istream* in = &std::cin;
    const std::string shownPath = path == "-" ? "standard input" : "'" + CutMiddle(path) + "'";
    if (path != "-") {
        file.open(path);
        if (!file)
            throw Failure("tessitor: cannot read " + shownPath + ": " + std::strerror(errno));
        in = &file;
    }
    std::vector<std::string> commands;
    std::string line;
    for (int number = 1; ReadLine(*in, line); ++number) {
        std::string command = Trim(line);
        if (command.empty() || command[0] == '#')
            continue;
        try {
            RefuseControlBytes(command);
        } catch (const UsageError& e) {
            throw UsageError(StrFormat("line %d of %s: %s", number, shownPath.c_str(), e.what()));
        }
        commands.push_back(command);
    }
    if (in->bad())
        throw Failure("tessitor: cannot read " + shownPath + ": " + std::strerror(errno));
    return commands;
}

} // namespace

void RegisterSendCommand(CLI::App& app, CCliContext& context)
{
    auto commands = std::make_shared<std::vector<std::string>>();
    auto file = std::make_shared<std::string>();
    CLI::App* sub = app.add_subcommand("send", "Send commands to the drive and print the value of each");
    sub->add_option("CMD", *commands, "Commands of the drive language, e.g. MO=1 PX \"KP[2]=5\"")->type_name("");
    CLI::Option* fileOption = sub->add_option(
        "-f,--file", *file, "Read the commands from FILE ('-': stdin), one a line; blank lines and # lines skipped")
        ->type_name("FILE");
    sub->footer("Prints one line per command (empty for an assignment). Stops at the first failure:\n"
                "its message goes to stderr, exit status 1, later commands are not sent. A command\n"
                "holding a control byte (CR, LF, ...) is wrong usage: nothing at all is sent.\n\n"
                "Examples:\n"
                "  tessitor send --serial /dev/ttyUSB0 VR SR\n"
                "  tessitor --sim send MO=1 \"JV=1000\" BG VX\n"
                "  tessitor send --last -f setup.txt\n"
                "  printf 'PX\\nVX\\n' | tessitor send --serial /dev/ttyUSB0 -f -");
    context.SetAction(
        sub,
        [&context, commands, file, fileOption] {
            if (commands->empty() && fileOption->count() == 0)
                throw UsageError("give the commands to send, or -f FILE");
            if (!commands->empty() && fileOption->count() > 0)
                throw UsageError("give the commands to send or -f FILE, not both");
            std::vector<std::string> list = fileOption->count() > 0 ? ReadCommandFile(*file) : *commands;
            for (const std::string& command : list)
                RefuseControlBytes(command);
            context.Connect();
            for (const std::string& command : list)
                PrintValue(context.Value(command));
            context.Disconnect();
            return 0;
        },
        CommandUse::kConnection);
}

} // namespace tessitor::cli
