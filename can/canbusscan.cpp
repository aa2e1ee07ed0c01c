#include "can/canbusscan.h"

#include <algorithm>

#include "can/canadapter.h"
#include "can/canmessage.h"
#include "can/sdoprotocol.h"
#include "communication/communication.h"
#include "core/strformat.h"
#include "core/trace.h"

namespace tessitor {

CCanBusScan::CCanBusScan(CanAdapterChoice choice, std::uint8_t bitRateIndex)
    : m_Choice(std::move(choice)), m_nBitRateIndex(bitRateIndex)
{
}

void CCanBusScan::SetRange(int first, int last)
{
    m_nFirst = std::clamp(first, 1, static_cast<int>(kMaxNodeId));
    m_nLast = std::clamp(last, m_nFirst, static_cast<int>(kMaxNodeId));
}

bool CCanBusScan::Run()
{
    m_arFound.clear();
    m_bStopped = false;
    m_sError.clear();
    std::shared_ptr<CCanAdapter> adapter = AcquireCanAdapter(m_Choice);
    if (int error = adapter->Open(m_nBitRateIndex)) {
        m_sError = "Create Communication Device Fault. " + m_Choice.Name() + ": " + adapter->LastError();
        Trace::Printf("CCanBusScan: %s (%d)\n", m_sError.c_str(), error);
        return false;
    }
    // Every node's answers, whatever the links sharing the adapter listen to.
    adapter->AttachNode(0);
    const sdo::Frame request = sdo::InitUploadRequest(kScanIndex, 0);
    bool bOk = true;
    for (int node = m_nFirst; node <= m_nLast; ++node) {
        if (m_nAbort != 0) {
            m_bStopped = true;
            break;
        }
        const auto id = static_cast<std::uint8_t>(node);
        adapter->Purge(kCobSdoResponse, id);
        int sent = adapter->SendFrame(MakeCanFrame(kCobSdoRequest | id, request.data(), 8));
        if (sent == COM_TIMEOUT) {
            // No acknowledge from anywhere fills the adapter's queue.
            m_sError = m_Choice.Name() + ": the adapter takes no more frames; is anything else on the bus?";
            bOk = false;
            break;
        }
        CanFrame answer;
        int result = sent == COM_OK ? adapter->ReceiveFrame(kCobSdoResponse, id, answer, m_nTimeoutMs) : sent;
        if (result == COM_OK && answer.nLength == 8) {
            sdo::Frame data;
            std::copy(answer.abData.begin(), answer.abData.end(), data.begin());
            CanNodeFound found;
            found.nNode = id;
            if (sdo::Specifier(data[0]) == sdo::kCsAbort)
                found.nAbortCode = sdo::Value32(data);
            else
                found.bDeviceType = sdo::Specifier(data[0]) == sdo::kScsInitUpload;
            if (found.bDeviceType && sdo::Expedited(data[0]))
                found.nDeviceType = sdo::Value32(data);
            else if (found.bDeviceType)
                ReadText(*adapter, found);
            m_arFound.push_back(found);
        } else if (result != COM_OK && result != COM_TIMEOUT) {
            m_sError = m_Choice.Name() + ": the adapter failed while node " + std::to_string(node) + " was asked.";
            bOk = false;
            break;
        }
        if (m_Progress)
            m_Progress(node);
    }
    adapter->DetachNode(0);
    return bOk;
}

void CCanBusScan::ReadText(CCanAdapter& adapter, CanNodeFound& node)
{
    for (int toggle = 0; node.sText.size() < kMaxTextBytes; toggle ^= 1) {
        const sdo::Frame request = sdo::UploadSegmentRequest(toggle);
        CanFrame answer;
        if (adapter.SendFrame(MakeCanFrame(kCobSdoRequest | node.nNode, request.data(), 8)) != COM_OK
            || adapter.ReceiveFrame(kCobSdoResponse, node.nNode, answer, m_nTimeoutMs) != COM_OK
            || answer.nLength != 8 || sdo::Specifier(answer.abData[0]) != sdo::kScsUploadSegment)
            break;
        const auto length = static_cast<int>(sdo::kBytesPerSegment) - sdo::SegmentUnused(answer.abData[0]);
        node.sText.append(answer.abData.begin() + 1, answer.abData.begin() + 1 + length);
        if (sdo::LastSegment(answer.abData[0]))
            break;
    }
    node.sText = node.sText.substr(0, node.sText.find('\0'));
}

std::string CCanBusScan::Describe(const CanNodeFound& node)
{
    if (node.bDeviceType && !node.sText.empty())
        return StrFormat("Node %d: device type \"%s\"", node.nNode, node.sText.c_str());
    if (node.bDeviceType)
        return StrFormat("Node %d: device type 0x%08X", node.nNode, node.nDeviceType);
    if (node.nAbortCode != 0)
        return StrFormat("Node %d: refused (SDO abort 0x%08X)", node.nNode, node.nAbortCode);
    return StrFormat("Node %d: answered", node.nNode);
}

} // namespace tessitor
