#include "ui/gui/terminalwindow.h"

#include <QFontDatabase>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QVBoxLayout>

#include "ui/gui/drivesession.h"

namespace tessitor::gui {

namespace {

constexpr char kErrorColor[] = "#c00000";
constexpr char kCommandColor[] = "#0040a0";

} // namespace

CTerminalWindow::CTerminalWindow(CDriveSession* session, QWidget* parent) : QWidget(parent), m_pSession(session)
{
    setWindowTitle("Terminal - " + session->Title());
    auto* layout = new QVBoxLayout(this);
    m_pOutput = new QPlainTextEdit;
    m_pOutput->setObjectName("transcript");
    m_pOutput->setReadOnly(true);
    m_pOutput->setMaximumBlockCount(10000);
    m_pOutput->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_pInput = new QLineEdit;
    m_pInput->setObjectName("command");
    m_pInput->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_pInput->setPlaceholderText("Command, e.g. VR, SR, KP[2]=5 (Up and Down for history)");
    m_pInput->installEventFilter(this);
    layout->addWidget(m_pOutput, 1);
    layout->addWidget(m_pInput);
    connect(m_pInput, &QLineEdit::returnPressed, this, [this] {
        Send(m_pInput->text());
        m_pInput->clear();
    });
    connect(session, &CDriveSession::ConnectedChanged, this, [this](bool connected) {
        Append(connected ? "Connected." : "Disconnected.", connected ? nullptr : kErrorColor);
    });
    resize(640, 420);
}

QString CTerminalWindow::Transcript() const
{
    return m_pOutput->toPlainText();
}

void CTerminalWindow::Append(const QString& text, const char* color)
{
    if (color)
        m_pOutput->appendHtml(QString("<span style=\"color:%1\">%2</span>").arg(color, text.toHtmlEscaped()));
    else
        m_pOutput->appendHtml(text.toHtmlEscaped());
}

void CTerminalWindow::Send(const QString& command)
{
    QString line = command.trimmed();
    if (line.isEmpty())
        return;
    if (m_arHistory.isEmpty() || m_arHistory.back() != line)
        m_arHistory << line;
    while (m_arHistory.size() > kHistoryLength)
        m_arHistory.removeFirst();
    m_nHistoryPos = static_cast<int>(m_arHistory.size());

    if (!m_pSession->IsConnected()) {
        Append("> " + line, kCommandColor);
        Append("The drive is not connected.", kErrorColor);
        return;
    }
    QPointer<CTerminalWindow> self(this);
    std::string text = line.toStdString();
    m_pSession->Post([self, text, line](CCommunication& link) {
        // The command is shown when it goes out, so each reply follows its
        // command however fast the user types.
        QMetaObject::invokeMethod(
            self, [self, line] { self->Append("> " + line, kCommandColor); }, Qt::QueuedConnection);
        std::string value;
        QString reply;
        bool bError = false;
        try {
            if (link.SendCommandGetValue(text, value, CDriveSession::kCommandTimeoutMs) != 0) {
                reply = CDriveSession::kBrokenLinkText;
                bError = true;
            } else {
                reply = QString::fromStdString(value == ";" ? "" : value);
            }
        } catch (CCommunication::CExceptionComm& e) {
            QString message = QString::fromStdString(e.FillMessage());
            QMetaObject::invokeMethod(
                self, [self, message] { self->Append(message, kErrorColor); }, Qt::QueuedConnection);
            // The drive's refusal ends here; a link failure goes on to the
            // one "Communication Device Error" box.
            if (!CDriveSession::IsDriveRefusal(e))
                throw;
            return;
        }
        QMetaObject::invokeMethod(
            self, [self, reply, bError] { self->Append(reply, bError ? kErrorColor : nullptr); },
            Qt::QueuedConnection);
    });
}

bool CTerminalWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_pInput && event->type() == QEvent::KeyPress) {
        int key = static_cast<QKeyEvent*>(event)->key();
        if ((key == Qt::Key_Up || key == Qt::Key_Down) && !m_arHistory.isEmpty()) {
            m_nHistoryPos += key == Qt::Key_Up ? -1 : 1;
            m_nHistoryPos = std::clamp(m_nHistoryPos, 0, static_cast<int>(m_arHistory.size()));
            m_pInput->setText(m_nHistoryPos < m_arHistory.size() ? m_arHistory[m_nHistoryPos] : QString());
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

} // namespace tessitor::gui
