#include "ui/gui/qtui.h"

#include <QApplication>
#include <QMessageBox>
#include <QThread>

#include "ui/gui/qtwindow.h"

namespace tessitor::gui {

namespace {

constexpr unsigned kButtonMask = 0x0F;
constexpr unsigned kIconMask = 0xF0;

} // namespace

int CQtUi::UnseenAnswer(unsigned style)
{
    switch (style & kButtonMask) {
    case MB_YESNO:
        return IDNO;
    case MB_OKCANCEL:
    case MB_YESNOCANCEL:
        return IDCANCEL;
    default:
        return IDOK;
    }
}

int CQtUi::Show(QWidget* parent, const std::string& text, const std::string& caption, unsigned style)
{
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    switch (style & kIconMask) {
    case MB_ICONSTOP:
        icon = QMessageBox::Critical;
        break;
    case MB_ICONQUESTION:
        icon = QMessageBox::Question;
        break;
    case MB_ICONWARNING:
        icon = QMessageBox::Warning;
        break;
    case MB_ICONINFORMATION:
        icon = QMessageBox::Information;
        break;
    default:
        break;
    }
    QMessageBox::StandardButtons buttons = QMessageBox::Ok;
    switch (style & kButtonMask) {
    case MB_OKCANCEL:
        buttons = QMessageBox::Ok | QMessageBox::Cancel;
        break;
    case MB_YESNOCANCEL:
        buttons = QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel;
        break;
    case MB_YESNO:
        buttons = QMessageBox::Yes | QMessageBox::No;
        break;
    default:
        break;
    }
    QMessageBox box(icon, QString::fromStdString(caption), QString::fromStdString(text), buttons, parent);
    // A system-modal box stops the whole application, as on the original.
    box.setWindowModality(Qt::ApplicationModal);
    switch (box.exec()) {
    case QMessageBox::Yes:
        return IDYES;
    case QMessageBox::No:
        return IDNO;
    case QMessageBox::Cancel:
        return IDCANCEL;
    case QMessageBox::Ok:
        return IDOK;
    default: // closed by the window manager
        return UnseenAnswer(style);
    }
}

int CQtUi::MessageBox(Window* parent, const std::string& text, const std::string& caption, unsigned style)
{
    auto* window = dynamic_cast<CQtWindow*>(parent);
    QWidget* widget = window ? window->Widget() : nullptr;
    if (QThread::currentThread() == qApp->thread())
        return Show(widget, text, caption, style);
    if (m_bClosed)
        return UnseenAnswer(style);
    int answer = UnseenAnswer(style);
    QMetaObject::invokeMethod(
        qApp, [&] { answer = Show(widget, text, caption, style); }, Qt::BlockingQueuedConnection);
    return answer;
}

} // namespace tessitor::gui
