// The scope of one drive: the recorder set-up (a signal for each display,
// the trigger, level mode and levels, gap, length, the pre-trigger text),
// Start and Stop, the recorder's state from its messages, and the plot of
// the recording. Saved and exported from here; saved files open again.
#pragma once

#include <QPointer>
#include <QTimer>
#include <QWidget>
#include <memory>
#include <vector>

#include "recorder/recorder.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QSpinBox;

namespace tessitor::gui {

class CDriveSession;
class CQtWindow;
class CScopeView;

class CScopeWindow : public QWidget {
    Q_OBJECT
public:
    /// Displays the set-up offers.
    static constexpr int kMaxDisplays = 4;
    /// How often the window looks whether the recorder's phase ended, in ms.
    static constexpr int kPhaseCheckMs = 50;

    /// The scope of session (not owned; outlives this window). Reads the
    /// drive's signals and triggers on the drive's worker.
    CScopeWindow(CDriveSession* session, QWidget* parent = nullptr);
    /// Stops a recording under way.
    ~CScopeWindow() override;

    /// Arms the recorder as the set-up says and runs the recording.
    void Start();
    /// Stops the recording at the recorder's next check.
    void Stop();
    /// Shows a saved scope file; empty, or why not.
    QString Open(const QString& path);
    /// Saves the recording shown: .sdv (MAT), .csv, or a .png/.svg/.pdf
    /// picture by path's extension; empty, or why not.
    QString SaveAs(const QString& path);

    /// Where a finished recording is saved (default "Scope.sdv" here).
    void SetScopeFile(const QString& path) { m_sScopeFile = path; }
    /// The set-up's fields, for scripts and tests.
    void SetSignals(const QStringList& names);
    void SetTrigger(const QString& row);
    void SetLength(int samples);
    void SetGap(int gap);
    void SetAfterArming(const QString& commands);

    CScopeView* View() const { return m_pView; }
    /// The recorder's state in words ("Waiting for trigger", "Uploading").
    QString StateText() const;
    /// True while a recording runs.
    bool IsRecording() const { return m_nPhase != 0; }
    /// True once the drive's signals and triggers are listed.
    bool IsReady() const { return m_bReady; }

signals:
    /// A recording ended: shown (bOk) or failed or stopped.
    void RecordingEnded(bool bOk);

private:
    std::intptr_t OnRecorderMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam);
    void Populate(const std::shared_ptr<CRecorder>& rec);
    void Armed(const std::shared_ptr<CRecorder>& rec);
    void CheckPhase();
    void Finish(bool bOk, const QString& state);
    void SendAfterArming();
    void UpdateCursorText();
    void SaveDialog();
    void ExportDialog();
    void OpenDialog();
    std::vector<CViewWindow> Looks() const;

    CDriveSession* m_pSession;
    CQtWindow* m_pWindow;
    std::shared_ptr<CRecorder> m_pRecorder;
    int m_nPhase = 0;
    int m_nChunks = 0;
    bool m_bUploading = false;
    bool m_bReady = false;
    bool m_bStopAsked = false; // Stop came before the recorder was made
    QTimer m_PhaseTimer;
    QString m_sScopeFile = CRecorder::kDefaultScopeFile;

    std::vector<QComboBox*> m_arSignals;
    QComboBox* m_pTrigger;
    QComboBox* m_pLevelMode;
    QLineEdit* m_pLevel1;
    QLineEdit* m_pLevel2;
    QSpinBox* m_pGap;
    QSpinBox* m_pLength;
    QLineEdit* m_pPreTrigger;
    QComboBox* m_pBackColor;
    QComboBox* m_pTraceColor;
    QComboBox* m_pAxisMode;
    QLineEdit* m_pAfterArming;
    QPushButton* m_pStart;
    QPushButton* m_pStop;
    QLabel* m_pState;
    QProgressBar* m_pProgress;
    CScopeView* m_pView;
    QLabel* m_pCursors;
};

} // namespace tessitor::gui
