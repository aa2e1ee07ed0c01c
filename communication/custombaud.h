// The port's line as the kernel holds it, through termios2: baud rates
// termios has no constant for (14400, 56000, ...) with BOTHER, and saving
// and restoring a line exactly as it was found, custom rate included. Kept
// apart because <asm/termbits.h> clashes with <termios.h>.
#pragma once

#include <array>
#include <cstdint>

namespace tessitor {

/// A port's whole line set-up, opaque outside this file.
struct SavedLineSettings {
    std::array<unsigned char, 64> abRaw{}; ///< the kernel's termios2, as read
    bool bValid = false;                   ///< false until SaveLineSettings succeeded
};

/// Sets both directions of fd to baud; 0 or an errno value.
int SetCustomBaudRate(int fd, std::uint32_t baud);
/// Reads fd's line set-up into saved; 0 or an errno value.
int SaveLineSettings(int fd, SavedLineSettings& saved);
/// Puts back what SaveLineSettings read (nothing when it is not valid); 0
/// or an errno value.
int RestoreLineSettings(int fd, const SavedLineSettings& saved);

} // namespace tessitor
