// tessitor info: identification and link check of the drive.
#include "ui/cli/clicontext.h"

namespace tessitor::cli {

void RegisterInfoCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* sub = app.add_subcommand("info", "Identify the drive and check the link");
    sub->footer("Prints: connection, device, version, product, processor, link check. Exit status 1\n"
                "when the drive did not identify itself or the link check failed.\n\n"
                "Examples:\n"
                "  tessitor info --serial /dev/ttyUSB0\n"
                "  tessitor info --tcp 192.168.0.20 --target \"RS232 Port 1\"");
    context.SetAction(
        sub,
        [&context] {
            CCommunication& link = context.Connect();
            const std::string& version = link.GetVersionText();
            PrintValue("connection: " + link.GetInfo().GetDisplayText());
            PrintValue("device: " + link.DeviceName());
            PrintValue("version: " + version);
            PrintValue("product: " + (link.IsIdentified() ? version.substr(0, version.find(' ')) : "unknown"));
            PrintValue("processor: " + (link.GetProcessorType().empty() ? "unknown" : link.GetProcessorType()));
            std::string failure;
            std::int32_t check = context.CheckLink(failure);
            PrintValue(LinkCheckText(check));
            if (!link.IsIdentified())
                throw Failure("tessitor: the drive did not identify itself (VR on " + link.DeviceName() + ")");
            if (!failure.empty())
                throw Failure(failure);
            context.Disconnect();
            return check == 1 ? 0 : 1;
        },
        CommandUse::kConnection);
}

} // namespace tessitor::cli
