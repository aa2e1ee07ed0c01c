#include "communication/waitnotice.h"

namespace tessitor {

CWaitNotice::CWaitNotice(const std::string& command, const std::string& device, int attempt, int attempts)
    : m_Ui(Ui::Current())
{
    if (!command.empty() && command.back() == '\r')
        m_Ui.WaitBegin(command.substr(0, command.size() - 1), device, attempt, attempts);
    else
        m_Ui.WaitBegin(command, device, attempt, attempts);
}

} // namespace tessitor
