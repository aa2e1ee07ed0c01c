// Help as `tessitor` prints it: a command's --help lists, beside its own
// options, the connection options it accepts (they live on the main
// command so that they may stand before or after the command's name), and
// only the command's own footer (its notes and examples).
#pragma once

#include <CLI/CLI.hpp>

#include "ui/cli/clicontext.h"

namespace tessitor::cli {

class CHelpFormatter : public CLI::Formatter {
public:
    explicit CHelpFormatter(const CCliContext& context) : m_Context(context) {}
    std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const override;
    std::string make_footer(const CLI::App* app) const override;

private:
    const CCliContext& m_Context;
};

} // namespace tessitor::cli
