// The Lawicel SLCAN line protocol without I/O: commands and frames as the
// USB-CAN sticks take them ("S8\r", "t60584008100000000000\r"), and the
// lines they send back split and read. Adapters answer a command with "\r"
// or "\a" (error), some with nothing; some add a time stamp after a frame's
// data, some send "z"/"Z" after a transmitted frame. All of that is taken.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "can/canmessage.h"

namespace tessitor::slcan {

constexpr char kEndOfLine = '\r';
constexpr char kErrorAnswer = '\a';
constexpr char kCommandClose[] = "C\r";
constexpr char kCommandOpen[] = "O\r";

/// "S0".."S8" (and CR) for the descriptor's bit-rate index: 10 kbit/s is S0,
/// 1000 kbit/s is S8 (S7 is the adapters' 800); "" for an index without one.
std::string BitRateCommand(std::uint8_t bitRateIndex);
/// The transmit line of frame: "t"/"T" (data) or "r"/"R" (remote), with CR.
std::string EncodeFrame(const CanFrame& frame);
/// Reads one received line (without its terminator) as a frame; false when
/// the line is not a frame. Characters after the data (a time stamp) are
/// ignored.
bool DecodeFrame(const std::string& line, CanFrame& frame);

/// Splits what an adapter sent into lines: each CR, LF or BEL ends one (the
/// BEL itself is handed on as a line "\a"); the unfinished rest stays in
/// pending. A rest longer than any frame line is dropped as noise.
std::vector<std::string> TakeLines(std::string& pending);

} // namespace tessitor::slcan
