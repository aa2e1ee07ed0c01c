// tessitor-gui: the desktop front end. Without arguments it opens the main
// window; --virtual opens the embedded virtual drive at once; --plot renders
// a scope file to a picture without any window.
#include <QApplication>
#include <QCommandLineParser>
#include <cstdio>
#include <cstring>

#include "core/ui.h"
#include "ui/gui/mainframe.h"
#include "ui/gui/qtui.h"
#include "ui/gui/scopeview.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

bool WantsPlot(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--plot") == 0 || std::strncmp(argv[i], "--plot=", 7) == 0)
            return true;
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    // A picture needs no display: render offscreen unless told otherwise.
    if (WantsPlot(argc, argv) && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QApplication::setApplicationName("tessitor-gui");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Set up, tune and diagnose Ortiva servo drives: several drives at once, each with its terminal,\n"
        "scope, motion monitor and parameters. Without hardware: Drive > Open Virtual Drive.\n\n"
        "Exit status: 0 done, 1 the scope file could not be read or the picture written, 2 wrong usage.\n\n"
        "Examples:\n"
        "  tessitor-gui --virtual\n"
        "  tessitor-gui --plot Scope.sdv -o scope.svg");
    parser.addHelpOption();
    QCommandLineOption virtualOption("virtual", "Open the embedded virtual drive at start.");
    QCommandLineOption productOption("product", "Product of the virtual drive (default Talvina).", "NAME", "Talvina");
    QCommandLineOption plotOption("plot", "Render the scope file FILE.sdv to the picture given with -o, and exit.",
                                  "FILE.sdv");
    QCommandLineOption outOption({"o", "output"}, "The picture --plot writes: .png, .svg or .pdf.", "OUT");
    parser.addOption(virtualOption);
    parser.addOption(productOption);
    parser.addOption(plotOption);
    parser.addOption(outOption);
    parser.process(app);

    if (parser.isSet(plotOption) || parser.isSet(outOption)) {
        if (!parser.isSet(plotOption) || !parser.isSet(outOption) || parser.isSet(virtualOption)) {
            std::fprintf(stderr, "tessitor-gui: --plot FILE.sdv and -o OUT go together, without --virtual\n");
            return kExitUsage;
        }
        QString error = tessitor::gui::CScopeView::Render(parser.value(plotOption), parser.value(outOption));
        if (!error.isEmpty()) {
            std::fprintf(stderr, "tessitor-gui: %s\n", error.toLocal8Bit().constData());
            return kExitFailed;
        }
        return 0;
    }

    tessitor::gui::CQtUi ui;
    tessitor::Ui::Install(&ui);
    int status = 0;
    {
        tessitor::gui::CMainFrame frame;
        frame.show();
        if (parser.isSet(virtualOption))
            frame.OpenVirtualDrive(parser.value(productOption).toStdString());
        status = QApplication::exec();
        ui.Close();
    }
    tessitor::Ui::Install(nullptr);
    return status;
}
