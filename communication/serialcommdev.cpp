#include "communication/serialcommdev.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "communication/communication.h"
#include "communication/custombaud.h"
#include "communication/waitnotice.h"
#include "core/trace.h"

namespace tessitor {

namespace {

constexpr char kListingTerminator = 0x08;
constexpr int kWatchExitCode = 13;
constexpr int kCloseTerminatedCode = 133;
constexpr int kDestructorTerminatedCode = 131;

using Clock = std::chrono::steady_clock;

speed_t StandardSpeed(std::uint32_t baud)
{
    switch (baud) {
    case 1200: return B1200;
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    case 230400: return B230400;
    case 460800: return B460800;
    case 921600: return B921600;
    default: return B0;
    }
}

// Milliseconds left until deadline, for poll(); never negative.
int MsLeft(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

} // namespace

// What the caller and the watch thread share. The thread holds its own
// reference, so a thread left behind by Close never touches freed memory.
struct CSerialCommDev::Shared {
    int fd = -1;
    int wakeRead = -1;
    int wakeWrite = -1;
    std::atomic<int> connected{0};
    std::atomic<char> eventChar{';'};
    std::atomic<std::uint32_t> timeoutMs{1000};

    std::mutex mutex;
    std::condition_variable replyEvent;
    bool replySet = false;         // auto-reset: the waiter clears it
    std::vector<char> inputQueue;  // bytes read, not yet handed over (the driver's queue)
    std::unique_ptr<char[]> buffer{new char[kBufferSize]};
    std::uint32_t received = 0;

    std::mutex exitMutex;
    std::condition_variable exitEvent;
    bool threadRunning = false;

    ~Shared()
    {
        if (fd >= 0)
            ::close(fd);
        if (wakeRead >= 0)
            ::close(wakeRead);
        if (wakeWrite >= 0)
            ::close(wakeWrite);
    }

    void EmptyBuffer()
    {
        buffer[0] = 0;
        received = 0;
    }

    // Takes what the port holds right now without waiting.
    void DrainInto(std::vector<char>& queue)
    {
        char chunk[512];
        for (;;) {
            ssize_t n = ::read(fd, chunk, sizeof chunk);
            if (n > 0) {
                size_t room = kBufferSize - std::min<size_t>(queue.size(), kBufferSize);
                queue.insert(queue.end(), chunk, chunk + std::min<size_t>(static_cast<size_t>(n), room));
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            return;
        }
    }
};

CSerialCommDev::CSerialCommDev() : m_pShared(std::make_shared<Shared>()) {}

CSerialCommDev::~CSerialCommDev()
{
    Close();
    std::unique_lock lock(m_pShared->exitMutex);
    for (int wait = 0; wait < 100 && m_pShared->threadRunning; ++wait)
        m_pShared->exitEvent.wait_for(lock, std::chrono::milliseconds(100));
    if (m_pShared->threadRunning)
        Trace::Printf("The thread %s has exited with code %d\n", "CommWatchThread", kDestructorTerminatedCode);
}

bool CSerialCommDev::IsOpen() const
{
    return m_pShared->connected.load() == 1;
}

char CSerialCommDev::EventChar() const
{
    return m_pShared->eventChar.load();
}

int CSerialCommDev::Open(const std::string& path, const SerialLineSettings& line)
{
    if (IsOpen())
        return EBUSY;
    // A thread left behind by an earlier Close keeps the old shared state.
    if (m_pShared->fd >= 0 || m_pShared->threadRunning)
        m_pShared = std::make_shared<Shared>();
    Shared& s = *m_pShared;
    m_sPath = path;

    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int error = errno;
        Trace::Printf("CSerialCommDev::Open %s: %s\n", path.c_str(), std::strerror(error));
        return error;
    }
    auto fail = [&](int error) {
        Trace::Printf("CSerialCommDev::Open %s: %s\n", path.c_str(), std::strerror(error));
        ::close(fd);
        return error;
    };
    // Exclusive, as a Win32 port is: a second program gets EBUSY.
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0)
        return fail(errno == EWOULDBLOCK ? EBUSY : errno);
    ::ioctl(fd, TIOCEXCL);

    termios tio{};
    if (::tcgetattr(fd, &tio) != 0)
        return fail(errno);
    ::cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS);
    switch (line.bByteSize) {
    case 5: tio.c_cflag |= CS5; break;
    case 6: tio.c_cflag |= CS6; break;
    case 7: tio.c_cflag |= CS7; break;
    default: tio.c_cflag |= CS8; break;
    }
    switch (line.bParity) {
    case 1: tio.c_cflag |= PARENB | PARODD; break;
    case 2: tio.c_cflag |= PARENB; break;
    case 3: tio.c_cflag |= PARENB | CMSPAR | PARODD; break;
    case 4: tio.c_cflag |= PARENB | CMSPAR; break;
    default: break;
    }
    if (line.bParity != 0)
        tio.c_iflag |= INPCK;
    // termios knows no one and a half stop bits; two is the nearest.
    if (line.bStopBits != 0)
        tio.c_cflag |= CSTOPB;
    // Linux has no DSR/DTR handshake (bit 0); DTR is simply held on.
    if (line.bFlowCtrl & 0x2)
        tio.c_cflag |= CRTSCTS;
    if (line.bFlowCtrl & 0x4) {
        tio.c_iflag |= IXON | IXOFF;
        tio.c_cc[VSTART] = 0x11;
        tio.c_cc[VSTOP] = 0x13;
    }
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    speed_t speed = StandardSpeed(line.wBaudRate);
    if (speed != B0) {
        ::cfsetispeed(&tio, speed);
        ::cfsetospeed(&tio, speed);
    }
    if (::tcsetattr(fd, TCSANOW, &tio) != 0)
        return fail(errno);
    if (speed == B0)
        if (int error = SetCustomBaudRate(fd, line.wBaudRate))
            return fail(error);
    ::tcflush(fd, TCIOFLUSH);

    int wake[2];
    if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0)
        return fail(errno);

    s.fd = fd;
    s.wakeRead = wake[0];
    s.wakeWrite = wake[1];
    s.eventChar = ';';
    s.inputQueue.clear();
    s.inputQueue.reserve(kBufferSize);
    s.EmptyBuffer();
    s.connected = 1;
    {
        std::lock_guard lock(s.exitMutex);
        s.threadRunning = true;
    }
    std::thread(CommWatchThread, m_pShared).detach();

    int dtr = TIOCM_DTR;
    ::ioctl(fd, TIOCMBIS, &dtr); // a pseudo-terminal has no DTR; that is fine
    return 0;
}

void CSerialCommDev::Close()
{
    Shared& s = *m_pShared;
    if (s.connected.exchange(0) != 1)
        return;
    // Clearing the flag and poking the wake pipe releases the thread's poll.
    char poke = 1;
    [[maybe_unused]] ssize_t ignored = ::write(s.wakeWrite, &poke, 1);
    bool ended;
    {
        std::unique_lock lock(s.exitMutex);
        ended = s.exitEvent.wait_for(lock, std::chrono::milliseconds(kCloseWaitMs), [&] { return !s.threadRunning; });
    }
    if (!ended) {
        // The thread keeps its own reference to the shared state and the
        // port; it closes both when it finally returns.
        Trace::Printf("The thread %s has exited with code %d\n", "CommWatchThread", kCloseTerminatedCode);
        m_pShared = std::make_shared<Shared>();
        return;
    }
    int dtr = TIOCM_DTR;
    ::ioctl(s.fd, TIOCMBIC, &dtr);
    ::tcflush(s.fd, TCIOFLUSH);
    ::close(s.fd);
    s.fd = -1;
}

void CSerialCommDev::ToggleTerminator()
{
    Shared& s = *m_pShared;
    s.eventChar = s.eventChar.load() == ';' ? kListingTerminator : ';';
}

int CSerialCommDev::Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                             std::int32_t checkEcho)
{
    int result = COM_OK;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        CWaitNotice notice(command, m_sPath, attempt + 1, kAttempts);
        m_pShared->timeoutMs = timeoutMs;
        result = Write(command, timeoutMs);
        if (result == COM_OK)
            result = WaitForReply(command, reply, timeoutMs, checkEcho);
        if (result == COM_OK)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return result;
}

int CSerialCommDev::Write(const std::string& command, std::uint32_t timeoutMs)
{
    Shared& s = *m_pShared;
    if (s.connected != 1)
        return COM_WRITE_ERROR;
    {
        // Whatever waits now is stale: an answer nobody waited for, or noise.
        std::lock_guard lock(s.mutex);
        ::tcflush(s.fd, TCIOFLUSH);
        s.inputQueue.clear();
        std::vector<char> stale;
        s.DrainInto(stale);
        if (!stale.empty())
            Trace::Printf("CSerialCommDev::Write: %zu stale bytes discarded\n", stale.size());
        s.replySet = false;
    }

    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t written = 0;
    while (written < command.size()) {
        ssize_t n = ::write(s.fd, command.data() + written, command.size() - written);
        if (n > 0) {
            written += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN) {
            Trace::Printf("CSerialCommDev::Write: %s\n", std::strerror(errno));
            return COM_WRITE_ERROR;
        }
        pollfd p{s.fd, POLLOUT, 0};
        int ready = ::poll(&p, 1, MsLeft(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0)
            return COM_TIMEOUT;
        if (ready < 0 || (p.revents & (POLLERR | POLLHUP | POLLNVAL)))
            return COM_WRITE_ERROR;
    }
    return COM_OK;
}

int CSerialCommDev::WaitForReply(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                                 std::int32_t checkEcho)
{
    Shared& s = *m_pShared;
    reply.clear();
    std::unique_lock lock(s.mutex);
    if (!s.replyEvent.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return s.replySet; })) {
        Trace::Write("return(COM_TIMEOUT)\n");
        s.EmptyBuffer();
        return COM_TIMEOUT;
    }
    s.replySet = false;
    if (s.received >= kBufferSize) {
        Trace::Write("return(COM_BUFFER_TOO_BIG)\n");
        s.EmptyBuffer();
        return COM_BUFFER_TOO_BIG;
    }
    reply.assign(s.buffer.get(), s.received);
    if (checkEcho != 0 && reply.compare(0, command.size(), command) != 0) {
        Trace::Write("return(COM_BAD_ECHO)\n");
        s.EmptyBuffer();
        return COM_BAD_ECHO;
    }
    if (!reply.empty() && reply.back() == s.eventChar.load()) {
        s.EmptyBuffer();
        return COM_OK;
    }
    return COM_BAD_DATA;
}

void CSerialCommDev::CommWatchThread(std::shared_ptr<Shared> shared)
{
    pthread_setname_np(pthread_self(), "CommWatchThread");
    Shared& s = *shared;
    char chunk[CSerialCommDev::kBufferSize];
    while (s.connected == 1) {
        pollfd fds[2] = {{s.fd, POLLIN, 0}, {s.wakeRead, POLLIN, 0}};
        int ready = ::poll(fds, 2, -1);
        if (ready < 0) {
            if (errno != EINTR)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        if (fds[1].revents & POLLIN)
            continue;
        if (!(fds[0].revents & POLLIN)) {
            // The far end hung up (a pseudo-terminal's master closed): nothing
            // to read until it comes back; do not spin.
            Trace::Write("CommWatchThread: All other error\n");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        // Read under the lock so a writer's purge and this read never
        // interleave: bytes are either purged as stale or belong to the reply.
        std::lock_guard lock(s.mutex);
        ssize_t n = ::read(s.fd, chunk, sizeof chunk);
        if (n <= 0)
            continue;
        size_t room = CSerialCommDev::kBufferSize - std::min<size_t>(s.inputQueue.size(), CSerialCommDev::kBufferSize);
        s.inputQueue.insert(s.inputQueue.end(), chunk, chunk + std::min<size_t>(static_cast<size_t>(n), room));
        if (std::memchr(chunk, s.eventChar.load(), static_cast<size_t>(n)) == nullptr)
            continue;
        // The event character arrived: hand over everything waiting, as the
        // driver's queue would, at most one buffer's worth.
        s.DrainInto(s.inputQueue);
        size_t take = std::min<size_t>(s.inputQueue.size(), CSerialCommDev::kBufferSize);
        std::memcpy(s.buffer.get(), s.inputQueue.data(), take);
        s.received = static_cast<std::uint32_t>(take);
        s.inputQueue.erase(s.inputQueue.begin(), s.inputQueue.begin() + static_cast<long>(take));
        s.replySet = true;
        s.replyEvent.notify_all();
    }
    Trace::Printf("The thread %s has exited with code %d\n", "CommWatchThread", kWatchExitCode);
    std::lock_guard lock(s.exitMutex);
    s.threadRunning = false;
    s.exitEvent.notify_all();
}

} // namespace tessitor
