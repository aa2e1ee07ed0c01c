// The Ui of the command line: messages on stderr; questions answered at
// the terminal, or by --yes / --no when nobody is there to answer.
#pragma once

#include "core/ui.h"

namespace tessitor::cli {

class CTerminalUi : public Ui {
public:
    CTerminalUi(bool bAlwaysYes, bool bAlwaysNo) : m_bAlwaysYes(bAlwaysYes), m_bAlwaysNo(bAlwaysNo) {}
    int MessageBox(Window* parent, const std::string& text, const std::string& caption, unsigned style) override;

private:
    bool m_bAlwaysYes;
    bool m_bAlwaysNo;
};

} // namespace tessitor::cli
