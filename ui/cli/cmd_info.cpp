// tessitor info: identification and link check, "key: value" a line.
#include <cstdio>

#include "ui/cli/clicontext.h"

namespace tessitor::cli {

namespace {

const char* LinkCheckMeaning(std::int32_t result)
{
    switch (result) {
    case 1: return "ok";
    case -2: return "bad reply";
    default: return "broken";
    }
}

} // namespace

void RegisterInfoCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* sub = app.add_subcommand("info", "Identify the drive and check the link");
    sub->footer("Prints: connection, version, product, processor, link check.\n\n"
                "Example:\n  tessitor info --serial /dev/ttyUSB0");
    context.SetAction(sub, [&context] {
        auto link = context.m_Options.Connect();
        const std::string& version = link->GetVersionText();
        std::string product = version.substr(0, version.find(' '));
        std::int32_t check = link->CheckLink();
        std::printf("connection: %s\n", link->GetInfo().GetDisplayText().c_str());
        std::printf("version: %s\n", version.c_str());
        std::printf("product: %s\n", product.c_str());
        std::printf("processor: %s\n", link->GetProcessorType().empty() ? "unknown" : link->GetProcessorType().c_str());
        std::printf("link check: %s (%d)\n", LinkCheckMeaning(check), check);
        link->Disconnect();
        return check == 1 ? 0 : 1;
    });
}

} // namespace tessitor::cli
