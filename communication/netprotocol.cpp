#include "communication/netprotocol.h"

#include <cstdio>

#include "communication/communication.h"

namespace tessitor {

void NetPutU32(std::string& out, std::uint32_t v)
{
    out += static_cast<char>(v & 0xFF);
    out += static_cast<char>((v >> 8) & 0xFF);
    out += static_cast<char>((v >> 16) & 0xFF);
    out += static_cast<char>((v >> 24) & 0xFF);
}

std::uint32_t NetGetU32(const void* p)
{
    const auto* b = static_cast<const unsigned char*>(p);
    return static_cast<std::uint32_t>(b[0]) | static_cast<std::uint32_t>(b[1]) << 8
        | static_cast<std::uint32_t>(b[2]) << 16 | static_cast<std::uint32_t>(b[3]) << 24;
}

std::string NetEncodeHeader(const NetFrameHeader& header)
{
    std::string out;
    out.reserve(kNetHeaderBytes);
    NetPutU32(out, header.nLength);
    NetPutU32(out, header.nFunctionId);
    NetPutU32(out, header.nWord3);
    return out;
}

NetFrameHeader NetDecodeHeader(const void* p)
{
    const auto* b = static_cast<const unsigned char*>(p);
    return {NetGetU32(b), NetGetU32(b + 4), NetGetU32(b + 8)};
}

std::string NetBuildFrame(std::uint32_t functionId, std::uint32_t word3, std::uint32_t number,
                          const std::string& body)
{
    std::string frame =
        NetEncodeHeader({static_cast<std::uint32_t>(kNetNumberBytes + body.size()), functionId, word3});
    NetPutU32(frame, number);
    frame += body;
    return frame;
}

std::string NetDeviceName(const std::string& host, std::uint16_t port)
{
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string NetCommandPayload(std::uint32_t timeoutMs, const std::string& command)
{
    std::string out;
    NetPutU32(out, timeoutMs);
    out += command;
    return out;
}

std::string NetRawPayload(std::uint32_t timeoutMs, char terminator, const std::string& wire)
{
    std::string out;
    NetPutU32(out, timeoutMs);
    NetPutU32(out, static_cast<unsigned char>(terminator));
    out += wire;
    return out;
}

std::string NetUploadPayload(std::uint32_t timeoutMs, std::uint32_t mask, std::uint32_t first, std::uint32_t last)
{
    std::string out;
    NetPutU32(out, timeoutMs);
    NetPutU32(out, mask);
    NetPutU32(out, first);
    NetPutU32(out, last);
    return out;
}

std::string NetDriveListPayload(const std::vector<NetDriveEntry>& drives)
{
    std::string out;
    NetPutU32(out, kNetProtocolVersion);
    NetPutU32(out, static_cast<std::uint32_t>(drives.size()));
    for (const NetDriveEntry& drive : drives) {
        NetPutU32(out, drive.nKind);
        NetPutU32(out, static_cast<std::uint32_t>(drive.sName.size()));
        out += drive.sName;
    }
    return out;
}

std::optional<std::vector<NetDriveEntry>> NetParseDriveList(const std::string& payload, std::uint32_t* version)
{
    if (payload.size() < 8)
        return std::nullopt;
    const char* p = payload.data();
    std::size_t left = payload.size() - 8;
    std::uint32_t count = NetGetU32(p + 4);
    if (version)
        *version = NetGetU32(p);
    p += 8;
    // Each entry takes at least 8 bytes: a hostile count cannot make us reserve much.
    if (count > left / 8)
        return std::nullopt;
    std::vector<NetDriveEntry> drives;
    drives.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (left < 8)
            return std::nullopt;
        NetDriveEntry entry;
        entry.nKind = NetGetU32(p);
        std::uint32_t length = NetGetU32(p + 4);
        p += 8;
        left -= 8;
        if (length > kNetMaxNameBytes || length > left)
            return std::nullopt;
        entry.sName.assign(p, length);
        p += length;
        left -= length;
        drives.push_back(std::move(entry));
    }
    if (left != 0)
        return std::nullopt;
    return drives;
}

std::string NetStatusText(std::uint32_t status)
{
    char text[64];
    if (status >= 1 && status <= 12)
        return CCommunication::CExceptionComm(static_cast<std::int32_t>(status), nullptr, kErrSrcTransport).what();
    if ((status & ~0xFFu) == kNetStatusDriveError && (status & 0xFF) != 0) {
        std::snprintf(text, sizeof text, "drive error %u", status & 0xFF);
        return text;
    }
    switch (status) {
    case kNetStatusOk: return "no error";
    case kNetStatusNoSuchDrive: return "the network device has no such drive";
    case kNetStatusBadHandle: return "the drive is not open on this connection";
    case kNetStatusBadRequest: return "the network device refused a malformed request";
    case kNetStatusUnknownFunction: return "the network device does not know the request";
    default:
        std::snprintf(text, sizeof text, "the network device answered with status 0x%X", status);
        return text;
    }
}

} // namespace tessitor
