#include "can/canopenreading.h"

#include "can/sdoprotocol.h"
#include "core/strformat.h"

namespace tessitor {
namespace {

std::string NmtCommand(std::uint8_t command)
{
    switch (command) {
    case 0x01: return "start";
    case 0x02: return "stop";
    case 0x80: return "enter pre-operational";
    case 0x81: return "reset node";
    case 0x82: return "reset communication";
    default: return StrFormat("command 0x%02X", command);
    }
}

std::string NodeState(std::uint8_t state)
{
    switch (state & 0x7F) {
    case 0x00: return "boot-up";
    case 0x04: return "stopped";
    case 0x05: return "operational";
    case 0x7F: return "pre-operational";
    default: return StrFormat("state 0x%02X", state);
    }
}

std::string Object(const sdo::Frame& f)
{
    return StrFormat("0x%04X/%d", sdo::Index(f), sdo::SubIndex(f));
}

std::string Abort(const sdo::Frame& f)
{
    std::string text = StrFormat("abort %s 0x%08X", Object(f).c_str(), sdo::Value32(f));
    std::string message = sdo::AbortMessage(sdo::Value32(f));
    while (!message.empty() && message.back() == '\n')
        message.pop_back();
    return message.empty() ? text : text + " " + message;
}

std::string Expedited(const sdo::Frame& f)
{
    int count = sdo::SizeIndicated(f[0]) ? 4 - sdo::InitUnused(f[0]) : 4;
    std::string bytes;
    for (int i = 0; i < count; ++i)
        bytes += StrFormat("%s%02X", i ? " " : "", f[static_cast<std::size_t>(4 + i)]);
    return bytes;
}

std::string Segment(const sdo::Frame& f)
{
    return StrFormat("segment t=%d, %d bytes%s", sdo::Toggle(f[0]), 7 - sdo::SegmentUnused(f[0]),
                     sdo::LastSegment(f[0]) ? ", last" : "");
}

std::string SdoRequest(const sdo::Frame& f)
{
    switch (sdo::Specifier(f[0])) {
    case sdo::kCcsInitDownload:
        if (sdo::Expedited(f[0]))
            return "download " + Object(f) + " expedited: " + Expedited(f);
        return StrFormat("download %s segmented, %u bytes", Object(f).c_str(), sdo::Value32(f));
    case sdo::kCcsDownloadSegment: return "download " + Segment(f);
    case sdo::kCcsInitUpload: return "upload " + Object(f);
    case sdo::kCcsUploadSegment: return StrFormat("upload segment t=%d", sdo::Toggle(f[0]));
    case sdo::kCsAbort: return Abort(f);
    default: return StrFormat("command 0x%02X", f[0]);
    }
}

std::string SdoResponse(const sdo::Frame& f)
{
    switch (sdo::Specifier(f[0])) {
    case sdo::kScsInitUpload:
        if (sdo::Expedited(f[0]))
            return "upload " + Object(f) + " expedited: " + Expedited(f);
        return sdo::SizeIndicated(f[0]) ? StrFormat("upload %s segmented, %u bytes", Object(f).c_str(), sdo::Value32(f))
                                        : "upload " + Object(f) + " segmented";
    case sdo::kScsUploadSegment: return "upload " + Segment(f);
    case sdo::kScsInitDownload: return "download " + Object(f) + " confirmed";
    case sdo::kScsDownloadSegment: return StrFormat("download segment t=%d confirmed", sdo::Toggle(f[0]));
    case sdo::kCsAbort: return Abort(f);
    default: return StrFormat("command 0x%02X", f[0]);
    }
}

} // namespace

std::string ReadCanOpenFrame(const CanFrame& frame)
{
    if (frame.bExtended)
        return "";
    const std::uint16_t function = frame.nId & kCobFunctionMask;
    const int node = static_cast<int>(frame.nId & kCobNodeMask);
    const std::string remote = frame.bRemote ? " (remote request)" : "";
    sdo::Frame f = frame.abData;

    if (frame.nId == kCobNmt) {
        if (frame.nLength < 2)
            return "NMT";
        return "NMT " + NmtCommand(f[0]) + (f[1] == 0 ? std::string(" all nodes") : StrFormat(" node %d", f[1]));
    }
    if (frame.nId == kCobSync)
        return "SYNC";
    if (frame.nId == kCobTime)
        return "TIME";
    if (node == 0)
        return "";
    switch (function) {
    case kCobSync:
        if (frame.nLength < 3)
            return StrFormat("EMCY node %d", node);
        return StrFormat("EMCY node %d: error 0x%04X, register 0x%02X", node, f[0] | f[1] << 8, f[2]);
    case kCobHeartbeat:
        if (frame.nLength < 1)
            return StrFormat("heartbeat node %d%s", node, remote.c_str());
        return StrFormat("heartbeat node %d: %s", node, NodeState(f[0]).c_str());
    case kCobSdoResponse:
        return frame.nLength == 8 ? StrFormat("SDO response node %d: ", node) + SdoResponse(f)
                                  : StrFormat("SDO response node %d (length %d)", node, frame.nLength);
    case kCobSdoRequest:
        return frame.nLength == 8 ? StrFormat("SDO request node %d: ", node) + SdoRequest(f)
                                  : StrFormat("SDO request node %d (length %d)", node, frame.nLength);
    default: break;
    }
    // PDOs: TPDO n at 0x180 + 0x100 (n - 1), RPDO n 0x80 above it.
    if (function >= kCobTpdo1 && function <= 0x500) {
        const int n = (function - kCobTpdo1) / 0x100 + 1;
        const bool receive = (function - kCobTpdo1) % 0x100 != 0;
        return StrFormat("%s%d node %d%s", receive ? "RPDO" : "TPDO", n, node, remote.c_str());
    }
    return "";
}

} // namespace tessitor
