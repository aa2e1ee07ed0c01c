#include "sim/simpty.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <system_error>

namespace tessitor::sim {

CSimPty::~CSimPty()
{
    Stop();
}

void CSimPty::Start(const char* threadName, std::function<void()> serve)
{
    if (m_Thread.joinable())
        return;
    Open();
    m_bServing = true;
    m_Thread = std::thread([threadName, serve = std::move(serve)] {
        pthread_setname_np(pthread_self(), threadName);
        serve();
    });
}

void CSimPty::Stop()
{
    if (m_Thread.joinable()) {
        m_bServing = false;
        Wake();
        m_Thread.join();
    }
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
    m_fdWake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_fdWake < 0)
        fail("cannot make the server's wake-up event");
}

void CSimPty::Close()
{
    for (int* fd : {&m_fdMaster, &m_fdSlave, &m_fdWake})
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
}

void CSimPty::Wake()
{
    if (m_fdWake >= 0) {
        std::uint64_t one = 1;
        [[maybe_unused]] ssize_t ignored = ::write(m_fdWake, &one, sizeof one);
    }
}

void CSimPty::ClearWake()
{
    std::uint64_t count;
    [[maybe_unused]] ssize_t ignored = ::read(m_fdWake, &count, sizeof count);
}

} // namespace tessitor::sim
