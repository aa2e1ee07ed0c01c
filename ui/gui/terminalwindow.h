// The terminal of one drive: a command line with history and the replies
// below, drive errors in red in the drive's own words. Commands go through
// the drive's worker, like everything else that reaches the drive.
#pragma once

#include <QStringList>
#include <QWidget>

class QLineEdit;
class QPlainTextEdit;

namespace tessitor::gui {

class CDriveSession;

class CTerminalWindow : public QWidget {
    Q_OBJECT
public:
    /// Most commands kept in the history.
    static constexpr int kHistoryLength = 200;

    /// The terminal of session (not owned; outlives this window).
    CTerminalWindow(CDriveSession* session, QWidget* parent = nullptr);

    /// Sends command as if typed and entered.
    void Send(const QString& command);
    /// The reply pane's text.
    QString Transcript() const;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void Append(const QString& text, const char* color = nullptr);

    CDriveSession* m_pSession;
    QPlainTextEdit* m_pOutput;
    QLineEdit* m_pInput;
    QStringList m_arHistory;
    int m_nHistoryPos = 0;
};

} // namespace tessitor::gui
