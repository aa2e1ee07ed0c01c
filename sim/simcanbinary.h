// The drive's binary interpreter on the second PDO pair. A request on
// COB-ID 0x300 + node names a command by its two letters, an index and,
// for an assignment, a value (IEEE single or 32-bit integer); the reply on
// 0x280 + node carries the value, or the drive's error number under the
// error flag. The command itself runs on the drive's text interpreter, so
// both faces of a drive always agree. No I/O.
#pragma once

#include <cstdint>
#include <string>

#include "sim/simcanframe.h"
#include "sim/simdrive.h"
#include "sim/simversiondb.h"

namespace tessitor::sim {

// The request and reply word (bytes 2..3).
constexpr std::uint16_t kBinaryIndexMask = 0x3FFF;
constexpr std::uint16_t kBinaryErrorFlag = 0x4000;
constexpr std::uint16_t kBinaryFloatFlag = 0x8000;
// Data lengths: a query (and a reply without value) and an assignment (and a reply with one).
constexpr std::uint8_t kBinaryQueryLength = 4;
constexpr std::uint8_t kBinaryValueLength = 8;

/// True when request has the length of a query or an assignment.
bool IsSimCanBinaryRequest(const SimCanFrame& request);

/// The command line request stands for ("KP[2]=7", "SR", "SP=1.5"). list
/// (may be null) is the drive's parameter list: index 0 names element 0 of
/// a parameter that has no plain form ("RV[0]"), and no index otherwise.
std::string SimCanBinaryCommand(const SimCanFrame& request, const SimParamList* list);

/// The reply frame of node to request, given the drive's reply to its
/// command: the value typed by list (a float parameter goes as IEEE
/// single), no value for an assignment or action, the error flag and number
/// for a refusal. A value that is not a number cannot travel here and is
/// refused with drive error 32.
SimCanFrame SimCanBinaryReply(const SimCanFrame& request, const SimReply& reply, const SimParamList* list, int nodeId);

} // namespace tessitor::sim
