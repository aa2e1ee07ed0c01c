// The GUI's Window: messages a worker posts become Qt events handled on the
// GUI thread by the handler the owning widget gave, so a worker never
// touches a widget. Events left when the window goes are dropped with it.
#pragma once

#include <QObject>
#include <QPointer>
#include <QWidget>
#include <functional>

#include "core/window.h"

namespace tessitor::gui {

class CQtWindow : public QObject, public Window {
    Q_OBJECT
public:
    /// The owning widget's answer to a message (on the GUI thread).
    using Handler = std::function<std::intptr_t(unsigned message, std::uintptr_t wParam, std::intptr_t lParam)>;

    /// Delivers to handler; widget (not owned, may be null) parents the
    /// message boxes shown for this window. Lives on the GUI thread.
    CQtWindow(QWidget* widget, Handler handler);

    /// Queues the message for the GUI thread; any thread.
    void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override;
    /// Runs the handler on the GUI thread and returns its answer; a worker
    /// waits for it.
    std::intptr_t SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override;
    /// The widget, or null once it is gone.
    QWidget* Widget() const { return m_pWidget; }

protected:
    void customEvent(QEvent* event) override;

private:
    QPointer<QWidget> m_pWidget;
    Handler m_Handler;
};

} // namespace tessitor::gui
