#include "ui/gui/parameterswindow.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include "applicationeditor/versiondb.h"
#include "core/strformat.h"
#include "ui/gui/drivesession.h"

namespace tessitor::gui {

namespace {

constexpr char kSaveCommand[] = "SV";
const QColor kChangedColor(255, 243, 176);
const QColor kRefusedColor(192, 0, 0);

QString Number(const CControlItem& item, double value)
{
    return QString::fromStdString(item.IsFloat() ? StrFormat("%g", value) : StrFormat("%.0f", value));
}

QTableWidgetItem* Fixed(const QString& text)
{
    auto* cell = new QTableWidgetItem(text);
    cell->setFlags(cell->flags() & ~Qt::ItemIsEditable);
    return cell;
}

} // namespace

CParametersWindow::CParametersWindow(CDriveSession* session, QWidget* parent) : QWidget(parent), m_pSession(session)
{
    setWindowTitle("Parameters - " + session->Title());
    auto* layout = new QVBoxLayout(this);
    m_pTable = new QTableWidget(0, kColDescription + 1);
    m_pTable->setObjectName("parameters");
    m_pTable->setHorizontalHeaderLabels({"Mnemonic", "Index", "Value", "Min", "Max", "Default", "Note", "Description"});
    m_pTable->horizontalHeader()->setStretchLastSection(true);
    m_pTable->verticalHeader()->hide();
    m_pTable->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed
                              | QAbstractItemView::AnyKeyPressed);
    layout->addWidget(m_pTable, 1);
    auto* buttons = new QHBoxLayout;
    auto* read = new QPushButton("&Read from Drive");
    m_pSave = new QPushButton("Save to &Flash (SV)");
    buttons->addWidget(read);
    buttons->addWidget(m_pSave);
    buttons->addStretch(1);
    layout->addLayout(buttons);
    m_pState = new QLabel;
    m_pState->setWordWrap(true);
    layout->addWidget(m_pState);
    resize(760, 520);

    const std::string version = session->Link() ? session->Link()->GetVersionText() : std::string();
    if (const VersionLayout* layoutOf = CVersionDb::Default()->Find(version)) {
        m_arItems = layoutOf->arItems;
        m_pState->setText(QString::fromStdString("Parameter list " + layoutOf->sName + " for " + version));
    } else {
        m_pState->setText(QString::fromStdString("The version database has no parameter list for \"" + version + "\"."));
        read->setEnabled(false);
        m_pSave->setEnabled(false);
    }
    m_bFilling = true;
    m_pTable->setRowCount(static_cast<int>(m_arItems.size()));
    for (int row = 0; row < static_cast<int>(m_arItems.size()); ++row) {
        const CControlItem& item = m_arItems[static_cast<std::size_t>(row)];
        m_pTable->setItem(row, kColName, Fixed(QString::fromStdString(item.m_sMnemonic)));
        m_pTable->setItem(row, kColIndex, Fixed(item.m_bIndexed ? QString::number(item.m_nIndex) : QString()));
        m_pTable->setItem(row, kColValue, new QTableWidgetItem);
        m_pTable->setItem(row, kColMin, Fixed(Number(item, item.m_dMin)));
        m_pTable->setItem(row, kColMax, Fixed(Number(item, item.m_dMax)));
        m_pTable->setItem(row, kColDefault, Fixed(Number(item, item.m_dDefault)));
        m_pTable->setItem(row, kColNote, Fixed({}));
        m_pTable->setItem(row, kColDescription, Fixed(QString::fromStdString(item.m_sDescription)));
    }
    m_bFilling = false;
    m_pTable->resizeColumnsToContents();

    connect(m_pTable, &QTableWidget::itemChanged, this, [this](QTableWidgetItem* cell) {
        if (!m_bFilling && cell->column() == kColValue)
            Write(cell->row(), cell->text());
    });
    connect(read, &QPushButton::clicked, this, &CParametersWindow::ReadAll);
    connect(m_pSave, &QPushButton::clicked, this, &CParametersWindow::SaveToFlash);
    if (!m_arItems.empty())
        ReadAll();
}

int CParametersWindow::RowOf(const QString& name) const
{
    for (std::size_t row = 0; row < m_arItems.size(); ++row)
        if (QString::fromStdString(m_arItems[row].GetName()) == name)
            return static_cast<int>(row);
    return -1;
}

QString CParametersWindow::StateText() const
{
    return m_pState->text();
}

void CParametersWindow::SetValueCell(int row, const QString& text)
{
    m_bFilling = true;
    m_pTable->item(row, kColValue)->setText(text);
    m_bFilling = false;
}

void CParametersWindow::SetChanged(int row, bool bChanged)
{
    m_bFilling = true;
    for (int column = 0; column <= kColDescription; ++column)
        m_pTable->item(row, column)->setBackground(bChanged ? QBrush(kChangedColor) : QBrush());
    m_bFilling = false;
}

void CParametersWindow::ReadAll()
{
    std::vector<std::string> names;
    for (const CControlItem& item : m_arItems)
        names.push_back(item.GetName());
    m_pState->setText("Reading...");
    QPointer<CParametersWindow> self(this);
    m_pSession->Post([self, names](CCommunication& link) {
        std::vector<std::string> values;
        QString error;
        for (const std::string& name : names) {
            std::string value;
            try {
                if (link.SendCommandGetValue(name, value, CDriveSession::kCommandTimeoutMs) != 0) {
                    error = CDriveSession::kBrokenLinkText;
                    break;
                }
            } catch (CCommunication::CExceptionComm& e) {
                if (!CDriveSession::IsDriveRefusal(e)) {
                    QString why = QString::fromStdString(e.FillMessage());
                    QMetaObject::invokeMethod(self, [self, values, why] { self->ShowValues(values, why); },
                                              Qt::QueuedConnection);
                    throw;
                }
                value = "? " + e.FillMessage(); // this one refused; the others are still read
            }
            values.push_back(value);
        }
        QMetaObject::invokeMethod(self, [self, values, error] { self->ShowValues(values, error); },
                                  Qt::QueuedConnection);
    });
}

void CParametersWindow::ShowValues(const std::vector<std::string>& values, const QString& error)
{
    for (std::size_t row = 0; row < values.size() && row < m_arItems.size(); ++row) {
        const std::string& value = values[row];
        bool bRefused = value.rfind("? ", 0) == 0;
        SetValueCell(static_cast<int>(row), bRefused ? QString() : QString::fromStdString(value));
        m_pTable->item(static_cast<int>(row), kColNote)->setText(bRefused ? QString::fromStdString(value.substr(2)) : QString());
    }
    m_pTable->resizeColumnsToContents();
    m_bRead = error.isEmpty() && values.size() == m_arItems.size();
    m_pState->setText(error.isEmpty() ? QString("%1 parameters read.").arg(values.size()) : error);
}

void CParametersWindow::Write(int row, const QString& text)
{
    if (row < 0 || row >= static_cast<int>(m_arItems.size()))
        return;
    const std::string name = m_arItems[static_cast<std::size_t>(row)].GetName();
    const std::string command = name + "=" + text.trimmed().toStdString();
    QPointer<CParametersWindow> self(this);
    m_pSession->Post([self, row, name, command](CCommunication& link) {
        std::string value;
        QString error;
        try {
            link.SendCommandGetValue(command, value, CDriveSession::kCommandTimeoutMs);
        } catch (CCommunication::CExceptionComm& e) {
            error = QString::fromStdString(e.FillMessage());
            if (!CDriveSession::IsDriveRefusal(e)) {
                QMetaObject::invokeMethod(self, [self, row, error] { self->ShowWrite(row, {}, error); },
                                          Qt::QueuedConnection);
                throw;
            }
        }
        // What the drive holds now, refused or not.
        link.SendCommandGetValue(name, value, CDriveSession::kCommandTimeoutMs);
        QString now = QString::fromStdString(value);
        QMetaObject::invokeMethod(self, [self, row, now, error] { self->ShowWrite(row, now, error); },
                                  Qt::QueuedConnection);
    });
}

void CParametersWindow::ShowWrite(int row, const QString& value, const QString& error)
{
    if (!value.isEmpty())
        SetValueCell(row, value);
    QTableWidgetItem* note = m_pTable->item(row, kColNote);
    note->setText(error);
    note->setToolTip(error);
    note->setForeground(error.isEmpty() ? QBrush() : QBrush(kRefusedColor));
    if (error.isEmpty())
        SetChanged(row, true);
    m_pState->setText(error.isEmpty() ? "Changed; Save to Flash keeps the changes over a power cycle." : error);
}

void CParametersWindow::SaveToFlash()
{
    m_pState->setText("Saving to flash...");
    QPointer<CParametersWindow> self(this);
    m_pSession->Post([self](CCommunication& link) {
        std::string value;
        QString error;
        try {
            link.SendCommandGetValue(kSaveCommand, value, CDriveSession::kCommandTimeoutMs);
        } catch (CCommunication::CExceptionComm& e) {
            error = QString::fromStdString(e.FillMessage());
            QMetaObject::invokeMethod(self, [self, error] { self->m_pState->setText(error); }, Qt::QueuedConnection);
            if (!CDriveSession::IsDriveRefusal(e))
                throw;
            return;
        }
        QMetaObject::invokeMethod(
            self,
            [self] {
                for (int row = 0; row < self->m_pTable->rowCount(); ++row)
                    self->SetChanged(row, false);
                self->m_pState->setText("Saved to flash (SV).");
            },
            Qt::QueuedConnection);
    });
}

} // namespace tessitor::gui
