// The connection dialog: the virtual drive in one click, then a serial
// port (the ports this machine has), a network device (host, port, the
// drives it lists) or a CAN adapter (SLCAN device or SocketCAN interface,
// bit rate, node), and the last connection that succeeded.
#pragma once

#include <QDialog>

#include "ui/gui/drivesession.h"

class QComboBox;
class QLineEdit;
class QSpinBox;
class QTabWidget;
class QLabel;

namespace tessitor::gui {

class CConnectDialog : public QDialog {
    Q_OBJECT
public:
    explicit CConnectDialog(QWidget* parent = nullptr);

    /// What the user chose; valid after exec() returned Accepted.
    const CConnectRequest& Request() const { return m_Request; }

    /// The serial ports of this machine: /dev/serial/by-id links first, then
    /// the ttys sysfs shows with a device behind them.
    static QStringList SerialPorts();

private:
    void AcceptVirtual();
    void AcceptLast();
    void AcceptPage();
    void ListNetworkDrives();
    bool Fail(const QString& text);

    CConnectRequest m_Request;
    QComboBox* m_pProduct;
    QTabWidget* m_pPages;
    QComboBox* m_pSerialPort;
    QComboBox* m_pBaud;
    QComboBox* m_pParity;
    QComboBox* m_pByteSize;
    QComboBox* m_pStopBits;
    QLineEdit* m_pTcpHost;
    QSpinBox* m_pTcpPort;
    QComboBox* m_pTcpTarget;
    QComboBox* m_pCanAdapter;
    QLineEdit* m_pCanDevice;
    QComboBox* m_pCanBitRate;
    QSpinBox* m_pCanNode;
    QLabel* m_pError;
};

} // namespace tessitor::gui
