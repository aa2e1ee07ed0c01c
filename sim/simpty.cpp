#include "sim/simpty.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace tessitor::sim {

CSimPty::~CSimPty()
{
    Close();
}

void CSimPty::Open()
{
    Close();
    auto fail = [this](const char* what) {
        int error = errno;
        Close();
        throw std::system_error(error, std::generic_category(), what);
    };
    m_fdMaster = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (m_fdMaster < 0)
        fail("cannot open a pseudo-terminal");
    ::fcntl(m_fdMaster, F_SETFD, FD_CLOEXEC);
    if (::grantpt(m_fdMaster) != 0 || ::unlockpt(m_fdMaster) != 0)
        fail("cannot unlock the pseudo-terminal");
    char name[128];
    if (::ptsname_r(m_fdMaster, name, sizeof name) != 0)
        fail("cannot name the pseudo-terminal");
    m_sSlavePath = name;
    // Held open so that a client closing and reopening the line never leaves
    // the master without a peer (which would read as EIO/POLLHUP).
    m_fdSlave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_fdSlave < 0)
        fail("cannot open the pseudo-terminal's slave side");
    termios tio{};
    if (::tcgetattr(m_fdSlave, &tio) != 0)
        fail("cannot read the pseudo-terminal's settings");
    ::cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    if (::tcsetattr(m_fdSlave, TCSANOW, &tio) != 0)
        fail("cannot set the pseudo-terminal to raw mode");
    int flags = ::fcntl(m_fdMaster, F_GETFL);
    if (flags < 0 || ::fcntl(m_fdMaster, F_SETFL, flags | O_NONBLOCK) != 0)
        fail("cannot make the pseudo-terminal non-blocking");
}

void CSimPty::Close()
{
    for (int* fd : {&m_fdMaster, &m_fdSlave})
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
}

} // namespace tessitor::sim
