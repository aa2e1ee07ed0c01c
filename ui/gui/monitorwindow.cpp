#include "ui/gui/monitorwindow.h"

#include <qcustomplot.h>

#include <QDateTime>
#include <QFormLayout>
#include <QLabel>
#include <QPointer>
#include <QSpinBox>
#include <QVBoxLayout>

#include "communication/drivestatus.h"
#include "ui/gui/drivesession.h"

namespace tessitor::gui {

namespace {

const char* const kCaptions[] = {"Position [counts]", "Velocity [counts/s]", "Current [A]", "Status (SR)"};
const QColor kStripColors[] = {QColor(0, 90, 200), QColor(0, 150, 60), QColor(200, 60, 0)};
constexpr int kStripSignals = 3; // position, velocity, current

double NowSeconds()
{
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

} // namespace

CMonitorWindow::CMonitorWindow(CDriveSession* session, QWidget* parent) : QWidget(parent), m_pSession(session)
{
    setWindowTitle("Motion Monitor - " + session->Title());
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    m_pRate = new QSpinBox;
    m_pRate->setRange(1, 50);
    m_pRate->setSuffix(" Hz");
    m_pRate->setValue(kDefaultRateHz);
    form->addRow("Rate:", m_pRate);
    QFont fixed("Monospace");
    fixed.setStyleHint(QFont::TypeWriter);
    fixed.setPointSize(12);
    for (std::size_t i = 0; i < m_arValues.size(); ++i) {
        m_arValues[i] = new QLabel("-");
        m_arValues[i]->setFont(fixed);
        form->addRow(kCaptions[i], m_arValues[i]);
    }
    m_pStatusBits = new QLabel;
    m_pStatusBits->setWordWrap(true);
    form->addRow("", m_pStatusBits);
    m_pError = new QLabel;
    m_pError->setStyleSheet("color: #c00000");
    m_pError->setWordWrap(true);
    form->addRow(m_pError);
    layout->addLayout(form);

    m_pStrip = new QCustomPlot;
    m_pStrip->setMinimumHeight(220);
    m_pStrip->plotLayout()->clear();
    auto* margins = new QCPMarginGroup(m_pStrip);
    for (int i = 0; i < kStripSignals; ++i) {
        auto* rect = new QCPAxisRect(m_pStrip);
        m_pStrip->plotLayout()->addElement(i, 0, rect);
        rect->setMarginGroup(QCP::msLeft | QCP::msRight, margins);
        rect->axis(QCPAxis::atLeft)->setLabel(QString(kCommands[static_cast<std::size_t>(i)]));
        rect->axis(QCPAxis::atBottom)->setTickLabels(i == kStripSignals - 1);
        if (i == kStripSignals - 1)
            rect->axis(QCPAxis::atBottom)->setLabel("Time(sec)");
        QCPGraph* graph = m_pStrip->addGraph(rect->axis(QCPAxis::atBottom), rect->axis(QCPAxis::atLeft));
        graph->setPen(QPen(kStripColors[i], 1.5));
    }
    layout->addWidget(m_pStrip, 1);
    resize(520, 560);

    connect(m_pRate, qOverload<int>(&QSpinBox::valueChanged), this, &CMonitorWindow::SetRate);
    connect(&m_Timer, &QTimer::timeout, this, &CMonitorWindow::Read);
    SetRate(kDefaultRateHz);
}

void CMonitorWindow::SetRate(int hz)
{
    if (m_pRate->value() != hz)
        m_pRate->setValue(hz);
    m_Timer.start(1000 / std::max(1, hz));
}

QString CMonitorWindow::ValueText(int n) const
{
    return m_arValues.at(static_cast<std::size_t>(n))->text();
}

void CMonitorWindow::Read()
{
    if (m_bReading || !m_pSession->IsConnected())
        return;
    m_bReading = true;
    QPointer<CMonitorWindow> self(this);
    m_pSession->Post([self](CCommunication& link) {
        std::array<QString, 4> values;
        try {
            for (std::size_t i = 0; i < kCommands.size(); ++i) {
                std::string value;
                if (link.SendCommandGetValue(kCommands[i], value, CDriveSession::kCommandTimeoutMs) != 0) {
                    // Broken by an earlier failure, which was reported then.
                    QMetaObject::invokeMethod(
                        self, [self] { self->ShowError(CDriveSession::kBrokenLinkText); },
                        Qt::QueuedConnection);
                    return;
                }
                values[i] = QString::fromStdString(value);
            }
        } catch (CCommunication::CExceptionComm& e) {
            QString why = QString::fromStdString(e.FillMessage());
            QMetaObject::invokeMethod(self, [self, why] { self->ShowError(why); }, Qt::QueuedConnection);
            if (!CDriveSession::IsDriveRefusal(e))
                throw;
            return;
        }
        double seconds = NowSeconds();
        QMetaObject::invokeMethod(self, [self, values, seconds] { self->Show(values, seconds); }, Qt::QueuedConnection);
    });
}

void CMonitorWindow::ShowError(const QString& text)
{
    m_bReading = false;
    m_pError->setText(text);
}

void CMonitorWindow::Show(const std::array<QString, 4>& values, double seconds)
{
    m_bReading = false;
    m_pError->clear();
    ++m_nReadings;
    for (std::size_t i = 0; i < values.size(); ++i)
        m_arValues[i]->setText(values[i]);
    CDriveStatus status = CDriveStatus::Decode(values[3].toULong());
    m_pStatusBits->setText(QString::fromStdString(status.Text()) + "; recorder " + status.RecorderText());

    if (m_dStart < 0)
        m_dStart = seconds;
    double t = seconds - m_dStart;
    for (int i = 0; i < kStripSignals; ++i) {
        QCPGraph* graph = m_pStrip->graph(i);
        graph->addData(t, values[static_cast<std::size_t>(i)].toDouble());
        graph->data()->removeBefore(t - kStripSeconds);
        graph->keyAxis()->setRange(std::max(0.0, t - kStripSeconds), std::max(kStripSeconds, t));
        graph->rescaleValueAxis(false, true);
        // A flat signal still gets an axis a user can read.
        QCPRange range = graph->valueAxis()->range();
        if (range.size() < 1e-9)
            graph->valueAxis()->setRange(range.lower - 1, range.upper + 1);
    }
    m_pStrip->replot();
}

} // namespace tessitor::gui
