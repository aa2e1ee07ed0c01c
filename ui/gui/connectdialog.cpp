#include "ui/gui/connectdialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include "can/canadapterchoice.h"
#include "can/canbusscan.h"
#include "can/canmessage.h"
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
    // consoles have none. The 8250 driver makes ttyS ports for UARTs that
    // are not there: their type is 0.
    for (const QString& name : QDir("/sys/class/tty").entryList(QDir::Dirs | QDir::System | QDir::NoDotAndDotDot)) {
        const QString sys = "/sys/class/tty/" + name;
        QFile type(sys + "/type");
        if (type.open(QIODevice::ReadOnly) && type.readAll().trimmed() == "0")
            continue;
        if (QFileInfo::exists(sys + "/device") && QFileInfo::exists("/dev/" + name))
            ports << "/dev/" + name;
    }
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
    m_pListButton = new QPushButton("&List Drives");
    auto* targetRow = new QHBoxLayout;
    targetRow->addWidget(m_pTcpTarget, 1);
    targetRow->addWidget(m_pListButton);
    tcpForm->addRow("Host:", m_pTcpHost);
    tcpForm->addRow("Port:", m_pTcpPort);
    tcpForm->addRow("Drive:", targetRow);
    connect(m_pListButton, &QPushButton::clicked, this, &CConnectDialog::ListNetworkDrives);
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
    m_pScanFirst = new QSpinBox;
    m_pScanFirst->setRange(1, kMaxNodeId);
    m_pScanLast = new QSpinBox;
    m_pScanLast->setRange(1, kMaxNodeId);
    m_pScanLast->setValue(kMaxNodeId);
    m_pScanTimeout = new QSpinBox;
    m_pScanTimeout->setRange(5, 5000);
    m_pScanTimeout->setValue(static_cast<int>(CCanBusScan::kNodeTimeoutMs));
    m_pScanTimeout->setSuffix(" ms");
    auto* rangeRow = new QHBoxLayout;
    rangeRow->addWidget(m_pScanFirst);
    rangeRow->addWidget(new QLabel("to"));
    rangeRow->addWidget(m_pScanLast);
    rangeRow->addWidget(new QLabel("each within"));
    rangeRow->addWidget(m_pScanTimeout);
    rangeRow->addStretch(1);
    canForm->addRow("Scan nodes:", rangeRow);
    m_pScanButton = new QPushButton("&Scan Bus");
    m_pScanProgress = new QProgressBar;
    m_pScanProgress->setRange(0, kMaxNodeId);
    m_pScanProgress->setValue(0);
    m_pScanProgress->setFormat("node %v");
    auto* scanRow = new QHBoxLayout;
    scanRow->addWidget(m_pScanButton);
    scanRow->addWidget(m_pScanProgress, 1);
    canForm->addRow("Nodes on the bus:", scanRow);
    m_pScanList = new QListWidget;
    m_pScanList->setMinimumHeight(90);
    canForm->addRow(m_pScanList);
    connect(m_pScanButton, &QPushButton::clicked, this, &CConnectDialog::ScanCanBus);
    connect(m_pScanList, &QListWidget::currentRowChanged, this, [this](int row) {
        if (row >= 0)
            m_pCanNode->setValue(m_pScanList->item(row)->data(Qt::UserRole).toInt());
    });
    connect(m_pScanList, &QListWidget::itemDoubleClicked, this, [this] { AcceptPage(); });
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

CConnectDialog::~CConnectDialog()
{
    if (m_pScan)
        m_pScan->AbortFlag() = 1;
    if (m_Aside.joinable())
        m_Aside.join();
}

QString CConnectDialog::ErrorText() const
{
    return m_pError->text();
}

void CConnectDialog::RunAside(std::function<void()> work, std::function<void()> done)
{
    if (m_Aside.joinable())
        return;
    QPointer<CConnectDialog> self(this);
    m_Aside = std::thread([self, work = std::move(work), done = std::move(done)] {
        work();
        // The dialog joins this thread before it goes, so self is whole here;
        // the queued call is dropped if the dialog goes before it runs.
        QMetaObject::invokeMethod(self.data(), [self, done] {
            if (!self)
                return;
            self->m_Aside.join();
            done();
        }, Qt::QueuedConnection);
    });
}

std::optional<CanAdapterChoice> CConnectDialog::ChosenCanAdapter()
{
    CanAdapterChoice choice;
    std::string form = (m_pCanAdapter->currentText() == "SLCAN" ? "slcan:" : "socketcan:")
        + m_pCanDevice->text().trimmed().toStdString();
    if (!choice.FromName(form) || choice.sDevice.empty()) {
        Fail("Name the adapter's serial device or CAN interface.");
        return std::nullopt;
    }
    return choice;
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
        std::optional<CanAdapterChoice> choice = ChosenCanAdapter();
        if (!choice)
            return;
        Settings settings = Settings::User();
        info.m_sCommType = "CAN";
        info.mNodeID = static_cast<std::uint8_t>(m_pCanNode->value());
        info.mBaudRateIndex = static_cast<std::uint8_t>(m_pCanBitRate->currentIndex());
        SetCanAdapter(info, *choice, settings);
        // A device path too long for the descriptor got a board key: keep it.
        settings.Save();
    }
    accept();
}

void CConnectDialog::ListNetworkDrives()
{
    if (IsBusy())
        return;
    std::string host = m_pTcpHost->text().trimmed().toStdString();
    auto port = static_cast<std::uint16_t>(m_pTcpPort->value());
    auto drives = std::make_shared<std::vector<NetDriveEntry>>();
    auto error = std::make_shared<std::string>();
    m_pListButton->setEnabled(false);
    Fail("Asking " + QString::fromStdString(host) + " for its drives...");
    RunAside([host, port, drives, error] {
        std::shared_ptr<CNetDevice> device = CNetDevice::Get(host, port);
        try {
            if (!device->Connect(kListTimeoutMs) || !device->ListDrives(*drives, kListTimeoutMs))
                *error = CNetDevice::LastError();
        } catch (CCommunication::CExceptionComm& e) {
            *error = e.FillMessage();
        }
    }, [this, drives, error] {
        m_pListButton->setEnabled(true);
        if (!error->empty()) {
            Fail(QString::fromStdString(*error));
            return;
        }
        m_pTcpTarget->clear();
        for (const NetDriveEntry& drive : *drives)
            m_pTcpTarget->addItem(QString::fromStdString(drive.sName));
        Fail(drives->empty() ? "The network device lists no drive." : QString());
    });
}

void CConnectDialog::ScanCanBus()
{
    if (m_pScan) {
        m_pScan->AbortFlag() = 1;
        return;
    }
    if (IsBusy())
        return;
    std::optional<CanAdapterChoice> choice = ChosenCanAdapter();
    if (!choice)
        return;
    auto scan = std::make_shared<CCanBusScan>(*choice, static_cast<std::uint8_t>(m_pCanBitRate->currentIndex()));
    scan->SetRange(m_pScanFirst->value(), m_pScanLast->value());
    scan->SetNodeTimeout(static_cast<std::uint32_t>(m_pScanTimeout->value()));
    QPointer<CConnectDialog> self(this);
    scan->SetProgress([self](int node) {
        QMetaObject::invokeMethod(self.data(), [self, node] {
            if (self)
                self->m_pScanProgress->setValue(node);
        }, Qt::QueuedConnection);
    });
    m_pScan = scan;
    m_pScanList->clear();
    m_pScanProgress->setRange(m_pScanFirst->value() - 1, m_pScanFirst->value() - 1 + scan->Nodes());
    m_pScanProgress->setValue(m_pScanFirst->value() - 1);
    m_pScanButton->setText("&Stop Scan");
    Fail(QString::fromStdString("Scanning " + choice->Name() + "..."));
    auto ok = std::make_shared<bool>(false);
    RunAside([scan, ok] { *ok = scan->Run(); }, [this, scan, ok] {
        m_pScan.reset();
        m_pScanButton->setText("&Scan Bus");
        for (const CanNodeFound& node : scan->Found()) {
            auto* item = new QListWidgetItem(QString::fromStdString(CCanBusScan::Describe(node)), m_pScanList);
            item->setData(Qt::UserRole, node.nNode);
        }
        if (!*ok)
            Fail(QString::fromStdString(scan->Error()));
        else if (scan->IsStopped())
            Fail(QString("Scan stopped: %1 node(s) found.").arg(scan->Found().size()));
        else
            Fail(scan->Found().empty() ? "No node answered." : QString());
        if (!scan->Found().empty())
            m_pScanList->setCurrentRow(0);
    });
}

} // namespace tessitor::gui
