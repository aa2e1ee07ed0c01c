#include "communication/rs232.h"

#include <cerrno>
#include <cstring>

#include "communication/serialportmap.h"
#include "core/settings.h"

namespace tessitor {

CRs232::CRs232(const CCommunicationInfo& info) : CCommunication(info) {}

CRs232::~CRs232()
{
    NotifyDestroy();
    if (CSerialCommDev::IsOpen())
        CSerialCommDev::Close();
}

std::string CRs232::GetDevicePath() const
{
    if (!m_sDevicePath.empty())
        return m_sDevicePath;
    return SerialPortPath(m_Info.nPort, Settings::User());
}

int CRs232::Connect()
{
    SerialLineSettings line;
    line.wBaudRate = m_Info.wBaudRate;
    line.bByteSize = m_Info.bByteSize;
    line.bParity = m_Info.bParity;
    line.bStopBits = m_Info.bStopBits;
    line.bFlowCtrl = m_Info.bFlowCtrl;
    const std::string path = GetDevicePath();
    int error = Open(path, line);
    if (error == 0) {
        SetConnected(true);
        SetLinkBroken(false);
        SetConnectError({});
    } else if (error == ENOTTY) {
        SetConnectError(path + " is not a terminal device");
    } else if (error == EBUSY) {
        SetConnectError(path + " is in use by another program (" + std::strerror(error) + ")");
    } else {
        SetConnectError(path + ": " + std::strerror(error));
    }
    return error;
}

void CRs232::Disconnect()
{
    CCommunication::Disconnect();
    SetLinkBroken(true);
    SetConnected(false);
    Close();
}

int CRs232::Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs, std::int32_t checkEcho)
{
    return CSerialCommDev::Exchange(command, reply, timeoutMs, checkEcho);
}

void CRs232::ToggleTerminator()
{
    CSerialCommDev::ToggleTerminator();
}

} // namespace tessitor
