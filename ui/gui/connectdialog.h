// The connection dialog: the virtual drive in one click, then a serial
// port (the ports this machine has), a network device (host, port, the
// drives it lists) or a CAN adapter (SLCAN device or SocketCAN interface,
// bit rate, node; a scan lists the nodes on the bus), and the last
// connection that succeeded. Asking a device runs on a thread of the
// dialog's own, so the dialog keeps answering.
#pragma once

#include <QDialog>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "can/canadapterchoice.h"
#include "ui/gui/drivesession.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;
class QSpinBox;
class QTabWidget;

namespace tessitor {
class CCanBusScan;
}

namespace tessitor::gui {

class CConnectDialog : public QDialog {
    Q_OBJECT
public:
    explicit CConnectDialog(QWidget* parent = nullptr);
    /// Stops a scan under way and waits for the dialog's thread.
    ~CConnectDialog() override;

    /// What the user chose; valid after exec() returned Accepted.
    const CConnectRequest& Request() const { return m_Request; }

    /// The serial ports of this machine: /dev/serial/by-id links first, then
    /// the ttys sysfs shows with a device behind them.
    static QStringList SerialPorts();

    /// The pages and their fields, for tests and scripts.
    QTabWidget* Pages() const { return m_pPages; }
    QComboBox* SerialPortBox() const { return m_pSerialPort; }
    QLineEdit* TcpHostEdit() const { return m_pTcpHost; }
    QSpinBox* TcpPortBox() const { return m_pTcpPort; }
    /// The drive on the network device; List Drives fills it.
    QComboBox* TcpTargetBox() const { return m_pTcpTarget; }
    QPushButton* ListButton() const { return m_pListButton; }
    QComboBox* CanAdapterBox() const { return m_pCanAdapter; }
    QLineEdit* CanDeviceEdit() const { return m_pCanDevice; }
    QSpinBox* CanNodeBox() const { return m_pCanNode; }
    /// The scan's first and last node and each node's time-out in ms.
    QSpinBox* ScanFirstBox() const { return m_pScanFirst; }
    QSpinBox* ScanLastBox() const { return m_pScanLast; }
    QSpinBox* ScanTimeoutBox() const { return m_pScanTimeout; }
    QPushButton* ScanButton() const { return m_pScanButton; }
    /// The nodes the scan found; double-click one to connect to it.
    QListWidget* ScanList() const { return m_pScanList; }
    QProgressBar* ScanProgress() const { return m_pScanProgress; }
    /// The error line under the pages.
    QString ErrorText() const;
    /// True while the dialog's thread asks a device.
    bool IsBusy() const { return m_Aside.joinable(); }

private:
    void AcceptVirtual();
    void AcceptLast();
    void AcceptPage();
    void ListNetworkDrives();
    /// Starts the CAN bus scan, or stops the one under way.
    void ScanCanBus();
    bool Fail(const QString& text);
    /// The adapter the CAN page names; nothing (and the error shown) when none.
    std::optional<CanAdapterChoice> ChosenCanAdapter();
    /// Runs work on the dialog's thread, then done on the GUI thread (not
    /// when the dialog has gone); one at a time.
    void RunAside(std::function<void()> work, std::function<void()> done);

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
    QPushButton* m_pListButton;
    QComboBox* m_pCanAdapter;
    QLineEdit* m_pCanDevice;
    QComboBox* m_pCanBitRate;
    QSpinBox* m_pCanNode;
    QSpinBox* m_pScanFirst;
    QSpinBox* m_pScanLast;
    QSpinBox* m_pScanTimeout;
    QPushButton* m_pScanButton;
    QListWidget* m_pScanList;
    QProgressBar* m_pScanProgress;
    QLabel* m_pError;
    std::thread m_Aside;
    std::shared_ptr<CCanBusScan> m_pScan; // the scan under way
};

} // namespace tessitor::gui
