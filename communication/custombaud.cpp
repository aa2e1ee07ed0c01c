#include "communication/custombaud.h"

#include <asm/termbits.h>
#include <cerrno>
#include <cstring>
#include <sys/ioctl.h>

namespace tessitor {

static_assert(sizeof(termios2) <= sizeof(SavedLineSettings::abRaw));

int SetCustomBaudRate(int fd, std::uint32_t baud)
{
    struct termios2 tio {};
    if (ioctl(fd, TCGETS2, &tio) != 0)
        return errno;
    tio.c_cflag &= ~static_cast<tcflag_t>(CBAUD);
    tio.c_cflag |= BOTHER;
    tio.c_ispeed = baud;
    tio.c_ospeed = baud;
    if (ioctl(fd, TCSETS2, &tio) != 0)
        return errno;
    return 0;
}

int SaveLineSettings(int fd, SavedLineSettings& saved)
{
    struct termios2 tio {};
    saved.bValid = false;
    if (ioctl(fd, TCGETS2, &tio) != 0)
        return errno;
    std::memcpy(saved.abRaw.data(), &tio, sizeof tio);
    saved.bValid = true;
    return 0;
}

int RestoreLineSettings(int fd, const SavedLineSettings& saved)
{
    if (!saved.bValid)
        return 0;
    struct termios2 tio {};
    std::memcpy(&tio, saved.abRaw.data(), sizeof tio);
    if (ioctl(fd, TCSETS2, &tio) != 0)
        return errno;
    return 0;
}

} // namespace tessitor
