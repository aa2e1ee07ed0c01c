// tessitor: set up, tune and diagnose Ortiva servo drives from a shell.
// The one catch point: a failure becomes its message on stderr and exit
// status 1; wrong usage exit status 2; SIGINT/SIGTERM/SIGHUP close the link
// and exit with 128 + the signal.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "ui/cli/clicontext.h"
#include "ui/cli/helpformatter.h"
#include "ui/cli/signalthread.h"
#include "ui/cli/terminalui.h"
#include "ui/cli/textforms.h"

using namespace tessitor;
using namespace tessitor::cli;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// A descriptor 0, 1 or 2 closed at start would be the next one opened: the
// drive's port would become stdout. /dev/null, opened read-only, takes the
// place, so that writing to a closed stdout still fails as it should.
void ReserveStandardDescriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF && ::open("/dev/null", O_RDONLY) != fd)
            ::_exit(kExitFailure);
}

void PrintError(const std::string& message)
{
    std::fprintf(stderr, "%s\n", ForMessage(message, kMaxMessageBytes, true).c_str());
}

void PrintUsageError(const std::string& message)
{
    PrintError("tessitor: " + message + "\nRun with --help for more information.");
}

// What CLI11 says of wrong usage, in this program's words where it matters:
// a word where a command belongs is named, a command missing lists those
// there are, and a value that does not convert is "not a number" (every
// option that does not take text takes a number).
std::string UsageText(const CLI::App& app, const CLI::ParseError& e)
{
    const CLI::App* level = &app;
    std::string path;
    while (!level->get_subcommands().empty()) {
        level = level->get_subcommands().front();
        path += (path.empty() ? "" : " ") + level->get_name();
    }
    std::vector<const CLI::App*> choices = level->get_subcommands([](const CLI::App*) { return true; });
    if (!choices.empty()) {
        std::string names;
        for (const CLI::App* sub : choices)
            names += (names.empty() ? "" : ", ") + sub->get_name();
        for (const std::string& word : app.remaining(true))
            if (!word.empty() && word[0] != '-')
                return "unknown command '" + CutMiddle((path.empty() ? "" : path + " ") + word) + "' (commands: "
                       + names + ")";
        if (dynamic_cast<const CLI::RequiredError*>(&e))
            return (path.empty() ? std::string("a command is required") : "'" + path + "' needs a command")
                   + " (commands: " + names + ")";
    }
    std::string text = e.what();
    static const std::string kNotConverted = "Could not convert: ";
    if (dynamic_cast<const CLI::ConversionError*>(&e) && text.rfind(kNotConverted, 0) == 0) {
        std::size_t equals = text.find(" = ");
        if (equals != std::string::npos)
            return text.substr(kNotConverted.size(), equals - kNotConverted.size()) + ": '"
                   + CutMiddle(text.substr(equals + 3)) + "' is not a number";
    }
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    ReserveStandardDescriptors();

    CCliContext context;
    CLI::App app{"tessitor - set up, tune and diagnose Ortiva servo drives", "tessitor"};
    app.formatter(std::make_shared<CHelpFormatter>(context));
    app.set_version_flag("--version", "tessitor " TESSITOR_VERSION);
    app.footer("Examples:\n"
               "  tessitor --sim send VR \"KP[1]\"            a virtual drive, no hardware needed\n"
               "  tessitor send --serial /dev/ttyUSB0 MO=1 PX\n"
               "  tessitor info --tcp 192.168.0.20 --target \"RS232 Port 1\"\n"
               "  tessitor --can slcan:/dev/ttyACM0 --node 5 sdo upload 0x1008 0\n"
               "  tessitor term --last\n\n"
               "Exit status: 0 done; 1 the drive or the link failed (the error's message on stderr);\n"
               "2 wrong usage; 128 + N ended by signal N (130 Ctrl-C), the link closed first.\n"
               "Environment: TESSITOR_TRACE=1 traces to stderr, TESSITOR_TRACE=FILE to a file;\n"
               "settings in $XDG_CONFIG_HOME/tessitor/tessitor.ini (TESSITOR_CONFIG overrides).");
    app.require_subcommand(1);
    // Connection options may stand before or after the command.
    app.fallthrough();

    context.m_Options.AddTo(app);
    RegisterSendCommand(app, context);
    RegisterTermCommand(app, context);
    RegisterInfoCommand(app, context);
    RegisterConnCommand(app, context);
    RegisterSimCommand(app, context);
    RegisterDemoCommand(app, context);
    RegisterSdoCommand(app, context);
    RegisterCanCommand(app, context);
    RegisterAppCommand(app, context);
    RegisterRecordCommand(app, context);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        app.exit(e); // --help, --version
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
            PrintError(std::string("tessitor: cannot write to standard output: ") + std::strerror(errno));
            return kExitFailure;
        }
        return 0;
    } catch (const CLI::ParseError& e) {
        PrintUsageError(UsageText(app, e));
        return kExitUsage;
    }

    // Before any thread starts: they all inherit the blocked signals.
    CSignalThread::Start();
    CTerminalUi ui(context.m_Options.m_bYes, context.m_Options.m_bNo);
    Ui::Install(&ui);
    int status = 0;
    try {
        status = context.Run();
    } catch (const UsageError& e) {
        PrintUsageError(e.what());
        status = kExitUsage;
    } catch (const Failure& e) {
        PrintError(e.what());
        status = kExitFailure;
    } catch (CCommunication::CExceptionComm& e) {
        PrintError(e.FillMessage());
        status = kExitFailure;
    }
    context.Disconnect();
    Ui::Install(nullptr);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        PrintError(std::string("tessitor: cannot write to standard output: ") + std::strerror(errno));
        status = kExitFailure;
    }
    return status;
}
