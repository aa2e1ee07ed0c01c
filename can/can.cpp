#include "can/can.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <source_location>

#include "can/binaryinterpreter.h"
#include "can/canadapterchoice.h"
#include "can/canclassify.h"
#include "can/sdoprotocol.h"
#include "communication/producttable.h"
#include "communication/waitnotice.h"
#include "core/settings.h"
#include "core/strformat.h"
#include "core/trace.h"
#include "core/ui.h"
#include "core/window.h"

namespace tessitor {
namespace {

constexpr std::uint32_t kDriveErrorTimeoutMs = 500; // the "EC" after a general abort
constexpr std::uint32_t kLinkCheckTimeoutMs = 1000;
constexpr std::uint32_t kRecordSetupTimeoutMs = 1000; // "RP[8]=0", "RP[9]=0" before a record upload
constexpr std::uint32_t kRecordUploadTimeoutMs = 5000;
constexpr std::uint16_t kDeviceTypeObject = 0x1000;
// Late upload responses for other objects passed over before one is taken.
constexpr int kStaleAnswersSkipped = 4;

// The CANopen OS command: 0x1024 clears, 0x1023 sub-index 1 takes the
// command, 2 reports the status, 3 holds the reply.
constexpr std::uint16_t kOsCommandObject = 0x1023;
constexpr std::uint16_t kOsCommandMode = 0x1024;
constexpr std::uint8_t kOsSubCommand = 1;
constexpr std::uint8_t kOsSubStatus = 2;
constexpr std::uint8_t kOsSubReply = 3;
constexpr std::uint8_t kOsStatusExecuting = 0xFF;
constexpr std::uint8_t kOsStatusError = 3;

// Protocol violations and aborts go to the trace with where they were found.
void LogAt(const char* text, std::source_location where = std::source_location::current())
{
    const char* file = std::strrchr(where.file_name(), '/');
    Trace::Printf("%s(%u) : %s", file ? file + 1 : where.file_name(), static_cast<unsigned>(where.line()), text);
}

CanMessage Message(std::uint16_t cobId, std::uint8_t* data)
{
    return CanMessage{cobId, 8, data};
}

} // namespace

CCan::CCan(const CCommunicationInfo& info)
    : CCommunication(info),
      m_sDeviceName(ChooseCanAdapter(info, Settings::User()).Name() + " node " + std::to_string(info.mNodeID))
{
}

CCan::~CCan()
{
    NotifyDestroy();
    std::lock_guard lock(m_csAdapter);
    if (m_pAdapter) {
        if (m_nMonitorId)
            m_pAdapter->RemoveMonitor(m_nMonitorId);
        m_pAdapter->DetachNode(NodeId());
    }
    m_pAdapter.reset();
    SetConnected(false);
}

std::string CCan::DeviceName() const
{
    return m_sDeviceName;
}

void CCan::SetFrameMonitor(CCanAdapter::Monitor monitor)
{
    std::lock_guard lock(m_csAdapter);
    m_fnMonitor = std::move(monitor);
}

int CCan::Connect()
{
    CanAdapterChoice choice = ChooseCanAdapter(m_Info, Settings::User());
    m_sDeviceName = choice.Name() + " node " + std::to_string(NodeId());
    std::shared_ptr<CCanAdapter> adapter = AcquireCanAdapter(choice);
    std::lock_guard lock(m_csAdapter);
    if (m_pAdapter)
        return 0;
    adapter->AttachNode(NodeId());
    if (m_fnMonitor)
        m_nMonitorId = adapter->AddMonitor(m_fnMonitor);
    if (int error = adapter->Open(m_Info.mBaudRateIndex)) {
        SetConnectError(choice.Name() + ": " + adapter->LastError());
        if (m_nMonitorId)
            adapter->RemoveMonitor(m_nMonitorId);
        m_nMonitorId = 0;
        adapter->DetachNode(NodeId());
        return error;
    }
    SetConnectError({});
    m_pAdapter = std::move(adapter);
    SetConnected(true);
    SetLinkBroken(false);
    return 0;
}

void CCan::Disconnect()
{
    CCommunication::Disconnect();
    SetLinkBroken(true);
    SetConnected(false);
    std::lock_guard lock(m_csAdapter);
    if (!m_pAdapter)
        return;
    if (m_nMonitorId)
        m_pAdapter->RemoveMonitor(m_nMonitorId);
    m_nMonitorId = 0;
    m_pAdapter->DetachNode(NodeId());
    m_pAdapter.reset();
}

int CCan::Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                   std::int32_t /*checkEcho*/)
{
    // CAN carries the command's text without its carriage return.
    std::string text = command;
    if (!text.empty() && text.back() == '\r')
        text.pop_back();
    reply.clear();
    try {
        RunCommand(text, reply, timeoutMs);
    } catch (const CExceptionComm& e) {
        // Coded results go back to the transaction, which latches a time-out.
        if (e.m_nErrorSource == kErrSrcCan && e.m_nErrorCode > 0)
            return e.m_nErrorCode;
        throw;
    }
    return COM_OK;
}

void CCan::RunCommand(const std::string& command, std::string& reply, std::uint32_t timeoutMs)
{
    m_sWaitingFor = command;
    CanCommandClass transfer;
    if (!m_bOsCommandOnly)
        transfer = ClassifyCanCommand(command, GetProcessorType());
    if (command.find("MO=1") != std::string::npos)
        m_bMotorOn = true;
    const std::uint16_t cobId = SdoRequestCobId();
    switch (transfer.nKind) {
    case kTransferSdoUpload:
        if (transfer.bRecord)
            SDO_UpLoadRecord(cobId, transfer.wIndex, transfer.bSubIndex, command, reply, timeoutMs, nullptr);
        else
            SDO_UpLoad(cobId, transfer.wIndex, transfer.bSubIndex, reply, timeoutMs);
        break;
    case kTransferSdoDownload: {
        const std::string& data = transfer.sData.empty() ? command : transfer.sData;
        SDO_DownLoad(cobId, transfer.wIndex, transfer.bSubIndex, reinterpret_cast<const std::uint8_t*>(data.data()),
                     static_cast<std::uint32_t>(data.size()), timeoutMs, nullptr);
        break;
    }
    case kTransferBinary:
        BinaryCommand(command, reply, timeoutMs);
        break;
    default:
        OsCommand(command, reply, timeoutMs);
        break;
    }
}

void CCan::BinaryCommand(const std::string& command, std::string& reply, std::uint32_t timeoutMs)
{
    BinaryRequest request = BuildBinaryRequest(command);
    SendFrame(CanMessage{static_cast<std::uint16_t>(kCobRpdo2 + NodeId()), request.nLength, request.abData.data()});
    std::uint8_t data[8] = {};
    CanMessage answer{0, 0, data};
    ReceivePdoFrame(answer, timeoutMs);
    reply = FormatBinaryReply(data, answer.wLength, request.bIndexed);
    if (BinaryReplyFailed(data))
        throw CExceptionComm(-1, this, kErrSrcCanDrive, GetDriveErrorText(std::atoi(reply.c_str())));
}

void CCan::OsCommand(const std::string& command, std::string& reply, std::uint32_t timeoutMs)
{
    const std::uint16_t cobId = SdoRequestCobId();
    const std::uint8_t clear = 0;
    SDO_DownLoad(cobId, kOsCommandMode, 0, &clear, 1, timeoutMs, nullptr);
    SDO_DownLoad(cobId, kOsCommandObject, kOsSubCommand, reinterpret_cast<const std::uint8_t*>(command.data()),
                 static_cast<std::uint32_t>(command.size()), timeoutMs, nullptr);

    // The wait ends when the elapsed ticks equal the time-out exactly, as the
    // drive tools have always compared. The tick advances by at most one
    // millisecond a poll, so the equality is always reached: after the
    // time-out on a quick bus, later on a slow one, but always.
    const auto start = std::chrono::steady_clock::now();
    std::uint32_t tick = 0;
    std::uint8_t status = kOsStatusExecuting;
    do {
        std::string result;
        SDO_UpLoad(cobId, kOsCommandObject, kOsSubStatus, result, timeoutMs);
        if (!result.empty())
            status = static_cast<std::uint8_t>(result[0]);
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        // Never past the time-out either: a time-out of 0 ends after one poll.
        tick = std::min({tick + 1, static_cast<std::uint32_t>(elapsed.count()), timeoutMs});
    } while (status == kOsStatusExecuting && tick != timeoutMs);
    if (status == kOsStatusExecuting)
        throw CExceptionComm(-1, this, kErrSrcCanDrive, "Error : OSCommand did not answered in expected time");

    SDO_UpLoad(cobId, kOsCommandObject, kOsSubReply, reply, timeoutMs);
    std::string message;
    if (status == kOsStatusError && CheckDriveError(command, reply, message))
        throw CExceptionComm(-1, this, kErrSrcCanDrive, message);
}

std::string CCan::ReplyValue(const std::string& command, const std::string& reply) const
{
    std::string value = reply.substr(0, reply.find('\0'));
    if (!m_bOsCommandOnly && ClassifyCanCommand(command, GetProcessorType()).nKind == kTransferBinary) {
        std::size_t equals = value.find('=');
        value = command.find('=') != std::string::npos || equals == std::string::npos
                    ? ""
                    : ShortestFloatText(value.substr(equals + 1));
    }
    return value.empty() ? ";" : value;
}

std::int32_t CCan::CheckLink()
{
    if (!IsConnected()) {
        SetLinkBroken(true);
        return 0;
    }
    try {
        std::string reply;
        SendCommand("SR", reply, kLinkCheckTimeoutMs, 0);
    } catch (const CExceptionComm& e) {
        if (e.m_nErrorSource != kErrSrcCanDrive) {
            SetLinkBroken(true);
            return 0;
        }
        SetLinkBroken(false);
        return -2;
    }
    SetLinkBroken(false);
    return 1;
}

void CCan::Identify()
{
    // Other drives hold the CiA device type in 0x1000 and answer "VR" by OS
    // command; only a "BreNol" version text there changes the transfer.
    try {
        std::string text;
        SdoUpload(kDeviceTypeObject, 0, text, kLinkCheckTimeoutMs);
        char product[65] = {};
        if (std::sscanf(text.c_str(), "%64s", product) == 1 && CProductTable::Default()->ProcessorType(product) == "BreNol")
            SetProcessorType("BreNol");
    } catch (const CExceptionComm& e) {
        Trace::Printf("CCan::Identify: 0x1000 not read (%d)\n", e.m_nErrorCode);
    }
    CCommunication::Identify();
}

void CCan::UploadRecord(std::uint32_t mask, std::string& data, Window* progress,
                        const std::atomic<std::int32_t>* pCancel)
{
    std::string reply;
    SendCommand("RP[8]=0", reply, kRecordSetupTimeoutMs, 0);
    SendCommand("RP[9]=0", reply, kRecordSetupTimeoutMs, 0);
    const std::string command = StrFormat("BH=%u", mask);
    CanCommandClass transfer = ClassifyCanCommand(command, GetProcessorType());
    std::lock_guard lock(TransactionLock());
    m_sWaitingFor = command;
    SDO_UpLoadRecord(SdoRequestCobId(), transfer.wIndex, transfer.bSubIndex, command, data, kRecordUploadTimeoutMs,
                     progress, pCancel);
}

void CCan::CheckConnected()
{
    if (!IsConnected())
        throw CExceptionComm(3, this, kErrSrcSetup);
}

// ---------------------------------------------------------------- adapter layer

std::shared_ptr<CCanAdapter> CCan::AdapterFor(const CanMessage& frame)
{
    std::shared_ptr<CCanAdapter> adapter;
    {
        std::lock_guard lock(m_csAdapter);
        adapter = m_pAdapter;
    }
    if (!adapter)
        throw CExceptionComm(3, this, kErrSrcSetup);
    if (!frame.pData)
        throw CExceptionComm(COM_BUFFER_NULL, this, kErrSrcCan);
    return adapter;
}

void CCan::SendFrame(const CanMessage& frame)
{
    std::shared_ptr<CCanAdapter> adapter = AdapterFor(frame);
    // A late answer to an earlier request must not pass for this one's.
    const std::uint16_t function = frame.wCobId & kCobFunctionMask;
    const std::uint8_t node = frame.wCobId & kCobNodeMask;
    if (function == kCobSdoRequest)
        adapter->Purge(kCobSdoResponse, node);
    else if (function == kCobRpdo2)
        adapter->Purge(kCobTpdo2, node);
    int result = adapter->SendFrame(MakeCanFrame(frame.wCobId, frame.pData, static_cast<std::uint8_t>(frame.wLength)));
    if (result != COM_OK)
        throw CExceptionComm(result, this, kErrSrcCan);
}

void CCan::ReceiveFrom(std::uint16_t function, CanMessage& frame, std::uint32_t timeoutMs)
{
    std::shared_ptr<CCanAdapter> adapter = AdapterFor(frame);
    CanFrame received;
    int result;
    {
        CWaitNotice notice(m_sWaitingFor, m_sDeviceName);
        result = adapter->ReceiveFrame(function, NodeId(), received, timeoutMs);
    }
    if (result != COM_OK) {
        Trace::Printf("CCan: no frame 0x%03X from node %d within %u ms (%d)\n", function + NodeId(), NodeId(),
                      timeoutMs, result);
        throw CExceptionComm(result, this, kErrSrcCan);
    }
    frame.wCobId = static_cast<std::uint16_t>(received.nId);
    frame.wLength = received.nLength;
    std::memcpy(frame.pData, received.abData.data(), 8);
}

void CCan::ReceivePdoFrame(CanMessage& frame, std::uint32_t timeoutMs)
{
    ReceiveFrom(kCobTpdo2, frame, timeoutMs);
}

void CCan::ReceiveSdoFrame(CanMessage& frame, std::uint32_t timeoutMs)
{
    ReceiveFrom(kCobSdoResponse, frame, timeoutMs);
}

// ---------------------------------------------------------------- SDO client

void CCan::SDO_InitUploadRequest(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub)
{
    sdo::Frame request = sdo::InitUploadRequest(index, sub);
    SendFrame(Message(cobId, request.data()));
}

void CCan::InitiateUpload(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub, std::uint8_t* response,
                          std::uint32_t timeoutMs, const char* abortLog)
{
    SDO_InitUploadRequest(cobId, index, sub);
    CanMessage answer = Message(cobId, response);
    // An upload response names its object: one for another object is a
    // server's late answer to a request that an earlier program gave up on.
    for (int stale = 0;; ++stale) {
        std::fill(response, response + 8, 0);
        ReceiveSdoFrame(answer, timeoutMs);
        const bool other = sdo::Specifier(response[0]) == sdo::kScsInitUpload
                        && (static_cast<std::uint16_t>(response[1] | response[2] << 8) != index || response[3] != sub);
        if (!other || stale == kStaleAnswersSkipped)
            break;
        Trace::Printf("CCan: skipped a late upload response of 0x%04X/%d\n", response[1] | response[2] << 8,
                      response[3]);
    }
    if (sdo::Specifier(response[0]) == sdo::kCsAbort) {
        LogAt(abortLog);
        SDO_Abort(response + 4);
    }
}

sdo::Frame CCan::UploadSegment(std::uint16_t cobId, int toggle, std::uint32_t timeoutMs, const char* abortLog)
{
    sdo::Frame frame = sdo::UploadSegmentRequest(toggle);
    SendFrame(Message(cobId, frame.data()));
    frame.fill(0);
    CanMessage answer = Message(cobId, frame.data());
    ReceiveSdoFrame(answer, timeoutMs);
    if (sdo::Specifier(frame[0]) == sdo::kCsAbort) {
        LogAt(abortLog);
        SDO_Abort(frame.data() + 4);
    }
    // A server's late answer to an earlier request (one a previous program
    // gave up on) can arrive here; taken as a segment it would pass for data.
    if (sdo::Specifier(frame[0]) != sdo::kScsUploadSegment) {
        LogAt("Not a segment in the segmented part of SDO upload \n");
        throw CExceptionComm(COM_BAD_DATA, this, kErrSrcCan);
    }
    return frame;
}

void CCan::SDO_UpLoad(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub, std::string& text,
                      std::uint32_t timeoutMs)
{
    text.clear();
    sdo::Frame response{};
    InitiateUpload(cobId, index, sub, response.data(), timeoutMs, "Abort was occured in init SDO upload \n");
    if (sdo::Specifier(response[0]) != sdo::kScsInitUpload)
        return;
    if (sdo::Expedited(response[0])) {
        // Four characters whatever n says: what the drive commands expect.
        text.assign(reinterpret_cast<const char*>(response.data() + 4), 4);
        return;
    }
    SDO_UpLoadSegments(cobId, text, timeoutMs);
}

void CCan::SDO_UpLoadSegments(std::uint16_t cobId, std::string& text, std::uint32_t timeoutMs)
{
    int toggle = 0;
    for (;;) {
        sdo::Frame frame =
            UploadSegment(cobId, toggle, timeoutMs, "Abort was occured in the segmented part of SDO upload \n");
        const int used = 7 - sdo::SegmentUnused(frame[0]);
        text.append(reinterpret_cast<const char*>(frame.data() + 1), static_cast<std::size_t>(used));
        // The next toggle follows the segment received, not the one asked
        // for: a server that repeats a toggle is not refused here.
        toggle = sdo::Toggle(frame[0]) ^ 1;
        if (sdo::LastSegment(frame[0]))
            return;
    }
}

void CCan::SDO_UpLoadRecord(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub, const std::string& command,
                            std::string& record, std::uint32_t timeoutMs, Window* progress,
                            const std::atomic<std::int32_t>* pCancel)
{
    record.clear();
    Trace::Printf("SDO_UpLoadRecord : %s from 0x%04X sub-index %d\n", command.c_str(), index, sub);
    sdo::Frame response{};
    InitiateUpload(cobId, index, sub, response.data(), timeoutMs,
                   "SDO_UpLoadRecord : Abort was occured in init SDO upload \n");
    if (sdo::Specifier(response[0]) != sdo::kScsInitUpload)
        return;
    if (sdo::Expedited(response[0])) {
        LogAt("SDO_UpLoadRecord : Error: The response contains transfer type expedited in SDO segmented upload.\n");
        throw CExceptionComm(-1, this, kErrSrcCan,
                             "Error:\nThe response contains transfer type expedited in SDO segmented upload.");
    }
    SDO_Rx_Array(cobId, record, timeoutMs, progress, pCancel);
}

void CCan::SDO_Rx_Array(std::uint16_t cobId, std::string& record, std::uint32_t timeoutMs, Window* progress,
                        const std::atomic<std::int32_t>* pCancel)
{
    int toggle = 0;
    int segments = 0;
    for (;;) {
        sdo::Frame frame = UploadSegment(cobId, toggle, timeoutMs,
                                         "SDO_Rx_Array : Abort was occured in the segmented part of  SDO upload \n");
        if (sdo::Toggle(frame[0]) != toggle) {
            LogAt("SDO_Rx_Array : Toggle bit error in the segmented part of  SDO upload \n");
            throw CExceptionComm(-1, this, kErrSrcCan, "Error: Toggle bit error in the segmented part of  SDO upload.");
        }
        const int used = 7 - sdo::SegmentUnused(frame[0]);
        record.append(reinterpret_cast<const char*>(frame.data() + 1), static_cast<std::size_t>(used));
        if (++segments % kRecordProgressSegments == 0 && progress)
            progress->PostMessage(kMsgRecProgress, 0, 0);
        toggle ^= 1;
        if (sdo::LastSegment(frame[0]))
            return;
        // A recording takes seconds on a slow bus: a cancel is honoured
        // between segments. The drive starts afresh at the next initiate.
        if (pCancel && pCancel->load() == 1) {
            Trace::Printf("SDO_Rx_Array : cancelled after %d segments\n", segments);
            return;
        }
    }
}

void CCan::SDO_DownLoad(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub, const std::uint8_t* data,
                        std::uint32_t length, std::uint32_t timeoutMs, Window* progress)
{
    if (length <= 4) {
        sdo::Frame frame = sdo::ExpeditedDownload(index, sub, data, length);
        CanMessage message = Message(cobId, frame.data());
        SDO_TxConfirmed(cobId, message, timeoutMs);
        return;
    }
    if (progress)
        progress->SendMessage(kMsgSdoStart, length, sdo::kBytesPerSegment);
    sdo::Frame frame = sdo::InitSegmentedDownload(index, sub, length);
    CanMessage message = Message(cobId, frame.data());
    SDO_TxConfirmed(cobId, message, timeoutMs);
    int toggle = 0;
    for (std::uint32_t offset = 0; offset < length; offset += sdo::kBytesPerSegment) {
        const std::uint32_t count = std::min(length - offset, sdo::kBytesPerSegment);
        frame = sdo::DownloadSegment(toggle, data + offset, count, offset + count >= length);
        message = Message(cobId, frame.data());
        SDO_TxConfirmed(cobId, message, timeoutMs);
        toggle ^= 1;
        if (progress)
            progress->SendMessage(kMsgSdoProgress, 0, 0);
    }
    if (progress)
        progress->SendMessage(kMsgSdoDone, 0, 0);
}

void CCan::SDO_TxConfirmed(std::uint16_t /*cobId*/, CanMessage& frame, std::uint32_t timeoutMs)
{
    SendFrame(frame);
    std::fill(frame.pData, frame.pData + 8, 0);
    ReceiveSdoFrame(frame, timeoutMs);
    SDO_Rx_confirm(frame);
}

void CCan::SDO_Rx_confirm(const CanMessage& frame)
{
    // Only an abort is refused: the specifier and toggle of a confirmation
    // are not checked, as drives have always been served.
    if (sdo::Specifier(frame.pData[0]) == sdo::kCsAbort) {
        LogAt("SDO_Rx_confirm() : The Abort was occured in SDO \n");
        SDO_Abort(frame.pData + 4);
    }
}

void CCan::SDO_Abort(const std::uint8_t* code)
{
    sdo::Frame bytes{};
    std::copy(code, code + 4, bytes.begin() + 4);
    const std::uint32_t value = sdo::Value32(bytes);
    std::string text;
    SdoAbortMessage(value, text, 0);
    std::int32_t source = kErrSrcSdoAbort;
    if (value == sdo::kAbortInternalIncompatibility)
        source = kErrSrcSdoInternal;
    else if (value == sdo::kAbortAlla)
        source = kErrSrcSdoAlla;
    throw CExceptionComm(-1, this, source, text);
}

void CCan::SdoAbortMessage(std::uint32_t code, std::string& text, int show)
{
    text = sdo::AbortText(code);
    if (code == sdo::kAbortGeneralError) {
        // The drive keeps the reason of a general abort: ask it.
        try {
            std::string reply;
            SendCommand("EC", reply, kDriveErrorTimeoutMs, 0);
            if (!reply.empty()) {
                std::string value = reply.substr(reply.find('=') == std::string::npos ? 0 : reply.find('=') + 1);
                text += GetDriveErrorText(std::atoi(value.c_str()));
            }
        } catch (const CExceptionComm& e) {
            Trace::Printf("CCan::SdoAbortMessage: EC failed (%d)\n", e.m_nErrorCode);
        }
    }
    if (show && text.size() > 0)
        Ui::Current().MessageBox(nullptr, text, "Tessitor", MB_OK | MB_ICONWARNING);
}

int CCan::UploadRecordedData(std::int32_t /*length*/, std::uint32_t mask, CSampleStore& store, Window* pProgress,
                             const std::atomic<std::int32_t>* pAbort)
{
    // The record holds the whole recording: the drive sends from "RP[8]"
    // to its end when "RP[9]" is 0.
    for (int send = 1; send <= kRecordChunkSends; ++send) {
        if (pAbort && pAbort->load() == 1)
            return 0;
        if (send > 1)
            Trace::Printf("BH command was repeat %d times\n", send - 1);
        std::string record;
        UploadRecord(mask, record, pProgress, pAbort);
        if (pAbort && pAbort->load() == 1)
            return 0;
        if (store.AppendChunk(record))
            return 0;
    }
    return -5;
}

// ---------------------------------------------------------------- tools

void CCan::SdoUpload(std::uint16_t index, std::uint8_t sub, std::string& data, std::uint32_t timeoutMs)
{
    CheckConnected();
    std::lock_guard lock(TransactionLock());
    m_sWaitingFor = StrFormat("SDO upload 0x%04X/%d", index, sub);
    const std::uint16_t cobId = SdoRequestCobId();
    data.clear();
    sdo::Frame response{};
    InitiateUpload(cobId, index, sub, response.data(), timeoutMs, "Abort was occured in init SDO upload \n");
    if (sdo::Specifier(response[0]) != sdo::kScsInitUpload) {
        LogAt("SdoUpload : unexpected response to the initiate upload \n");
        throw CExceptionComm(COM_BAD_DATA, this, kErrSrcCan);
    }
    if (!sdo::Expedited(response[0])) {
        SDO_UpLoadSegments(cobId, data, timeoutMs);
        return;
    }
    std::size_t size = sdo::SizeIndicated(response[0]) ? 4 - static_cast<std::size_t>(sdo::InitUnused(response[0])) : 4;
    data.assign(reinterpret_cast<const char*>(response.data() + 4), size);
}

void CCan::SdoDownload(std::uint16_t index, std::uint8_t sub, const std::string& data, std::uint32_t timeoutMs,
                       Window* progress)
{
    CheckConnected();
    std::lock_guard lock(TransactionLock());
    m_sWaitingFor = StrFormat("SDO download 0x%04X/%d", index, sub);
    SDO_DownLoad(SdoRequestCobId(), index, sub, reinterpret_cast<const std::uint8_t*>(data.data()),
                 static_cast<std::uint32_t>(data.size()), timeoutMs, progress);
}

} // namespace tessitor
