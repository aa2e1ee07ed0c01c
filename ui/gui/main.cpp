// tessitor-gui: the desktop front end. Without arguments it opens the main
// window; --virtual opens the embedded virtual drive at once.
#include <QApplication>
#include <QCommandLineParser>

#include "core/ui.h"
#include "ui/gui/mainframe.h"
#include "ui/gui/qtui.h"

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName("tessitor-gui");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Set up, tune and diagnose Ortiva servo drives: several drives at once, each with its terminal,\n"
        "scope, motion monitor and parameters. Without hardware: Drive > Open Virtual Drive.");
    parser.addHelpOption();
    QCommandLineOption virtualOption("virtual", "Open the embedded virtual drive at start.");
    QCommandLineOption productOption("product", "Product of the virtual drive (default Talvina).", "NAME", "Talvina");
    parser.addOption(virtualOption);
    parser.addOption(productOption);
    parser.process(app);

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
