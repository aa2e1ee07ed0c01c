// CAN frames as the virtual drive's CAN face sees them, and the CANopen
// numbers its nodes use: COB-ID bases, SDO command specifiers, abort codes
// and NMT states. Also the time a frame takes on the bus, for pacing.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tessitor::sim {

/// One CAN frame on the virtual bus.
struct SimCanFrame {
    std::uint32_t nId = 0;      ///< 11-bit identifier (29-bit when bExtended)
    bool bExtended = false;     ///< 29-bit identifier
    bool bRemote = false;       ///< remote request: no data on the wire
    std::uint8_t nLength = 0;   ///< data length code, 0..8
    std::array<std::uint8_t, 8> arData{};

    /// The frame in the ID#DATA notation CAN engineers read ("605#4000100000000000",
    /// "705#R" for a remote request).
    std::string Text() const;
};

// COB-ID bases; a node's frame is the base plus its node id.
constexpr std::uint32_t kCobNmt = 0x000;
constexpr std::uint32_t kCobEmergency = 0x080;
constexpr std::uint32_t kCobBinaryReply = 0x280;   ///< second transmit PDO: binary interpreter replies
constexpr std::uint32_t kCobBinaryRequest = 0x300; ///< second receive PDO: binary interpreter requests
constexpr std::uint32_t kCobSdoResponse = 0x580;
constexpr std::uint32_t kCobSdoRequest = 0x600;
constexpr std::uint32_t kCobHeartbeat = 0x700;     ///< boot-up and heartbeat

/// Node ids a CANopen node may have.
constexpr int kMinNodeId = 1;
constexpr int kMaxNodeId = 127;

// SDO command specifiers (bits 7..5 of byte 0).
constexpr std::uint8_t kSdoCcsDownloadSegment = 0;
constexpr std::uint8_t kSdoCcsInitiateDownload = 1;
constexpr std::uint8_t kSdoCcsInitiateUpload = 2;
constexpr std::uint8_t kSdoCcsUploadSegment = 3;
constexpr std::uint8_t kSdoCsAbort = 4;
constexpr std::uint8_t kSdoCcsBlockUpload = 5;
constexpr std::uint8_t kSdoCcsBlockDownload = 6;
constexpr std::uint8_t kSdoScsUploadSegment = 0;
constexpr std::uint8_t kSdoScsDownloadSegment = 1;
constexpr std::uint8_t kSdoScsInitiateUpload = 2;
constexpr std::uint8_t kSdoScsInitiateDownload = 3;

// SDO abort codes the nodes send.
constexpr std::uint32_t kAbortToggle = 0x05030000;         ///< toggle bit not alternated
constexpr std::uint32_t kAbortCommand = 0x05040001;        ///< command specifier not valid or unknown
constexpr std::uint32_t kAbortOutOfMemory = 0x05040005;
constexpr std::uint32_t kAbortWriteOnly = 0x06010001;      ///< attempt to read a write-only object
constexpr std::uint32_t kAbortReadOnly = 0x06010002;       ///< attempt to write a read-only object
constexpr std::uint32_t kAbortNoObject = 0x06020000;
constexpr std::uint32_t kAbortLength = 0x06070010;         ///< length does not match
constexpr std::uint32_t kAbortTooLong = 0x06070012;
constexpr std::uint32_t kAbortTooShort = 0x06070013;
constexpr std::uint32_t kAbortNoSubIndex = 0x06090011;
constexpr std::uint32_t kAbortValueRange = 0x06090030;
constexpr std::uint32_t kAbortGeneral = 0x08000000;        ///< the drive refused: its error is behind "EC"
constexpr std::uint32_t kAbortCannotStore = 0x08000020;

// NMT commands (byte 0 of a frame on COB-ID 0) and the states a node reports.
constexpr std::uint8_t kNmtStart = 0x01;
constexpr std::uint8_t kNmtStop = 0x02;
constexpr std::uint8_t kNmtEnterPreOperational = 0x80;
constexpr std::uint8_t kNmtResetNode = 0x81;
constexpr std::uint8_t kNmtResetCommunication = 0x82;
constexpr std::uint8_t kNmtStateBootUp = 0x00;
constexpr std::uint8_t kNmtStateStopped = 0x04;
constexpr std::uint8_t kNmtStateOperational = 0x05;
constexpr std::uint8_t kNmtStatePreOperational = 0x7F;

/// Bits frame takes on the bus at most: every field from start of frame to
/// the interframe space, with the most stuff bits the frame can need.
int SimCanFrameBits(const SimCanFrame& frame);

} // namespace tessitor::sim
