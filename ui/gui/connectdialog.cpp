#include "ui/gui/connectdialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include "can/canadapterchoice.h"
#include "communication/lastconnection.h"
#include "communication/netdevice.h"
#include "communication/netprotocol.h"
#include "communication/producttable.h"
#include "core/settings.h"

namespace tessitor::gui {

namespace {

constexpr std::uint32_t kListTimeoutMs = 3000;
const int kBaudRates[] = {9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600};

} // namespace

QStringList CConnectDialog::SerialPorts()
{
    QStringList ports;
    for (const QFileInfo& link : QDir("/dev/serial/by-id").entryInfoList(QDir::System | QDir::Files))
        ports << link.absoluteFilePath();
    // A tty with a device link is a real port; the kernel's virtual
    // consoles have none.
    for (const QString& name : QDir("/sys/class/tty").entryList(QDir::Dirs | QDir::System | QDir::NoDotAndDotDot))
        if (QFileInfo::exists("/sys/class/tty/" + name + "/device") && QFileInfo::exists("/dev/" + name))
            ports << "/dev/" + name;
    return ports;
}

CConnectDialog::CConnectDialog(QWidget* parent) : QDialog(parent)
{
    setWindowTitle("Connect to a Drive");
    auto* layout = new QVBoxLayout(this);

    auto* virtualBox = new QGroupBox("No drive at hand");
    auto* virtualRow = new QHBoxLayout(virtualBox);
    auto* virtualButton = new QPushButton("Open a &Virtual Drive");
    virtualButton->setObjectName("virtualDrive");
    m_pProduct = new QComboBox;
    m_pProduct->setObjectName("product");
    for (const auto& [product, type] : CProductTable::Default()->Rows())
        if (!type.empty())
            m_pProduct->addItem(QString::fromStdString(product));
    m_pProduct->setCurrentText("Talvina");
    virtualRow->addWidget(virtualButton);
    virtualRow->addWidget(new QLabel("Product:"));
    virtualRow->addWidget(m_pProduct, 1);
    layout->addWidget(virtualBox);
    connect(virtualButton, &QPushButton::clicked, this, &CConnectDialog::AcceptVirtual);

    m_pPages = new QTabWidget;
    auto* serial = new QWidget;
    auto* serialForm = new QFormLayout(serial);
    m_pSerialPort = new QComboBox;
    m_pSerialPort->setEditable(true);
    m_pSerialPort->addItems(SerialPorts());
    m_pBaud = new QComboBox;
    for (int baud : kBaudRates)
        m_pBaud->addItem(QString::number(baud));
    m_pBaud->setCurrentText("115200");
    m_pBaud->setEditable(true);
    m_pParity = new QComboBox;
    for (int i = 0; i < 5; ++i)
        m_pParity->addItem(g_szParityNames[i]);
    m_pByteSize = new QComboBox;
    m_pByteSize->addItems({"7", "8"});
    m_pByteSize->setCurrentText("8");
    m_pStopBits = new QComboBox;
    m_pStopBits->addItems({"1", "1.5", "2"});
    serialForm->addRow("Port:", m_pSerialPort);
    serialForm->addRow("Baud rate:", m_pBaud);
    serialForm->addRow("Parity:", m_pParity);
    serialForm->addRow("Data bits:", m_pByteSize);
    serialForm->addRow("Stop bits:", m_pStopBits);
    m_pPages->addTab(serial, "Serial");

    auto* tcp = new QWidget;
    auto* tcpForm = new QFormLayout(tcp);
    m_pTcpHost = new QLineEdit("127.0.0.1");
    m_pTcpPort = new QSpinBox;
    m_pTcpPort->setRange(1, 65535);
    m_pTcpPort->setValue(kDefaultTcpPort);
    m_pTcpTarget = new QComboBox;
    m_pTcpTarget->setEditable(true);
    m_pTcpTarget->setCurrentText("RS232 Port 1");
    auto* listButton = new QPushButton("&List Drives");
    auto* targetRow = new QHBoxLayout;
    targetRow->addWidget(m_pTcpTarget, 1);
    targetRow->addWidget(listButton);
    tcpForm->addRow("Host:", m_pTcpHost);
    tcpForm->addRow("Port:", m_pTcpPort);
    tcpForm->addRow("Drive:", targetRow);
    connect(listButton, &QPushButton::clicked, this, &CConnectDialog::ListNetworkDrives);
    m_pPages->addTab(tcp, "TCP");

    auto* can = new QWidget;
    auto* canForm = new QFormLayout(can);
    m_pCanAdapter = new QComboBox;
    m_pCanAdapter->addItems({"SLCAN", "SocketCAN"});
    m_pCanDevice = new QLineEdit("/dev/ttyACM0");
    m_pCanBitRate = new QComboBox;
    for (int i = 0; i < 8; ++i)
        m_pCanBitRate->addItem(g_szCanBitRates[i]);
    m_pCanBitRate->setCurrentText("1000");
    m_pCanNode = new QSpinBox;
    m_pCanNode->setRange(1, 127);
    canForm->addRow("Adapter:", m_pCanAdapter);
    canForm->addRow("Device or interface:", m_pCanDevice);
    canForm->addRow("Bit rate [kbit/s]:", m_pCanBitRate);
    canForm->addRow("Node:", m_pCanNode);
    connect(m_pCanAdapter, &QComboBox::currentTextChanged, this,
            [this](const QString& adapter) { m_pCanDevice->setText(adapter == "SLCAN" ? "/dev/ttyACM0" : "can0"); });
    m_pPages->addTab(can, "CAN");
    layout->addWidget(m_pPages);

    m_pError = new QLabel;
    m_pError->setStyleSheet("color: #b00000");
    m_pError->setWordWrap(true);
    layout->addWidget(m_pError);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel);
    QPushButton* connectButton = buttons->addButton("&Connect", QDialogButtonBox::AcceptRole);
    QPushButton* lastButton = buttons->addButton("L&ast Connection", QDialogButtonBox::ActionRole);
    std::string lastError;
    std::optional<CLastConnection> last = LoadLastConnection(lastError);
    lastButton->setEnabled(last.has_value());
    if (last)
        lastButton->setToolTip(QString::fromStdString(last->info.GetDisplayText()));
    connect(connectButton, &QPushButton::clicked, this, &CConnectDialog::AcceptPage);
    connect(lastButton, &QPushButton::clicked, this, &CConnectDialog::AcceptLast);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
    virtualButton->setDefault(true);
    virtualButton->setFocus();
}

bool CConnectDialog::Fail(const QString& text)
{
    m_pError->setText(text);
    return false;
}

void CConnectDialog::AcceptVirtual()
{
    m_Request = {};
    m_Request.bVirtual = true;
    m_Request.sProduct = m_pProduct->currentText().toStdString();
    m_Request.info.m_sCommType = "RS_232";
    m_Request.info.wBaudRate = 115200;
    accept();
}

void CConnectDialog::AcceptLast()
{
    std::string error;
    std::optional<CLastConnection> last = LoadLastConnection(error);
    if (!last) {
        Fail(QString::fromStdString(error.empty() ? "No connection has succeeded yet." : error));
        return;
    }
    m_Request = {};
    m_Request.info = last->info;
    m_Request.options = last->options;
    accept();
}

void CConnectDialog::AcceptPage()
{
    m_Request = {};
    CCommunicationInfo& info = m_Request.info;
    LinkOptions& options = m_Request.options;
    const QString page = m_pPages->tabText(m_pPages->currentIndex());
    if (page == "Serial") {
        std::string path = m_pSerialPort->currentText().trimmed().toStdString();
        if (path.empty()) {
            Fail("Choose the serial port the drive is on.");
            return;
        }
        bool ok = false;
        unsigned baud = m_pBaud->currentText().toUInt(&ok);
        if (!ok || baud == 0) {
            Fail("The baud rate must be a positive number.");
            return;
        }
        info.m_sCommType = "RS_232";
        info.nPort = static_cast<std::uint8_t>(NameSerialPort(path, Settings::User()).nPort);
        info.wBaudRate = baud;
        info.bParity = static_cast<std::uint8_t>(m_pParity->currentIndex());
        info.bByteSize = static_cast<std::uint8_t>(m_pByteSize->currentText().toUInt());
        info.bStopBits = static_cast<std::uint8_t>(m_pStopBits->currentIndex());
        options.sSerialPath = path;
    } else if (page == "TCP") {
        std::string target = m_pTcpTarget->currentText().trimmed().toStdString();
        int a = 0, b = 0;
        if (std::sscanf(target.c_str(), "RS232 Port %d", &a) != 1
            && std::sscanf(target.c_str(), "CANopen Bus %d NodeID %d", &a, &b) != 2) {
            Fail("The drive is \"RS232 Port N\" or \"CANopen Bus B NodeID N\".");
            return;
        }
        info.m_sCommType = "TCP";
        info.sDesc = target;
        info.nType = target.rfind("CANopen", 0) == 0 ? 1 : 0;
        options.sTcpHost = m_pTcpHost->text().trimmed().toStdString();
        options.wTcpPort = static_cast<std::uint16_t>(m_pTcpPort->value());
    } else {
        CanAdapterChoice choice;
        std::string form = (m_pCanAdapter->currentText() == "SLCAN" ? "slcan:" : "socketcan:")
            + m_pCanDevice->text().trimmed().toStdString();
        if (!choice.FromName(form) || choice.sDevice.empty()) {
            Fail("Name the adapter's serial device or CAN interface.");
            return;
        }
        Settings settings = Settings::User();
        info.m_sCommType = "CAN";
        info.mNodeID = static_cast<std::uint8_t>(m_pCanNode->value());
        info.mBaudRateIndex = static_cast<std::uint8_t>(m_pCanBitRate->currentIndex());
        SetCanAdapter(info, choice, settings);
        // A device path too long for the descriptor got a board key: keep it.
        settings.Save();
    }
    accept();
}

void CConnectDialog::ListNetworkDrives()
{
    std::shared_ptr<CNetDevice> device = CNetDevice::Get(m_pTcpHost->text().trimmed().toStdString(),
                                                         static_cast<std::uint16_t>(m_pTcpPort->value()));
    std::vector<NetDriveEntry> drives;
    try {
        if (!device->Connect(kListTimeoutMs) || !device->ListDrives(drives, kListTimeoutMs)) {
            Fail(QString::fromStdString(CNetDevice::LastError()));
            return;
        }
    } catch (CCommunication::CExceptionComm& e) {
        Fail(QString::fromStdString(e.FillMessage()));
        return;
    }
    m_pTcpTarget->clear();
    for (const NetDriveEntry& drive : drives)
        m_pTcpTarget->addItem(QString::fromStdString(drive.sName));
    Fail(drives.empty() ? "The network device lists no drive." : QString());
}

} // namespace tessitor::gui
