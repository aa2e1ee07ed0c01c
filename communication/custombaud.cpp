#include "communication/custombaud.h"

#include <asm/termbits.h>
#include <cerrno>
#include <sys/ioctl.h>

namespace tessitor {

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

} // namespace tessitor
