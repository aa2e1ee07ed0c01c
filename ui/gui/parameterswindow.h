// The parameters of one drive, as the version database lists them for the
// drive's version: mnemonic, index, value read from the drive, limits and
// default. A value edited in place is sent as one command; a refused value
// shows the drive's error and goes back; changed rows are marked until the
// drive saves them to flash ("SV").
#pragma once

#include <QWidget>
#include <string>
#include <vector>

#include "applicationeditor/controlitem.h"

class QLabel;
class QTableWidget;
class QPushButton;

namespace tessitor::gui {

class CDriveSession;

class CParametersWindow : public QWidget {
    Q_OBJECT
public:
    /// Columns of the table.
    enum Column { kColName, kColIndex, kColValue, kColMin, kColMax, kColDefault, kColNote, kColDescription };

    /// The parameters of session's drive (not owned; outlives this window);
    /// reads their values at once.
    CParametersWindow(CDriveSession* session, QWidget* parent = nullptr);

    /// Reads every value from the drive again.
    void ReadAll();
    /// Sends "NAME=text" for row; the row shows the outcome.
    void Write(int row, const QString& text);
    /// Sends "SV": the drive keeps its parameters over a power cycle.
    void SaveToFlash();

    QTableWidget* Table() const { return m_pTable; }
    /// Row of "KP[2]" and the like, or -1.
    int RowOf(const QString& name) const;
    /// True once the values were read.
    bool IsRead() const { return m_bRead; }
    /// The state line under the table.
    QString StateText() const;

private:
    void ShowValues(const std::vector<std::string>& values, const QString& error);
    void ShowWrite(int row, const QString& value, const QString& error);
    void SetValueCell(int row, const QString& text);
    void SetChanged(int row, bool bChanged);

    CDriveSession* m_pSession;
    std::vector<CControlItem> m_arItems;
    QTableWidget* m_pTable;
    QPushButton* m_pSave;
    QLabel* m_pState;
    bool m_bFilling = false; // set while the program fills cells: only the user's edits are sent
    bool m_bRead = false;
};

} // namespace tessitor::gui
