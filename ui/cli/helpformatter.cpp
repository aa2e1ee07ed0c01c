#include "ui/cli/helpformatter.h"

namespace tessitor::cli {

// Called right after the command's own option groups: the place for those
// of the main command that the command accepts.
std::string CHelpFormatter::make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const
{
    std::string out;
    const CLI::App* root = app;
    while (root->get_parent())
        root = root->get_parent();
    if (root == app || mode == CLI::AppFormatMode::Sub)
        return CLI::Formatter::make_subcommands(app, mode);
    const CommandUse use = m_Context.UseOf(app);
    for (const char* group : {"Connection", "Answers"}) {
        std::vector<const CLI::Option*> options = root->get_options([&](const CLI::Option* o) {
            if (o->get_group() != group)
                return false;
            return use == CommandUse::kConnection || (use == CommandUse::kProduct && o->check_lname("product"));
        });
        if (!options.empty())
            out += make_group(group, false, options);
    }
    return out + CLI::Formatter::make_subcommands(app, mode);
}

// A command is given its parent's footer when it is made: shown under the
// command, the parent's examples would read as the command's own.
std::string CHelpFormatter::make_footer(const CLI::App* app) const
{
    if (app->get_parent() && app->get_footer() == app->get_parent()->get_footer())
        return {};
    return CLI::Formatter::make_footer(app);
}

} // namespace tessitor::cli
