// Baud rates termios has no constant for (14400, 56000, ...) go through
// termios2 with BOTHER; kept apart because <asm/termbits.h> clashes with
// <termios.h>.
#pragma once

#include <cstdint>

namespace tessitor {

/// Sets both directions of fd to baud; 0 or an errno value.
int SetCustomBaudRate(int fd, std::uint32_t baud);

} // namespace tessitor
