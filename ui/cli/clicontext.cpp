#include "ui/cli/clicontext.h"

namespace tessitor::cli {

void CCliContext::SetAction(CLI::App* sub, std::function<int()> action)
{
    m_arActions.emplace_back(sub, std::move(action));
}

int CCliContext::Run()
{
    // Subcommands are registered after their parents, so the last parsed
    // one is the deepest command the user gave.
    const std::function<int()>* chosen = nullptr;
    for (const auto& [sub, action] : m_arActions)
        if (sub->parsed())
            chosen = &action;
    if (!chosen)
        throw UsageError("a command is required");
    return (*chosen)();
}

} // namespace tessitor::cli
