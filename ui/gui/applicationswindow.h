// Applications of one drive: "Open Existing Application" and download it
// into the drive (the action button reads "&Download", and "&Break" while a
// download runs), and save the drive as an application file. The questions
// and refusals come from the core as message boxes; the transfers report
// their progress here.
#pragma once

#include <QWidget>
#include <cstdint>
#include <functional>

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;

namespace tessitor::gui {

class CDriveSession;
class CQtWindow;

class CApplicationsWindow : public QWidget {
    Q_OBJECT
public:
    /// The applications of session's drive (not owned; outlives this window).
    CApplicationsWindow(CDriveSession* session, QWidget* parent = nullptr);
    /// Stops a transfer under way at its next check.
    ~CApplicationsWindow() override;

    /// Downloads the application file at path into the drive.
    void Download(const QString& path);
    /// Saves the drive into the application file at path.
    void Save(const QString& path);
    /// The action button: "&Download" starts, "&Break" stops.
    void Action();

    QString StatusText() const;
    QString ActionCaption() const;
    /// True while a download or a save runs.
    bool IsBusy() const { return m_bBusy; }
    /// How the last download or save ended, in words.
    QString Outcome() const { return m_sOutcome; }

signals:
    void Finished();

private:
    std::intptr_t OnMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam);
    void ChooseFile();
    void SaveDialog();
    /// Runs operation on the drive's worker; its outcome (or the failure's
    /// words) ends the busy state.
    void RunOnDrive(std::function<QString()> operation);
    void Done(const QString& outcome);

    CDriveSession* m_pSession;
    CQtWindow* m_pWindow;
    // Sets the running operation's abort flag; empty when none runs.
    std::function<void()> m_Break;
    bool m_bBusy = false;
    QString m_sOutcome;
    QLineEdit* m_pFile;
    QPushButton* m_pAction;
    QPushButton* m_pSave;
    QLabel* m_pStatus;
    QProgressBar* m_pProgress;
};

} // namespace tessitor::gui
