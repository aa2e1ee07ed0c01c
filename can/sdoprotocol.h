// The CANopen SDO protocol (CiA 301) without I/O: the command byte's fields,
// the request frames a client builds, the abort codes and their texts. The
// CAN link's SDO client (can.h) sends what these build and reads what they
// parse; `tessitor can dump` reads frames with them too.
//
//   std::array<std::uint8_t, 8> request = sdo::InitUploadRequest(0x1008, 0);   // 40 08 10 00 ...
//   if (sdo::Specifier(response[0]) == sdo::kScsAbort) ... sdo::AbortCode(response)
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tessitor::sdo {

using Frame = std::array<std::uint8_t, 8>;

// Command specifiers (bits 7..5 of byte 0).
constexpr int kCcsDownloadSegment = 0; ///< client: download segment
constexpr int kCcsInitDownload = 1;    ///< client: initiate download
constexpr int kCcsInitUpload = 2;      ///< client: initiate upload
constexpr int kCcsUploadSegment = 3;   ///< client: upload segment
constexpr int kScsUploadSegment = 0;   ///< server: upload segment response
constexpr int kScsDownloadSegment = 1; ///< server: download segment response
constexpr int kScsInitUpload = 2;      ///< server: initiate upload response
constexpr int kScsInitDownload = 3;    ///< server: initiate download response
constexpr int kCsAbort = 4;            ///< abort, both directions

constexpr std::uint8_t kInitUploadRequest = 0x40;    ///< byte 0 of an initiate upload
constexpr std::uint8_t kUploadSegmentRequest = 0x60; ///< byte 0 of a segment request, toggle in bit 4
constexpr std::uint8_t kInitSegmentedDownload = 0x21; ///< specifier 1, s = 1, e = 0
constexpr std::uint8_t kAbortCommand = 0x80;
constexpr std::uint32_t kBytesPerSegment = 7;

// Abort codes the client treats apart.
constexpr std::uint32_t kAbortToggle = 0x05030000;
constexpr std::uint32_t kAbortTimeout = 0x05040000;
constexpr std::uint32_t kAbortCommandSpecifier = 0x05040001;
constexpr std::uint32_t kAbortNoObject = 0x06020000;
constexpr std::uint32_t kAbortNoSubIndex = 0x06090011;
constexpr std::uint32_t kAbortInternalIncompatibility = 0x06040047; ///< error source 8
constexpr std::uint32_t kAbortGeneralError = 0x08000000;             ///< followed by the drive's "EC"
constexpr std::uint32_t kAbortAlla = 0x414C4C41;                     ///< the bytes "ALLA": error source 9

inline int Specifier(std::uint8_t command) { return command >> 5; }
inline int Toggle(std::uint8_t command) { return (command >> 4) & 1; }
/// Initiate frames: e, s and n (bytes 4..7 that hold no data).
inline bool Expedited(std::uint8_t command) { return (command & 0x02) != 0; }
inline bool SizeIndicated(std::uint8_t command) { return (command & 0x01) != 0; }
inline int InitUnused(std::uint8_t command) { return (command >> 2) & 3; }
/// Segment frames: n (bytes 1..7 that hold no data) and c (last segment).
inline int SegmentUnused(std::uint8_t command) { return (command >> 1) & 7; }
inline bool LastSegment(std::uint8_t command) { return (command & 0x01) != 0; }

inline std::uint16_t Index(const Frame& f) { return static_cast<std::uint16_t>(f[1] | f[2] << 8); }
inline std::uint8_t SubIndex(const Frame& f) { return f[3]; }
/// Bytes 4..7 as a little-endian 32-bit number (abort code, size).
std::uint32_t Value32(const Frame& f);

/// Initiate upload of index/sub (byte 0 = 0x40).
Frame InitUploadRequest(std::uint16_t index, std::uint8_t sub);
/// Upload segment request with toggle t (byte 0 = 0x60 | t << 4).
Frame UploadSegmentRequest(int toggle);
/// Expedited download of 1..4 bytes: 0x20 | (4 - length) << 2 | e. The s
/// bit stays clear although n is filled in: drives have always taken it so.
Frame ExpeditedDownload(std::uint16_t index, std::uint8_t sub, const std::uint8_t* data, std::uint32_t length);
/// Initiate a segmented download of size bytes (byte 0 = 0x21).
Frame InitSegmentedDownload(std::uint16_t index, std::uint8_t sub, std::uint32_t size);
/// One download segment of 1..7 bytes, toggle t, c when last.
Frame DownloadSegment(int toggle, const std::uint8_t* data, std::uint32_t length, bool last);

/// "SDO Abort:\n" and the code's message; codes without one get nothing
/// more (0x08000000 gets its first line; the link adds the drive's error).
std::string AbortText(std::uint32_t code);
/// The message of code alone, or "" when the table has none.
const char* AbortMessage(std::uint32_t code);

} // namespace tessitor::sdo
