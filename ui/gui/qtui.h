// The GUI's Ui: the core's questions and reports as Qt message boxes with
// the system's texts, captions, icons and buttons. A worker that asks waits
// while the GUI thread shows the box; workers never touch a widget.
#pragma once

#include <atomic>

#include "core/ui.h"

class QWidget;

namespace tessitor::gui {

class CQtUi : public Ui {
public:
    /// Shows the box on the GUI thread (blocking the calling worker until
    /// the user answers) over parent's widget when parent is a CQtWindow.
    /// After Close() a worker gets the answer a closed box gives (IDNO for
    /// Yes/No, IDCANCEL where Cancel is offered, else IDOK) at once.
    int MessageBox(Window* parent, const std::string& text, const std::string& caption, unsigned style) override;
    /// The application is closing: no new box from a worker.
    void Close() { m_bClosed = true; }

    /// The answer a box of style gives when nobody can see it.
    static int UnseenAnswer(unsigned style);

private:
    static int Show(QWidget* parent, const std::string& text, const std::string& caption, unsigned style);

    std::atomic<bool> m_bClosed{false};
};

} // namespace tessitor::gui
