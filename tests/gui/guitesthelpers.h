// What the GUI tests share: a watcher that answers the message boxes the
// GUI shows (and keeps what they said), screenshots into the build tree,
// and settings in a folder of the test's own.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QTimer>

class QWidget;

namespace tessitor::gui::test {

class CBoxWatcher : public QObject {
    Q_OBJECT
public:
    /// Watches from now on; each box is answered with answer (a
    /// QMessageBox::StandardButton) once it is seen, and shot to shotName
    /// when that is not empty.
    explicit CBoxWatcher(int answer, QString shotName = {});
    /// "caption|text" of every box seen, in order.
    QStringList m_arSeen;

private:
    void Look();
    QTimer m_Timer;
    int m_nAnswer;
    QString m_sShotName;
};

/// Saves widget's picture as name.png under $TESSITOR_GUI_SHOTS (when set).
void Shoot(QWidget* widget, const QString& name);

/// Points the settings at a new temporary folder for the process' life.
void UseFreshSettings();

} // namespace tessitor::gui::test
