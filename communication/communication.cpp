#include "communication/communication.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "communication/producttable.h"
#include "core/settings.h"
#include "core/trace.h"
#include "core/ui.h"
#include "core/window.h"

namespace tessitor {
namespace {

constexpr std::uint32_t kLongCommandTimeoutMs = 50000; // "SG", "SV": the drive writes its flash
constexpr std::uint32_t kUploadTimeoutMs = 5000;       // "BH" uploads and "DL" lines
constexpr std::uint32_t kLinkCheckTimeoutMs = 1000;
constexpr std::uint32_t kIdentifyTimeoutMs = 5000;
// The drive gets a breath between the chunks of an upload.
constexpr auto kRecordChunkPause = std::chrono::milliseconds(10);
constexpr char kEchoProbe[] = "\\COMMUNICATION";
constexpr char kDontCheckEcho[] = "Don't Check Echo";

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.rfind(prefix, 0) == 0;
}

bool IsDownloadLine(const std::string& command)
{
    return StartsWith(command, "DL") && !command.empty() && command.back() == '\\';
}

std::string UpToCarriageReturn(const std::string& text)
{
    return text.substr(0, text.find('\r'));
}

} // namespace

CCommunication::CCommunication(const CCommunicationInfo& info)
    : m_Info(info), m_pErrorTexts(CDriveErrorTable::Default())
{
}

CCommunication::~CCommunication()
{
    NotifyDestroy();
}

void CCommunication::NotifyDestroy()
{
    if (m_bDestroyNotified)
        return;
    m_bDestroyNotified = true;
    for (size_t i = m_arListenersCom.size(); i-- > 0;) {
        CListenerComm* listener = nullptr;
        {
            std::lock_guard lock(m_csListeners);
            if (i >= m_arListenersCom.size())
                continue;
            listener = m_arListenersCom[i];
        }
        listener->OnCommunicationDestroy(this);
    }
}

void CCommunication::Disconnect()
{
    for (size_t i = m_arListenersCom.size(); i-- > 0;) {
        CListenerComm* listener = nullptr;
        {
            std::lock_guard lock(m_csListeners);
            if (i >= m_arListenersCom.size())
                continue;
            listener = m_arListenersCom[i];
        }
        listener->OnCommunicationDisconnect(this);
    }
}

void CCommunication::AddListenerCom(CListenerComm* pListener)
{
    Trace::Write("CCommunication::AddListenerCom(CListenerComm *pListener)\n");
    std::lock_guard lock(m_csListeners);
    if (std::find(m_arListenersCom.begin(), m_arListenersCom.end(), pListener) == m_arListenersCom.end())
        m_arListenersCom.push_back(pListener);
}

void CCommunication::RemoveListenerCom(CListenerComm* pListener)
{
    Trace::Write("CCommunication::RemoveListenerCom(CListenerComm *pListener)\n");
    std::lock_guard lock(m_csListeners);
    auto it = std::find(m_arListenersCom.begin(), m_arListenersCom.end(), pListener);
    if (it != m_arListenersCom.end())
        m_arListenersCom.erase(it);
}

int CCommunication::SendCommand(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                                std::int32_t force)
{
    if (!IsConnected())
        throw CExceptionComm(3, this, kErrSrcSetup);

    std::unique_lock lock(m_csTransaction);
    // A link that timed out stays quiet until a forced command gets through.
    if (force == 0 && m_nTimeoutLatch == 1)
        throw CExceptionComm(COM_TIMEOUT, this, kErrSrcTransport);
    if (command.size() + 2 > kMaxCommandBytes)
        throw CExceptionComm(-1, this, kErrSrcLink, "Output buffer is too long!");

    timeoutMs = EffectiveTimeout(command, timeoutMs);

    // Families other than DSP and STP end listings (and download lines) with
    // 0x08 instead of ";".
    bool listingFamily = m_sProcessorType != "DSP" && m_sProcessorType != "STP";
    bool switchTerminator = listingFamily && (command == "LS" || command == "CC");
    NoteStateChange(command);

    std::string wire = command;
    if (IsDownloadLine(command))
        switchTerminator = listingFamily;
    else
        wire += '\r';

    if (switchTerminator)
        ToggleTerminator();
    int result = Exchange(wire, reply, timeoutMs, m_nCheckEcho);
    if (switchTerminator)
        ToggleTerminator();

    if (result != COM_OK) {
        if (result == COM_TIMEOUT)
            m_nTimeoutLatch = 1;
        throw CExceptionComm(result, this, kErrSrcTransport);
    }
    m_nTimeoutLatch = 0;
    return 0;
}

std::uint32_t CCommunication::EffectiveTimeout(const std::string& command, std::uint32_t timeoutMs)
{
    if (command == "SG" || command == "SV")
        return kLongCommandTimeoutMs;
    if (StartsWith(command, "BH") || StartsWith(command, "bh") || IsDownloadLine(command))
        return kUploadTimeoutMs;
    return timeoutMs;
}

void CCommunication::NoteStateChange(const std::string& command)
{
    if (command == "MO=1" || command == "XQ" || IsDownloadLine(command))
        m_nStateChanged = 1;
}

int CCommunication::CheckDriveError(const std::string& command, const std::string& reply, std::string& message) const
{
    size_t question = reply.find('?');
    if (question == std::string::npos || question == 0)
        return 0;
    int n = static_cast<unsigned char>(reply[question - 1]);
    if (n == 0)
        return 0;
    char head[64 + kMaxCommandBytes];
    std::snprintf(head, sizeof head, "Error (%d) :  '%s' : ", n, command.c_str());
    message = head + GetDriveErrorText(n) + " !";
    return 1;
}

std::string CCommunication::ExtractValue(const std::string& command, const std::string& reply)
{
    const long length = static_cast<long>(command.size());
    const long replyLength = static_cast<long>(reply.size());
    long count = replyLength - (length + 2);
    if (count <= 0)
        count = 1;
    if (length + 1 >= replyLength)
        return {};
    return reply.substr(static_cast<size_t>(length + 1), static_cast<size_t>(count));
}

int CCommunication::SendCommandGetValue(const std::string& command, std::string& value, std::uint32_t timeoutMs)
{
    if (m_nLinkBroken == 1)
        return -1;
    std::lock_guard outer(m_csValueSend);
    std::string reply;
    SendCommand(command, reply, timeoutMs, 0);
    std::string message;
    if (CheckDriveError(command, reply, message))
        throw CExceptionComm(-1, this, kErrSrcDrive, message);
    value = ReplyValue(command, reply);
    return 0;
}

int CCommunication::SendCommandGetReply(const std::string& command, std::string& reply, std::uint32_t timeoutMs)
{
    return SendCommand(command, reply, timeoutMs, 0);
}

int CCommunication::UploadRecordedData(std::int32_t length, std::uint32_t mask, CSampleStore& store,
                                       Window* pProgress, const std::atomic<std::int32_t>* pAbort)
{
    std::int32_t chunk = std::min(kRecordChunkSamples, length);
    std::int32_t start = 0;
    std::int32_t first = 0;
    while (start < length) {
        std::this_thread::sleep_for(kRecordChunkPause);
        if (pAbort && pAbort->load() == 1)
            return 0;
        start += chunk;
        std::string text;
        for (int send = 1;; ++send) {
            if (send > 1)
                Trace::Printf("BH command was repeat %d times\n", send - 1);
            ReadRecordChunk(mask, static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(start - 1), send,
                            text);
            if (store.AppendChunk(text))
                break;
            if (send == kRecordChunkSends)
                return -5;
        }
        chunk = chunk < length - start ? chunk : length - start;
        if (pProgress)
            pProgress->PostMessage(kMsgRecProgress, 0, 0);
        first = start;
    }
    return 0;
}

void CCommunication::ReadRecordChunk(std::uint32_t mask, std::uint32_t first, std::uint32_t last, int send,
                                     std::string& chunk)
{
    std::string ignored;
    auto value = [&](const std::string& command, std::string& out) {
        if (SendCommandGetValue(command, out, kUploadTimeoutMs) != 0)
            throw CExceptionComm(3, this, kErrSrcSetup); // the link check found the link broken
    };
    if (send == 1) {
        value("RP[8]=" + std::to_string(first), ignored);
        value("RP[9]=" + std::to_string(last), ignored);
    }
    value("BH=" + std::to_string(mask), chunk);
}

std::int32_t CCommunication::CheckLink()
{
    if (!IsConnected()) {
        m_nLinkBroken = 1;
        return 0;
    }
    if (m_nEchoMode == 0) {
        std::string reply;
        SendCommand(kEchoProbe, reply, kLinkCheckTimeoutMs, 1);
        if (UpToCarriageReturn(kEchoProbe) != UpToCarriageReturn(reply)) {
            m_nLinkBroken = 1;
            return 0;
        }
    }
    std::string reply;
    SendCommand("SR", reply, kLinkCheckTimeoutMs, 0);
    bool hasError = reply.find('?') != std::string::npos;
    bool hasTerminator = reply.find(';') != std::string::npos;
    if (m_nEchoMode == 1 && !hasError && !hasTerminator) {
        m_nLinkBroken = 1;
        return 0;
    }
    m_nLinkBroken = 0;
    return (!hasError && hasTerminator) ? 1 : -2;
}

void CCommunication::Identify()
{
    std::string reply;
    m_sVersion.clear();
    try {
        // A link may answer without a reply (the network device's -2).
        std::string message;
        if (SendCommandGetReply("VR", reply, kIdentifyTimeoutMs) == 0 && !reply.empty()
            && !CheckDriveError("VR", reply, message))
            m_sVersion = ReplyValue("VR", reply);
    } catch (const CExceptionComm&) {
    }
    if (m_sVersion.empty())
        m_sVersion = kUnknownVersion;
    char product[65] = {};
    if (std::sscanf(m_sVersion.c_str(), "%64s", product) != 1)
        product[0] = '\0';
    m_sProcessorType = CProductTable::Default()->ProcessorType(product);

    if (m_sProcessorType == "BreNol"
        && Settings::User().GetInt("Settings", "Don't show not support NOL/BRE message", 0) == 0) {
        Ui::Current().MessageBox(nullptr,
                                 "Some of the Tessitor's features might not be supported by this product.\n\n"
                                 "For this product it is recommended to use "
                                 "Tessitor VERSION 2_12_0_2_October2004 or earlier",
                                 "Tessitor", MB_OK | MB_ICONWARNING);
    }
}

} // namespace tessitor
