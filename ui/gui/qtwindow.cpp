#include "ui/gui/qtwindow.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>

namespace tessitor::gui {

namespace {

const QEvent::Type kWindowMessageEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

class CWindowMessageEvent : public QEvent {
public:
    CWindowMessageEvent(unsigned message, std::uintptr_t wParam, std::intptr_t lParam)
        : QEvent(kWindowMessageEvent), m_nMessage(message), m_wParam(wParam), m_lParam(lParam)
    {
    }
    unsigned m_nMessage;
    std::uintptr_t m_wParam;
    std::intptr_t m_lParam;
};

} // namespace

CQtWindow::CQtWindow(QWidget* widget, Handler handler) : QObject(widget), m_pWidget(widget), m_Handler(std::move(handler))
{
}

void CQtWindow::PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam)
{
    QCoreApplication::postEvent(this, new CWindowMessageEvent(message, wParam, lParam));
}

std::intptr_t CQtWindow::SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam)
{
    if (QThread::currentThread() == thread())
        return m_Handler(message, wParam, lParam);
    std::intptr_t answer = 0;
    QMetaObject::invokeMethod(
        this, [&] { answer = m_Handler(message, wParam, lParam); }, Qt::BlockingQueuedConnection);
    return answer;
}

void CQtWindow::customEvent(QEvent* event)
{
    if (event->type() != kWindowMessageEvent)
        return QObject::customEvent(event);
    auto* posted = static_cast<CWindowMessageEvent*>(event);
    m_Handler(posted->m_nMessage, posted->m_wParam, posted->m_lParam);
}

} // namespace tessitor::gui
