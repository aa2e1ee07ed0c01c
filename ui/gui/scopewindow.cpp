#include "ui/gui/scopewindow.h"

#include <QComboBox>
#include <QDoubleValidator>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QSplitter>
#include <QVBoxLayout>

#include "recorder/scopefile.h"
#include "ui/gui/drivesession.h"
#include "ui/gui/qtwindow.h"
#include "ui/gui/scopeview.h"

namespace tessitor::gui {

namespace {

// The scope data file dialog as users know it.
constexpr char kScopeFileTitle[] = "Scope file";
constexpr char kScopeFileFilter[] = "Mat Files (*.sdv)";
constexpr char kExportFilter[] = "CSV Files (*.csv);;PNG Pictures (*.png);;SVG Pictures (*.svg);;PDF Documents (*.pdf)";
// What the virtual drive is asked to do once armed, so one click records a move.
constexpr char kVirtualMove[] = "MO=1; PR=4000; BG";

const std::pair<const char*, std::int32_t> kLevelModes[] = {
    {"Rising", kLevelRising}, {"Falling", kLevelFalling}, {"Window", kLevelWindow}, {"Event", kLevelEvent}};
const char* const kColors[] = {"Black", "White", "Yellow", "Green", "Cyan", "Red", "Blue"};

QComboBox* Combo(const QStringList& items, const QString& current)
{
    auto* combo = new QComboBox;
    combo->addItems(items);
    combo->setCurrentText(current);
    return combo;
}

QStringList ColorNames()
{
    QStringList names;
    for (const char* color : kColors)
        names << color;
    return names;
}

} // namespace

CScopeWindow::CScopeWindow(CDriveSession* session, QWidget* parent) : QWidget(parent), m_pSession(session)
{
    setWindowTitle("Scope - " + session->Title());
    m_pWindow = new CQtWindow(this, [this](unsigned message, std::uintptr_t wParam, std::intptr_t lParam) {
        return OnRecorderMessage(message, wParam, lParam);
    });

    auto* setup = new QWidget;
    auto* form = new QFormLayout(setup);
    for (int display = 1; display <= kMaxDisplays; ++display) {
        auto* combo = Combo({kNoSignal}, kNoSignal);
        combo->setObjectName(QString("display%1").arg(display));
        form->addRow(QString("Display %1:").arg(display), combo);
        m_arSignals.push_back(combo);
    }
    m_pTrigger = Combo({}, {});
    form->addRow("Trigger:", m_pTrigger);
    m_pLevelMode = new QComboBox;
    for (const auto& [name, mode] : kLevelModes)
        m_pLevelMode->addItem(name, mode);
    form->addRow("Level mode:", m_pLevelMode);
    m_pLevel1 = new QLineEdit("0");
    m_pLevel1->setValidator(new QDoubleValidator(m_pLevel1));
    m_pLevel2 = new QLineEdit("0");
    m_pLevel2->setValidator(new QDoubleValidator(m_pLevel2));
    form->addRow("Low level:", m_pLevel1);
    form->addRow("High level:", m_pLevel2);
    m_pGap = new QSpinBox;
    m_pGap->setRange(1, 1000);
    form->addRow("Gap (RG):", m_pGap);
    m_pLength = new QSpinBox;
    m_pLength->setRange(1, 100000);
    m_pLength->setValue(1000);
    form->addRow("Length (RL):", m_pLength);
    m_pPreTrigger = new QLineEdit("0%");
    form->addRow("Pre-trigger (RP[2]):", m_pPreTrigger);
    m_pBackColor = Combo(ColorNames(), "Black");
    m_pTraceColor = Combo(ColorNames(), "White");
    m_pAxisMode = Combo({"Auto", "Manual"}, "Auto");
    form->addRow("Background:", m_pBackColor);
    form->addRow("Trace:", m_pTraceColor);
    form->addRow("Axis:", m_pAxisMode);
    m_pAfterArming = new QLineEdit(session->Request().bVirtual ? kVirtualMove : "");
    m_pAfterArming->setPlaceholderText("commands, separated by ;");
    m_pAfterArming->setToolTip("Sent once the recorder is armed, e.g. to start the motion to record");
    form->addRow("Then send:", m_pAfterArming);

    auto* buttons = new QHBoxLayout;
    m_pStart = new QPushButton("&Start");
    m_pStop = new QPushButton("S&top");
    m_pStart->setEnabled(false);
    m_pStop->setEnabled(false);
    buttons->addWidget(m_pStart);
    buttons->addWidget(m_pStop);
    form->addRow(buttons);
    m_pState = new QLabel("Reading the drive's recorder...");
    m_pState->setObjectName("state");
    m_pState->setWordWrap(true);
    // A long file path in the state must not widen the window (a word-wrapped
    // label cannot break a path); the tool tip holds it whole.
    m_pState->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    m_pProgress = new QProgressBar;
    m_pProgress->setRange(0, 1);
    m_pProgress->setValue(0);
    form->addRow(m_pState);
    form->addRow(m_pProgress);
    auto* fileButtons = new QHBoxLayout;
    auto* openButton = new QPushButton("&Open...");
    auto* saveButton = new QPushButton("Sa&ve...");
    auto* exportButton = new QPushButton("&Export...");
    auto* fitButton = new QPushButton("&Fit");
    for (QPushButton* button : {openButton, saveButton, exportButton, fitButton})
        fileButtons->addWidget(button);
    form->addRow(fileButtons);

    m_pView = new CScopeView;
    m_pCursors = new QLabel;
    m_pCursors->setFont(QFont(CViewWindow::kFontName, 9));
    m_pCursors->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // The cursor text changes with every move of a cursor; it must never
    // change the window's minimum width (a maximized window would keep the
    // widest one and push the plot out of view).
    m_pCursors->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    auto* right = new QWidget;
    auto* rightLayout = new QVBoxLayout(right);
    rightLayout->setContentsMargins(0, 0, 0, 0);
    rightLayout->addWidget(m_pView, 1);
    rightLayout->addWidget(m_pCursors);
    auto* splitter = new QSplitter;
    splitter->addWidget(setup);
    splitter->addWidget(right);
    splitter->setStretchFactor(1, 1);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(splitter);
    resize(1000, 620);

    connect(m_pStart, &QPushButton::clicked, this, &CScopeWindow::Start);
    connect(m_pStop, &QPushButton::clicked, this, &CScopeWindow::Stop);
    connect(openButton, &QPushButton::clicked, this, &CScopeWindow::OpenDialog);
    connect(saveButton, &QPushButton::clicked, this, &CScopeWindow::SaveDialog);
    connect(exportButton, &QPushButton::clicked, this, &CScopeWindow::ExportDialog);
    connect(fitButton, &QPushButton::clicked, m_pView, &CScopeView::FitAll);
    connect(m_pView, &CScopeView::CursorsChanged, this, &CScopeWindow::UpdateCursorText);
    connect(&m_PhaseTimer, &QTimer::timeout, this, &CScopeWindow::CheckPhase);
    connect(session, &CDriveSession::ConnectedChanged, this, [this](bool connected) {
        // A recorder that was running drops the link and ends its phase by
        // itself; one still being armed never will.
        if (!connected && m_nPhase == -1)
            Finish(false, "The drive was disconnected.");
    });
    UpdateCursorText();

    // The lists come from the drive (its slot mapping), so they are read on
    // the drive's worker.
    QPointer<CScopeWindow> self(this);
    session->Post([self](CCommunication& link) {
        std::shared_ptr<CRecorder> rec = CRecorder::Create(&link);
        QMetaObject::invokeMethod(self, [self, rec] { self->Populate(rec); }, Qt::QueuedConnection);
    });
}

CScopeWindow::~CScopeWindow()
{
    if (m_pRecorder)
        m_pRecorder->AbortFlag() = 1;
    m_PhaseTimer.stop();
    m_pRecorder.reset(); // ends its worker before the window it posts to goes
}

void CScopeWindow::Populate(const std::shared_ptr<CRecorder>& rec)
{
    if (!rec) {
        m_pState->setText("This drive has no recorder (its family is \""
                          + QString::fromStdString(m_pSession->Link()->GetProcessorType()) + "\").");
        return;
    }
    QStringList names{kNoSignal};
    for (const CRecorder::SignalSlot& slot : rec->Slots())
        if (slot.IsUsable())
            names << QString::fromStdString(slot.sName);
    for (std::size_t i = 0; i < m_arSignals.size(); ++i) {
        m_arSignals[i]->clear();
        m_arSignals[i]->addItems(names);
        m_arSignals[i]->setCurrentIndex(i + 1 < static_cast<std::size_t>(names.size()) && i < 2 ? static_cast<int>(i) + 1 : 0);
    }
    m_pTrigger->clear();
    for (const auto& row : rec->TriggerSources())
        m_pTrigger->addItem(QString::fromStdString(row->sName));
    m_pTrigger->setCurrentText(m_pSession->Request().bVirtual ? "Begin Motion" : "(No Trigger)");
    m_pStart->setEnabled(true);
    m_pState->setText("Ready");
    m_bReady = true;
}

void CScopeWindow::SetSignals(const QStringList& names)
{
    for (std::size_t i = 0; i < m_arSignals.size(); ++i)
        m_arSignals[i]->setCurrentText(i < static_cast<std::size_t>(names.size()) ? names[static_cast<int>(i)] : kNoSignal);
}

void CScopeWindow::SetTrigger(const QString& row) { m_pTrigger->setCurrentText(row); }
void CScopeWindow::SetLength(int samples) { m_pLength->setValue(samples); }
void CScopeWindow::SetGap(int gap) { m_pGap->setValue(gap); }
void CScopeWindow::SetAfterArming(const QString& commands) { m_pAfterArming->setText(commands); }

QString CScopeWindow::StateText() const
{
    return m_pState->text();
}

void CScopeWindow::Start()
{
    if (m_nPhase != 0 || !m_pSession->IsConnected())
        return;
    QStringList signalNames;
    for (QComboBox* combo : m_arSignals)
        if (combo->currentText() != kNoSignal)
            signalNames << combo->currentText();
    if (signalNames.isEmpty()) {
        m_pState->setText("Choose a signal for at least one display.");
        return;
    }
    QString preTrigger = m_pPreTrigger->text().trimmed();
    if (!preTrigger.endsWith('%')) {
        m_pState->setText("The pre-trigger is a percentage with its sign, e.g. 25%.");
        return;
    }
    CRecordSettings settings;
    settings.nLevelMode = m_pLevelMode->currentData().toInt();
    settings.dLevel1 = m_pLevel1->text().toDouble();
    settings.dLevel2 = m_pLevel2->text().toDouble();
    settings.sGap = std::to_string(m_pGap->value());
    settings.sLength = std::to_string(m_pLength->value());
    settings.sPreTrigger = preTrigger.toStdString();
    std::string trigger = m_pTrigger->currentText().toStdString();
    std::string scopeFile = m_sScopeFile.toStdString();
    bool bCan = m_pSession->Request().info.GetKind() == kKindCan;
    int perDisplay = (m_pLength->value() + CCommunication::kRecordChunkSamples - 1) / CCommunication::kRecordChunkSamples;
    m_nChunks = bCan ? 0 : perDisplay * static_cast<int>(signalNames.size());

    m_nPhase = -1; // preparing
    m_bUploading = false;
    m_pStart->setEnabled(false);
    m_pStop->setEnabled(true);
    m_pState->setText("Arming the recorder...");
    m_pProgress->setRange(0, 1);
    m_pProgress->setValue(0);
    m_bStopAsked = false;

    QPointer<CScopeWindow> self(this);
    CQtWindow* window = m_pWindow;
    m_pSession->Post([self, window, signalNames, settings, trigger, scopeFile](CCommunication& link) {
        std::shared_ptr<CRecorder> rec;
        try {
            rec = CRecorder::Create(&link);
        } catch (CCommunication::CExceptionComm& e) {
            QString why = QString::fromStdString(e.FillMessage());
            QMetaObject::invokeMethod(self, [self, why] { self->Finish(false, why); }, Qt::QueuedConnection);
            throw;
        }
        if (rec) {
            for (const QString& name : signalNames)
                rec->AddDisplay(name.toStdString());
            rec->SelectTrigger(std::max(0, rec->FindTriggerRow(trigger)));
            CRecordSettings& held = rec->Settings();
            held.nLevelMode = settings.nLevelMode;
            held.dLevel1 = settings.dLevel1;
            held.dLevel2 = settings.dLevel2;
            held.sGap = settings.sGap;
            held.sLength = settings.sLength;
            held.sPreTrigger = settings.sPreTrigger;
            rec->SetScopeFile(scopeFile);
            rec->SetWindows(window, window);
        }
        QMetaObject::invokeMethod(self, [self, rec] { self->Armed(rec); }, Qt::QueuedConnection);
    });
}

void CScopeWindow::Armed(const std::shared_ptr<CRecorder>& rec)
{
    if (!rec) {
        Finish(false, "This drive has no recorder.");
        return;
    }
    if (m_nPhase != -1 || m_bStopAsked) {
        Finish(false, "Stopped");
        return;
    }
    m_pRecorder = rec;
    m_nPhase = CRecorder::kPhaseClear;
    m_pRecorder->StartPhase(m_nPhase);
    m_PhaseTimer.start(kPhaseCheckMs);
}

void CScopeWindow::Stop()
{
    if (m_nPhase == 0)
        return;
    // The recorder looks at its flag at its next check; a phase that waits
    // for the trigger ends within one poll. One still being made on the
    // drive's worker is not started.
    m_bStopAsked = true;
    if (m_pRecorder)
        m_pRecorder->AbortFlag() = 1;
    m_pState->setText("Stopping...");
}

void CScopeWindow::CheckPhase()
{
    if (!m_pRecorder || !m_pRecorder->IsDone())
        return;
    int result = m_pRecorder->WaitPhase();
    if (m_pRecorder->AbortFlag() != 0) {
        // Leave the drive's recorder stopped, as it was before.
        m_pSession->Post([](CCommunication& link) {
            std::string value;
            link.SendCommandGetValue("RR=0", value, CRecorder::kStartTimeoutMs);
        });
        Finish(false, "Stopped: the recorder was stopped (RR=0).");
        return;
    }
    if (!result) {
        QString why = QString::fromStdString(m_pRecorder->LastError());
        Finish(false, why.isEmpty() ? "The recording failed." : why);
        return;
    }
    switch (m_nPhase) {
    case CRecorder::kPhaseClear:
        m_pState->setText(m_pRecorder->GetStartMode() == 2 ? "Recording" : "Waiting for trigger");
        SendAfterArming();
        break;
    case CRecorder::kPhaseWait:
    case CRecorder::kPhaseUpload:
        break;
    default: {
        std::vector<CViewWindow> looks = Looks();
        m_pView->Show(CScopeFile::FromRecorder(*m_pRecorder), looks);
        Finish(true, "Recorded and saved to " + QFileInfo(m_sScopeFile).absoluteFilePath());
        return;
    }
    }
    m_pRecorder->StartPhase(++m_nPhase);
}

void CScopeWindow::SendAfterArming()
{
    QStringList commands = m_pAfterArming->text().split(';', Qt::SkipEmptyParts);
    if (commands.isEmpty())
        return;
    QPointer<CScopeWindow> self(this);
    std::shared_ptr<CRecorder> rec = m_pRecorder;
    m_pSession->Post([self, rec, commands](CCommunication& link) {
        for (const QString& command : commands) {
            std::string value;
            try {
                link.SendCommandGetValue(command.trimmed().toStdString(), value, CDriveSession::kCommandTimeoutMs);
            } catch (CCommunication::CExceptionComm& e) {
                // The motion did not start: the recording would wait for ever.
                rec->AbortFlag() = 1;
                QString why = QString::fromStdString(e.FillMessage());
                QMetaObject::invokeMethod(self, [self, why] { self->m_pState->setText(why); }, Qt::QueuedConnection);
                throw;
            }
        }
    });
}

void CScopeWindow::Finish(bool bOk, const QString& state)
{
    m_PhaseTimer.stop();
    m_nPhase = 0;
    m_pRecorder.reset();
    m_pStart->setEnabled(m_bReady);
    m_pStop->setEnabled(false);
    m_pState->setText(state);
    m_pState->setToolTip(state); // whole, where a long path is cut in the label
    m_pProgress->setRange(0, 1);
    m_pProgress->setValue(bOk ? 1 : 0);
    emit RecordingEnded(bOk);
}

std::intptr_t CScopeWindow::OnRecorderMessage(unsigned message, std::uintptr_t wParam, std::intptr_t)
{
    switch (message) {
    case kMsgRecWaitTrigger:
        m_pState->setText("Waiting for trigger");
        break;
    case kMsgRecUpload:
        m_bUploading = true;
        m_pState->setText("Uploading");
        m_pProgress->setRange(0, m_nChunks); // 0..0: busy, where the chunks are not known ahead
        m_pProgress->setValue(0);
        break;
    case kMsgRecProgress:
        if (m_bUploading)
            m_pProgress->setValue(std::min(m_pProgress->value() + 1, m_pProgress->maximum()));
        else
            m_pState->setText("Recording");
        break;
    case kMsgRecFinished:
        m_pState->setText("Saving");
        break;
    case kMsgRecStartFailed:
        if (wParam == 1)
            m_pState->setText("The recorder could not be started.");
        break;
    default:
        break;
    }
    return 0;
}

std::vector<CViewWindow> CScopeWindow::Looks() const
{
    std::vector<CViewWindow> looks;
    int display = 0;
    for (QComboBox* combo : m_arSignals) {
        if (combo->currentText() == kNoSignal)
            continue;
        CViewWindow look(++display, combo->currentText().toStdString(), nullptr);
        look.m_sBackColor = m_pBackColor->currentText().toStdString();
        look.m_sTraceColor = m_pTraceColor->currentText().toStdString();
        look.m_sAxisMode = m_pAxisMode->currentText().toStdString();
        looks.push_back(look);
    }
    return looks;
}

void CScopeWindow::UpdateCursorText()
{
    m_pCursors->setText(m_pView->CursorText());
}

QString CScopeWindow::Open(const QString& path)
{
    CScopeFile file(0);
    if (!file.LoadMat(path.toStdString()))
        return QString::fromStdString(file.Error());
    m_pView->Show(file, Looks());
    m_pState->setText("Showing " + QFileInfo(path).fileName());
    return {};
}

QString CScopeWindow::SaveAs(const QString& path)
{
    CScopeFile file = m_pView->Recording();
    QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == "sdv" || suffix == "csv") {
        bool ok = suffix == "sdv" ? file.SaveMat(path.toStdString()) : file.SaveCsv(path.toStdString());
        return ok ? QString() : QString::fromStdString(file.Error());
    }
    return m_pView->Export(path);
}

void CScopeWindow::OpenDialog()
{
    QString path = QFileDialog::getOpenFileName(this, kScopeFileTitle, QFileInfo(m_sScopeFile).absolutePath(),
                                                kScopeFileFilter);
    if (path.isEmpty())
        return;
    if (QString error = Open(path); !error.isEmpty())
        QMessageBox::warning(this, kScopeFileTitle, error);
}

void CScopeWindow::SaveDialog()
{
    QFileDialog dialog(this, kScopeFileTitle, QFileInfo(m_sScopeFile).absolutePath(), kScopeFileFilter);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setDefaultSuffix("sdv");
    dialog.selectFile(CRecorder::kDefaultScopeFile);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return;
    if (QString error = SaveAs(dialog.selectedFiles().first()); !error.isEmpty())
        QMessageBox::warning(this, kScopeFileTitle, error);
}

void CScopeWindow::ExportDialog()
{
    QString path = QFileDialog::getSaveFileName(this, "Export the recording", QFileInfo(m_sScopeFile).absolutePath(),
                                                kExportFilter);
    if (path.isEmpty())
        return;
    if (QString error = SaveAs(path); !error.isEmpty())
        QMessageBox::warning(this, "Export the recording", error);
}

} // namespace tessitor::gui
