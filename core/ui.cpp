#include "core/ui.h"

#include <atomic>
#include <cstdio>

namespace tessitor {
namespace {

// Without a front end nobody can answer, so questions get the safe answer.
class StderrUi : public Ui {
public:
    int MessageBox(Window*, const std::string& text, const std::string& caption, unsigned style) override
    {
        std::fprintf(stderr, "%s: %s\n", caption.c_str(), text.c_str());
        unsigned buttons = style & 0xF;
        if (buttons == MB_YESNO || buttons == MB_YESNOCANCEL)
            return IDNO;
        if (buttons == MB_OKCANCEL)
            return IDCANCEL;
        return IDOK;
    }
};

StderrUi g_defaultUi;
std::atomic<Ui*> g_currentUi{nullptr};

} // namespace

Ui& Ui::Current()
{
    Ui* ui = g_currentUi.load();
    return ui ? *ui : g_defaultUi;
}

void Ui::Install(Ui* ui)
{
    g_currentUi.store(ui);
}

} // namespace tessitor
