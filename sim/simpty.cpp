#include "sim/simpty.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
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
    if (!MakeRaw(m_fdSlave))
        fail("cannot set the pseudo-terminal to raw mode");
    // Opens and closes by clients; the slave held above is not counted.
    m_nClients = 0;
    m_fdNotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_fdNotify < 0 || ::inotify_add_watch(m_fdNotify, name, IN_OPEN | IN_CLOSE) < 0)
        fail("cannot watch the pseudo-terminal's clients");
    int flags = ::fcntl(m_fdMaster, F_GETFL);
    if (flags < 0 || ::fcntl(m_fdMaster, F_SETFL, flags | O_NONBLOCK) != 0)
        fail("cannot make the pseudo-terminal non-blocking");
    m_fdWake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_fdWake < 0)
        fail("cannot make the server's wake-up event");
    // One descriptor for the serving thread to poll: wake-ups and clients.
    m_fdEvents = ::epoll_create1(EPOLL_CLOEXEC);
    if (m_fdEvents < 0)
        fail("cannot make the server's event set");
    for (int fd : {m_fdWake, m_fdNotify}) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        if (::epoll_ctl(m_fdEvents, EPOLL_CTL_ADD, fd, &event) != 0)
            fail("cannot make the server's event set");
    }
}

void CSimPty::Close()
{
    for (int* fd : {&m_fdEvents, &m_fdNotify, &m_fdMaster, &m_fdSlave, &m_fdWake})
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

bool CSimPty::ClearWake()
{
    std::uint64_t count;
    [[maybe_unused]] ssize_t ignored = ::read(m_fdWake, &count, sizeof count);
    alignas(inotify_event) char events[4096];
    bool closed = false;
    for (ssize_t got; (got = ::read(m_fdNotify, events, sizeof events)) > 0;) {
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events + at);
            if (event->mask & IN_OPEN)
                ++m_nClients;
            if (event->mask & IN_CLOSE) {
                m_nClients = std::max(0, m_nClients - 1);
                closed = true;
            }
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    if (!closed || m_nClients > 0)
        return false;
    // A client that took the line exclusively (TIOCEXCL) leaves that mark
    // on the terminal while the slave is held open here, and then only root
    // could open it again. Clear it, undo what the client set, and drop
    // what nobody is there to read.
    ::ioctl(m_fdSlave, TIOCNXCL);
    MakeRaw(m_fdSlave);
    ::tcflush(m_fdSlave, TCIOFLUSH);
    return true;
}

bool CSimPty::MakeRaw(int fd) const
{
    termios tio{};
    if (::tcgetattr(fd, &tio) != 0)
        return false;
    ::cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    return ::tcsetattr(fd, TCSANOW, &tio) == 0;
}

} // namespace tessitor::sim
