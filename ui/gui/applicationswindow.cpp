#include "ui/gui/applicationswindow.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>

#include "applicationeditor/openexistapp.h"
#include "applicationeditor/saveexistapp.h"
#include "ui/gui/drivesession.h"
#include "ui/gui/qtwindow.h"

namespace tessitor::gui {

namespace {

constexpr char kSaveTitle[] = "Save Application";
constexpr char kSaveFilter[] = "Binary Files (*.dat)";

const char* OutcomeText(COpenExistApp::Result result)
{
    switch (result) {
    case COpenExistApp::Result::kDownloaded:
        return "Downloaded.";
    case COpenExistApp::Result::kDeclined:
        return "Not downloaded: the versions differ and no conversion was wanted.";
    case COpenExistApp::Result::kAborted:
        return kTextTerminated;
    case COpenExistApp::Result::kNotConverted:
        return "Not downloaded: the conversion did not succeed; the drive is untouched.";
    case COpenExistApp::Result::kNothing:
        return "Nothing done: the file is neither an application file (.dat) nor a database (.mdb).";
    default:
        return "Not downloaded.";
    }
}

const char* OutcomeText(CSaveExistApp::Result result)
{
    switch (result) {
    case CSaveExistApp::Result::kSaved:
        return "Saved.";
    case CSaveExistApp::Result::kCancelled:
        return "Not saved.";
    case CSaveExistApp::Result::kAborted:
        return "Stopped: the file holds the version, not the drive's parameters.";
    default:
        return "Not saved.";
    }
}

// "text|pattern|text|pattern||" as Qt writes it: "text;;text" (each text
// names its patterns).
QString QtFilter(const char* filter)
{
    QStringList parts = QString(filter).split('|', Qt::SkipEmptyParts);
    QStringList texts;
    for (int i = 0; i < parts.size(); i += 2)
        texts << parts[i];
    return texts.join(";;");
}

} // namespace

CApplicationsWindow::CApplicationsWindow(CDriveSession* session, QWidget* parent)
    : QWidget(parent), m_pSession(session)
{
    setWindowTitle("Applications - " + session->Title());
    m_pWindow = new CQtWindow(this, [this](unsigned message, std::uintptr_t wParam, std::intptr_t lParam) {
        return OnMessage(message, wParam, lParam);
    });
    auto* form = new QFormLayout(this);
    auto* fileRow = new QHBoxLayout;
    m_pFile = new QLineEdit;
    m_pFile->setPlaceholderText("an application file (*.dat)");
    auto* browse = new QPushButton("&Open Existing Application...");
    fileRow->addWidget(m_pFile, 1);
    fileRow->addWidget(browse);
    form->addRow("File:", fileRow);
    m_pStatus = new QLabel;
    m_pStatus->setObjectName("status");
    m_pStatus->setWordWrap(true);
    form->addRow("Status:", m_pStatus);
    m_pProgress = new QProgressBar;
    m_pProgress->setRange(0, 1);
    m_pProgress->setValue(0);
    form->addRow(m_pProgress);
    auto* buttons = new QHBoxLayout;
    m_pAction = new QPushButton(kCaptionDownload);
    m_pSave = new QPushButton("&Save Application...");
    buttons->addWidget(m_pAction);
    buttons->addWidget(m_pSave);
    buttons->addStretch(1);
    form->addRow(buttons);
    resize(620, 200);

    connect(browse, &QPushButton::clicked, this, &CApplicationsWindow::ChooseFile);
    connect(m_pAction, &QPushButton::clicked, this, &CApplicationsWindow::Action);
    connect(m_pSave, &QPushButton::clicked, this, &CApplicationsWindow::SaveDialog);
}

CApplicationsWindow::~CApplicationsWindow()
{
    if (m_Break)
        m_Break();
}

QString CApplicationsWindow::StatusText() const
{
    return m_pStatus->text();
}

QString CApplicationsWindow::ActionCaption() const
{
    return m_pAction->text();
}

void CApplicationsWindow::Action()
{
    if (m_bBusy) {
        if (m_Break)
            m_Break();
        return;
    }
    if (m_pFile->text().trimmed().isEmpty()) {
        ChooseFile();
        if (m_pFile->text().trimmed().isEmpty())
            return;
    }
    Download(m_pFile->text().trimmed());
}

void CApplicationsWindow::ChooseFile()
{
    QString path = QFileDialog::getOpenFileName(this, kOpenDialogTitle, QFileInfo(m_pFile->text()).absolutePath(),
                                                QtFilter(kOpenDialogFilter));
    if (!path.isEmpty())
        m_pFile->setText(path);
}

void CApplicationsWindow::SaveDialog()
{
    QString path = QFileDialog::getSaveFileName(this, kSaveTitle, QFileInfo(m_pFile->text()).absolutePath(), kSaveFilter);
    if (!path.isEmpty())
        Save(path);
}

void CApplicationsWindow::Download(const QString& path)
{
    CCommunication* link = m_pSession->Link();
    if (m_bBusy || !link || !m_pSession->IsConnected())
        return;
    m_pFile->setText(path);
    // Made here, so that "&Break" can reach its abort flag; it runs on the
    // drive's worker, where its questions wait for the user.
    std::shared_ptr<CProductMethods> methods = CreateProductMethods(*link);
    auto open = std::make_shared<COpenExistApp>(*link, methods.get(), m_pWindow);
    m_Break = [open] { open->AbortFlag() = 1; };
    m_bBusy = true;
    m_pSave->setEnabled(false);
    m_pProgress->setRange(0, 1);
    m_pProgress->setValue(0);
    std::string file = path.toStdString();
    RunOnDrive([open, methods, file] { return QString(OutcomeText(open->Download(file))); });
}

void CApplicationsWindow::Save(const QString& path)
{
    CCommunication* link = m_pSession->Link();
    if (m_bBusy || !link || !m_pSession->IsConnected())
        return;
    std::shared_ptr<CProductMethods> methods = CreateProductMethods(*link);
    if (!methods) {
        Done("This drive's family has no application transfer.");
        return;
    }
    auto save = std::make_shared<CSaveExistApp>(*link, *methods, m_pWindow);
    m_Break = [save] { save->AbortFlag() = 1; };
    m_bBusy = true;
    m_pAction->setEnabled(false);
    m_pSave->setEnabled(false);
    m_pStatus->setText("Saving the drive to " + QFileInfo(path).fileName() + "...");
    std::string file = path.toStdString();
    RunOnDrive([save, methods, file] { return QString(OutcomeText(save->Save(file))); });
}

void CApplicationsWindow::RunOnDrive(std::function<QString()> operation)
{
    QPointer<CApplicationsWindow> self(this);
    m_pSession->Post([self, operation](CCommunication&) {
        QString outcome;
        try {
            outcome = operation();
        } catch (CCommunication::CExceptionComm& e) {
            // Shown here, and (a link failure) in the one error box as well.
            outcome = QString::fromStdString(e.FillMessage());
            QMetaObject::invokeMethod(self, [self, outcome] { self->Done(outcome); }, Qt::QueuedConnection);
            throw;
        }
        QMetaObject::invokeMethod(self, [self, outcome] { self->Done(outcome); }, Qt::QueuedConnection);
    });
}

void CApplicationsWindow::Done(const QString& outcome)
{
    m_Break = nullptr;
    m_bBusy = false;
    m_sOutcome = outcome;
    m_pAction->setEnabled(true);
    m_pAction->setText(kCaptionDownload);
    m_pSave->setEnabled(true);
    if (m_pStatus->text().isEmpty() || !outcome.isEmpty())
        m_pStatus->setText(outcome);
    emit Finished();
}

std::intptr_t CApplicationsWindow::OnMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam)
{
    switch (message) {
    case kMsgAppStatus:
        m_pStatus->setText(QString::fromLocal8Bit(reinterpret_cast<const char*>(lParam)));
        break;
    case kMsgAppCaption:
        m_pAction->setText(QString::fromLocal8Bit(reinterpret_cast<const char*>(lParam)));
        break;
    case kMsgTransferStart:
        m_pProgress->setRange(0, static_cast<int>(wParam)); // 0..0: busy, where the size is not known
        m_pProgress->setValue(0);
        break;
    case kMsgTransferStep:
        m_pProgress->setRange(0, static_cast<int>(lParam));
        m_pProgress->setValue(static_cast<int>(wParam));
        break;
    case kMsgTransferEnd:
        m_pProgress->setRange(0, 1);
        m_pProgress->setValue(1);
        break;
    default:
        break;
    }
    return 0;
}

} // namespace tessitor::gui
