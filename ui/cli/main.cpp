// tessitor: set up, tune and diagnose Ortiva servo drives from a shell.
// The one catch point: a communication failure becomes its message on
// stderr and exit status 1; wrong usage exit status 2.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "ui/cli/clicontext.h"
#include "ui/cli/terminalui.h"

using namespace tessitor;
using namespace tessitor::cli;

int main(int argc, char** argv)
{
    CLI::App app{"tessitor - set up, tune and diagnose Ortiva servo drives", "tessitor"};
    app.footer("Examples:\n"
               "  tessitor --sim send VR \"KP[1]\"            a virtual drive, no hardware needed\n"
               "  tessitor send --serial /dev/ttyUSB0 MO=1 PX\n"
               "  tessitor info --tcp 192.168.0.20 --target \"RS232 Port 1\"\n"
               "  tessitor --can slcan:/dev/ttyACM0 --node 5 sdo upload 0x1008 0\n"
               "  tessitor term --last\n\n"
               "Exit status: 0 done; 1 the drive or the link failed (the error's message on stderr);\n"
               "2 wrong usage.\n"
               "Environment: TESSITOR_TRACE=1 traces to stderr, TESSITOR_TRACE=FILE to a file;\n"
               "settings in $XDG_CONFIG_HOME/tessitor/tessitor.ini (TESSITOR_CONFIG overrides).");
    app.require_subcommand(1);
    // Connection options may stand before or after the command.
    app.fallthrough();

    CCliContext context;
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
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }

    CTerminalUi ui(context.m_Options.m_bYes, context.m_Options.m_bNo);
    Ui::Install(&ui);
    int status = 0;
    try {
        status = context.Run();
    } catch (const UsageError& e) {
        std::fprintf(stderr, "tessitor: %s\nRun with --help for more information.\n", e.what());
        status = 2;
    } catch (const ConnectError& e) {
        std::fprintf(stderr, "%s\n", e.what());
        status = 1;
    } catch (CCommunication::CExceptionComm& e) {
        std::fprintf(stderr, "%s\n", e.FillMessage().c_str());
        status = 1;
    }
    Ui::Install(nullptr);
    return status;
}
