#include <atomic>

#include "communication/communication.h"
#include "core/ui.h"

namespace tessitor {
namespace {

const char* GeneralText(std::int32_t code)
{
    switch (code) {
    case 0: return "Undefined Error.";
    case 1: return "Create Communication Device Fault.";
    case 2: return "Communication Setup Info Error.";
    case 3: return "Communication must be Established.";
    case 4: return "";
    default: return nullptr;
    }
}

const char* CodedResultText(std::int32_t code)
{
    switch (code) {
    case 1: return "Time Out Waiting for Response from Controller";
    case 2: return "Communication Error";
    case 3: return "Communication Read Error";
    case 4: return "Communication Write Error";
    // 8196, not 8192: the text users have always seen.
    case 5: return "Input or Output Buffers larger then 8196 bytes";
    case 6: return "Input or Output Buffers are NULL";
    case 7: return "Pointer to Communication Device is NULL";
    // Code 8 has no text of its own and falls to "Unknown Error Code".
    case 9: return "Bad Communication Info Parameters";
    case 10: return "Bad Echo from Controller";
    case 11: return "Bad Data received from Controller";
    case 12: return "This Option is Not Implemented";
    default: return nullptr;
    }
}

std::string Filled(std::int32_t code, std::int32_t source, const std::string& message)
{
    switch (source) {
    case kErrSrcSetup:
        if (const char* text = GeneralText(code))
            return text;
        return message.empty() ? "Unknown Error" : message;
    case kErrSrcTransport:
    case kErrSrcCan:
    case kErrSrcTcpLink:
        if (const char* text = CodedResultText(code))
            return text;
        if (code == -1)
            return message.empty() ? "Unknown Error" : message;
        return "Unknown Error Code";
    case kErrSrcLink:
    case kErrSrcDrive:
    case kErrSrcCanDrive:
    case kErrSrcSdoAbort:
        return message.empty() ? "Unknown Error" : message;
    case kErrSrcTcp:
        return message.empty() ? "TCP Critical Error." : message;
    default:
        return message;
    }
}

// Only one "Communication Device Error" box at a time, process-wide.
std::atomic<int> g_nOpenReports{0};

} // namespace

CCommunication::CExceptionComm::CExceptionComm(std::int32_t code, CCommunication* link, std::int32_t source,
                                               std::string message)
    : m_nErrorCode(code), m_pCom(link), m_nErrorSource(source), m_sMessage(std::move(message))
{
}

const std::string& CCommunication::CExceptionComm::FillMessage()
{
    m_sMessage = Filled(m_nErrorCode, m_nErrorSource, m_sMessage);
    return m_sMessage;
}

const char* CCommunication::CExceptionComm::what() const noexcept
{
    m_sWhat = Filled(m_nErrorCode, m_nErrorSource, m_sMessage);
    return m_sWhat.c_str();
}

int CCommunication::CExceptionComm::ReportError(Window* parent)
{
    if (g_nOpenReports.fetch_add(1) != 0)
        return IDNO;
    std::string text = FillMessage();
    unsigned style = MB_SYSTEMMODAL | MB_ICONSTOP;
    if (m_nErrorSource == kErrSrcTcp) {
        text += "\nTCP connection was lost.";
        style |= MB_OK;
    } else {
        text += "\nWould you like to disconnect now ?";
        style |= MB_YESNO;
    }
    int answer = Ui::Current().MessageBox(parent, text, "Communication Device Error", style);
    g_nOpenReports.store(0);
    return answer;
}

} // namespace tessitor
