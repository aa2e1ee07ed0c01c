// CAN frames as the CAN link and its adapters pass them: CanMessage (the
// link's view: COB-ID, length and the caller's 8-byte buffer) and CanFrame
// (a frame by value, as adapters queue it), the CANopen function codes that
// sort received frames, and the ID#DATA notation CAN engineers read.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

namespace tessitor {

/// One frame between the CAN link and the adapter layer; pData points to 8
/// bytes owned by the caller.
struct CanMessage {
    std::uint16_t wCobId = 0;        ///< 11-bit identifier
    std::uint16_t wLength = 0;       ///< 0..8; SDO frames are always 8
    std::uint8_t* pData = nullptr;   ///< 8 bytes, owned by the caller
};

/// A frame by value, with the time it was sent or received.
struct CanFrame {
    std::uint32_t nId = 0;           ///< 11-bit, or 29-bit when bExtended
    std::uint8_t nLength = 0;        ///< 0..8
    std::array<std::uint8_t, 8> abData{};
    bool bExtended = false;
    bool bRemote = false;            ///< a remote request: no data
    std::chrono::steady_clock::time_point tStamp{};

    bool operator==(const CanFrame& other) const
    {
        return nId == other.nId && nLength == other.nLength && abData == other.abData
            && bExtended == other.bExtended && bRemote == other.bRemote;
    }
};

// CANopen identifiers: a function code (bits 10..7) plus the node id.
constexpr std::uint16_t kCobFunctionMask = 0x780; ///< COB-ID AND this = function code
constexpr std::uint16_t kCobNodeMask = 0x07F;
constexpr std::uint16_t kCobNmt = 0x000;
constexpr std::uint16_t kCobSync = 0x080;          ///< SYNC alone; EMCY with a node id
constexpr std::uint16_t kCobTime = 0x100;
constexpr std::uint16_t kCobTpdo1 = 0x180;
constexpr std::uint16_t kCobTpdo2 = 0x280;         ///< binary interpreter replies
constexpr std::uint16_t kCobRpdo2 = 0x300;         ///< binary interpreter requests
constexpr std::uint16_t kCobSdoResponse = 0x580;   ///< server to client
constexpr std::uint16_t kCobSdoRequest = 0x600;    ///< client to server
constexpr std::uint16_t kCobHeartbeat = 0x700;     ///< heartbeat and boot-up
constexpr std::uint8_t kMaxNodeId = 127;

/// A frame of this id, length and data (the rest zero).
CanFrame MakeCanFrame(std::uint32_t id, const std::uint8_t* data, std::uint8_t length);
/// "605#4008100000000000"; a remote request "605#R"; extended ids in 8 digits.
std::string FormatCanFrame(const CanFrame& frame);

} // namespace tessitor
