// The network device protocol: frames of a 12-byte header (payload length,
// function ID, a third word) and a payload, little endian, that opens with
// the number of the request (a reply carries its request's), and this
// project's requests for the drives behind a device. Building and parsing
// only, no I/O, so tests and the virtual device can hand it bytes.
// docs/network-device-protocol.md is the reference for device makers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tessitor {

/// The TCP port a network device listens on unless settings ("TCP",
/// "Port") or the command line name another.
constexpr std::uint16_t kDefaultTcpPort = 47150;
/// Protocol version a device reports in its drive list.
constexpr std::uint32_t kNetProtocolVersion = 2;
/// Size of a frame header in bytes.
constexpr std::size_t kNetHeaderBytes = 12;
/// Size of the request number that opens every payload, in bytes; the
/// header's length counts it.
constexpr std::size_t kNetNumberBytes = 4;
/// The largest payload either side accepts; a peer announcing more is cut
/// off before anything is allocated.
constexpr std::uint32_t kNetMaxPayloadBytes = 1u << 20;
/// Longest drive name a device may report or a client may ask for.
constexpr std::uint32_t kNetMaxNameBytes = 127;

/// Request function IDs; a reply echoes the ID of its request.
enum NetFunction : std::uint32_t {
    kNetFnListDrives = 1, ///< the drives behind the device
    kNetFnOpenDrive = 2,  ///< open one drive by name, get its handle
    kNetFnCommand = 3,    ///< one command: its value, or why it failed
    kNetFnRawReply = 4,   ///< one command: the drive's bytes as they came
    kNetFnUpload = 5,     ///< one chunk of recorded data ("BH")
    kNetFnCloseDrive = 6, ///< give a handle back
};

/// Third header word of a reply. 1..12 are the coded results of the
/// command transaction (1 time-out, 2 communication error, 10 bad echo...).
enum NetStatus : std::uint32_t {
    kNetStatusOk = 0,
    kNetStatusDriveError = 0x100,     ///< | n: the drive refused with error number n (1..255)
    kNetStatusNoSuchDrive = 0x200,    ///< no drive by that name
    kNetStatusBadHandle = 0x201,      ///< handle not open on this connection
    kNetStatusBadRequest = 0x202,     ///< payload malformed or too long
    kNetStatusUnknownFunction = 0x203,
};

/// Drive kinds in the drive list, as the descriptor's target kind.
enum NetDriveKind : std::uint32_t {
    kNetDriveSerial = 0,  ///< "RS232 Port %d"
    kNetDriveCanopen = 1, ///< "CANopen Bus %d NodeID %d"
};

struct NetFrameHeader {
    std::uint32_t nLength = 0;     ///< payload bytes, header not counted
    std::uint32_t nFunctionId = 0; ///< the request's ID, echoed by the reply
    std::uint32_t nWord3 = 0;      ///< requests: drive handle or 0; replies: NetStatus
};

struct NetDriveEntry {
    std::uint32_t nKind = kNetDriveSerial;
    std::string sName;
    bool operator==(const NetDriveEntry&) const = default;
};

/// Appends v as four little-endian bytes.
void NetPutU32(std::string& out, std::uint32_t v);
/// Reads four little-endian bytes at p.
std::uint32_t NetGetU32(const void* p);

/// Header bytes for header.
std::string NetEncodeHeader(const NetFrameHeader& header);
/// The header in the first kNetHeaderBytes bytes at p.
NetFrameHeader NetDecodeHeader(const void* p);
/// Header, request number and body as one frame; the length counts the
/// number and the body.
std::string NetBuildFrame(std::uint32_t functionId, std::uint32_t word3, std::uint32_t number,
                          const std::string& body);
/// "host:port" as users write it, IPv6 addresses in brackets ("[::1]:47150").
std::string NetDeviceName(const std::string& host, std::uint16_t port);

/// Request payloads.
std::string NetCommandPayload(std::uint32_t timeoutMs, const std::string& command);
std::string NetRawPayload(std::uint32_t timeoutMs, char terminator, const std::string& wire);
std::string NetUploadPayload(std::uint32_t timeoutMs, std::uint32_t mask, std::uint32_t first, std::uint32_t last);

/// Drive list reply payload: version, count, then kind, name length, name.
std::string NetDriveListPayload(const std::vector<NetDriveEntry>& drives);
/// Parses a drive list payload; nullopt when it is malformed (short,
/// counts that do not fit the bytes, names too long, bytes left over).
std::optional<std::vector<NetDriveEntry>> NetParseDriveList(const std::string& payload,
                                                            std::uint32_t* version = nullptr);

/// Text for a reply status, for messages ("drive error 5", "no such drive").
std::string NetStatusText(std::uint32_t status);

} // namespace tessitor
