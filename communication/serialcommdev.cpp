#include "communication/serialcommdev.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
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
#include "communication/wiretrace.h"
#include "core/trace.h"

namespace tessitor {

namespace {

constexpr char kListingTerminator = 0x08;
constexpr char kXon = 0x11;
constexpr char kXoff = 0x13;
constexpr int kWatchExitCode = 13;
constexpr int kCloseTerminatedCode = 133;
constexpr int kDestructorTerminatedCode = 131;
constexpr int kDestructorWaits = 100;
constexpr auto kWatchRest = std::chrono::milliseconds(20);
constexpr auto kDestructorWaitStep = std::chrono::milliseconds(100);

using Clock = std::chrono::steady_clock;

// Milliseconds left until deadline, for poll(); never negative.
int MsLeft(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1 << 30));
}

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

// The descriptor's line settings in tio, which holds the port's as found.
void ApplyLine(termios& tio, const SerialLineSettings& line)
{
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
    // Whatever used the port before may have left XON/XOFF on in either
    // direction; without bit 2 both are off.
    tio.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    if (line.bFlowCtrl & 0x4) {
        tio.c_iflag |= IXON | IXOFF;
        tio.c_cc[VSTART] = kXon;
        tio.c_cc[VSTOP] = kXoff;
    }
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
}

} // namespace

// What the caller, Close and the watch thread share. Each holds its own
// reference, so a thread left behind by Close, or an exchange that Close
// interrupted, never touches freed memory or a reused descriptor: the port
// is closed when the last of them lets go.
//
// Who reads the port: while an exchange runs (busy), its caller reads its
// own reply, so the answer wakes the one thread that waits for it and
// nothing else. Between exchanges the watch thread reads, keeping unasked
// bytes (and tracing them) until the next exchange purges them. It stands
// aside for kWatchRestMs after an exchange, so a burst of commands costs it
// no wake-up at all.
struct CSerialCommDev::Shared {
    std::string path;
    int fd = -1;
    int wakeRead = -1;
    int wakeWrite = -1;
    std::atomic<int> connected{0};
    std::atomic<char> eventChar{';'};
    SavedLineSettings savedLine;
    std::unique_ptr<char[]> buffer{new char[kBufferSize]}; // the caller's reply

    std::mutex mutex;
    std::condition_variable watchEvent; // tells the watch thread of Close
    bool busy = false;                   // an exchange owns the port
    bool closing = false;                // Close ran: nobody waits any more
    bool writeUnfinished = false;        // the last write left bytes in the output queue
    Clock::time_point lastExchange{};
    std::vector<char> inputQueue; // unasked bytes the watch thread read (the driver's queue)

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

    // Gives the port back as it was found: line settings, exclusivity, lock.
    void GiveBack()
    {
        if (int error = RestoreLineSettings(fd, savedLine))
            Trace::Printf("CSerialCommDev::Close %s: cannot restore the line: %s\n", path.c_str(),
                          std::strerror(error));
        ::ioctl(fd, TIOCNXCL);
        ::flock(fd, LOCK_UN);
    }

    bool WaitForThread(std::chrono::milliseconds wait)
    {
        std::unique_lock lock(exitMutex);
        return exitEvent.wait_for(lock, wait, [this] { return !threadRunning; });
    }
};

CSerialCommDev::CSerialCommDev() : m_pShared(std::make_shared<Shared>()) {}

CSerialCommDev::~CSerialCommDev()
{
    Close();
    if (!m_pLeftBehind)
        return;
    bool ended = false;
    for (int wait = 0; wait < kDestructorWaits && !ended; ++wait)
        ended = m_pLeftBehind->WaitForThread(kDestructorWaitStep);
    if (!ended)
        Trace::Printf("The thread %s has exited with code %d\n", "CommWatchThread", kDestructorTerminatedCode);
}

std::shared_ptr<CSerialCommDev::Shared> CSerialCommDev::Current() const
{
    std::lock_guard lock(m_csShared);
    return m_pShared;
}

bool CSerialCommDev::IsOpen() const
{
    return Current()->connected.load() == 1;
}

char CSerialCommDev::EventChar() const
{
    return Current()->eventChar.load();
}

int CSerialCommDev::Open(const std::string& path, const SerialLineSettings& line)
{
    if (IsOpen())
        return EBUSY;
    auto shared = std::make_shared<Shared>();
    Shared& s = *shared;
    s.path = path;
    m_sPath = path;

    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int error = errno;
        Trace::Printf("CSerialCommDev::Open %s: %s\n", path.c_str(), std::strerror(error));
        return error;
    }
    bool exclusive = false;
    auto fail = [&](int error) {
        Trace::Printf("CSerialCommDev::Open %s: %s\n", path.c_str(), std::strerror(error));
        if (exclusive) {
            s.fd = fd;
            s.GiveBack();
            s.fd = -1;
        }
        ::close(fd);
        return error;
    };
    // A file, a pipe or /dev/null would take the drive's commands and
    // answer nothing: only a terminal device is a port.
    if (!::isatty(fd))
        return fail(ENOTTY);
    // Exclusive, as a Win32 port is: a second program gets EBUSY.
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0)
        return fail(errno == EWOULDBLOCK ? EBUSY : errno);
    ::ioctl(fd, TIOCEXCL);
    exclusive = true;
    if (int error = SaveLineSettings(fd, s.savedLine))
        return fail(error);

    termios tio{};
    if (::tcgetattr(fd, &tio) != 0)
        return fail(errno);
    ApplyLine(tio, line);
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
    s.inputQueue.reserve(kBufferSize);
    s.connected = 1;
    s.threadRunning = true;
    {
        std::lock_guard lock(m_csShared);
        m_pShared = shared;
    }
    std::thread(CommWatchThread, shared).detach();

    int dtr = TIOCM_DTR;
    ::ioctl(fd, TIOCMBIS, &dtr); // a pseudo-terminal has no DTR; that is fine
    return 0;
}

void CSerialCommDev::Close()
{
    std::shared_ptr<Shared> shared = Current();
    Shared& s = *shared;
    if (s.connected.exchange(0) != 1)
        return;
    {
        std::lock_guard lock(s.mutex);
        s.closing = true;
    }
    s.watchEvent.notify_all();
    // The wake pipe stays readable from now on: it releases every poll on
    // the port, the watch thread's and an exchange's.
    char poke = 1;
    [[maybe_unused]] ssize_t ignored = ::write(s.wakeWrite, &poke, 1);
    bool ended = s.WaitForThread(std::chrono::milliseconds(kCloseWaitMs));

    int dtr = TIOCM_DTR;
    ::ioctl(s.fd, TIOCMBIC, &dtr);
    ::tcflush(s.fd, TCIOFLUSH);
    s.GiveBack();
    if (!ended) {
        // The thread keeps its own reference to the shared state and the
        // port; the descriptor is closed when it finally returns.
        Trace::Printf("The thread %s has exited with code %d\n", "CommWatchThread", kCloseTerminatedCode);
        m_pLeftBehind = shared;
    }
    std::lock_guard lock(m_csShared);
    m_pShared = std::make_shared<Shared>();
}

void CSerialCommDev::ToggleTerminator()
{
    std::shared_ptr<Shared> s = Current();
    s->eventChar = s->eventChar.load() == ';' ? kListingTerminator : ';';
}

int CSerialCommDev::Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                             std::int32_t checkEcho)
{
    std::shared_ptr<Shared> shared = Current();
    Shared& s = *shared;
    int result = COM_OK;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        {
            CWaitNotice notice(command, s.path, attempt, kAttempts);
            result = Write(s, command, timeoutMs);
            if (result == COM_OK)
                result = WaitForReply(s, command, reply, timeoutMs, checkEcho);
        }
        if (result == COM_OK || s.connected != 1)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::lock_guard lock(s.mutex);
    s.busy = false;
    s.lastExchange = Clock::now();
    return result;
}

int CSerialCommDev::Write(Shared& s, const std::string& command, std::uint32_t timeoutMs)
{
    if (s.connected != 1)
        return COM_WRITE_ERROR;
    {
        // Whatever waits now is stale: an answer nobody waited for, or
        // noise. The watch thread reads only under this lock and only while
        // no exchange is busy, so a byte is either purged here or belongs to
        // the reply, never both. Asking how much input waits is cheaper
        // than flushing every time.
        std::lock_guard lock(s.mutex);
        s.busy = true;
        std::size_t stale = s.inputQueue.size();
        s.inputQueue.clear();
        int pending = 0;
        if (::ioctl(s.fd, FIONREAD, &pending) != 0)
            pending = 0;
        if (pending > 0 || s.writeUnfinished) {
            ::tcflush(s.fd, TCIOFLUSH);
            stale += static_cast<std::size_t>(std::max(pending, 0));
            s.writeUnfinished = false;
        }
        if (stale != 0)
            Trace::Printf("CSerialCommDev::Write: %zu stale bytes discarded\n", stale);
    }

    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t written = 0;
    while (written < command.size()) {
        ssize_t n = ::write(s.fd, command.data() + written, command.size() - written);
        if (n > 0) {
            CWireTrace::Bytes(s.path, CWireTrace::kToDevice, command.data() + written, static_cast<size_t>(n));
            written += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN) {
            Trace::Printf("CSerialCommDev::Write: %s\n", std::strerror(errno));
            return COM_WRITE_ERROR;
        }
        // The line is flow-controlled off: wait for room, or for Close.
        pollfd p[2] = {{s.fd, POLLOUT, 0}, {s.wakeRead, POLLIN, 0}};
        int ready = ::poll(p, 2, MsLeft(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0 || (p[1].revents & POLLIN)) {
            std::lock_guard lock(s.mutex);
            s.writeUnfinished = true;
            return ready == 0 ? COM_TIMEOUT : COM_WRITE_ERROR;
        }
        if (ready < 0 || (p[0].revents & (POLLERR | POLLHUP | POLLNVAL)))
            return COM_WRITE_ERROR;
    }
    return COM_OK;
}

int CSerialCommDev::WaitForReply(Shared& s, const std::string& command, std::string& reply,
                                 std::uint32_t timeoutMs, std::int32_t checkEcho)
{
    reply.clear();
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const char terminator = s.eventChar.load();
    // The reply is everything read until a read brings the terminator, as
    // the driver's queue hands it over; beyond one buffer it is only counted.
    std::size_t total = 0;
    for (;;) {
        pollfd p[2] = {{s.fd, POLLIN, 0}, {s.wakeRead, POLLIN, 0}};
        int ready = ::poll(p, 2, MsLeft(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (p[1].revents & POLLIN)
            return COM_READ_ERROR; // closed while waiting
        if (ready == 0) {
            Trace::Write("return(COM_TIMEOUT)\n");
            return COM_TIMEOUT;
        }
        if (ready < 0 || !(p[0].revents & POLLIN)) {
            // The far end hung up (a pseudo-terminal's master closed):
            // nothing will come; wait out the time-out without spinning.
            Trace::Write("CommWatchThread: All other error\n");
            std::this_thread::sleep_for(std::min<std::chrono::milliseconds>(
                std::chrono::milliseconds(MsLeft(deadline)), std::chrono::milliseconds(20)));
            continue;
        }
        char* into = s.buffer.get() + std::min<std::size_t>(total, kBufferSize);
        char overflow[512];
        std::size_t room = kBufferSize - std::min<std::size_t>(total, kBufferSize);
        ssize_t n = ::read(s.fd, room ? into : overflow, room ? room : sizeof overflow);
        if (n <= 0)
            continue;
        CWireTrace::Bytes(s.path, CWireTrace::kFromDevice, room ? into : overflow, static_cast<size_t>(n));
        total += static_cast<std::size_t>(n);
        if (std::memchr(room ? into : overflow, terminator, static_cast<size_t>(n)) != nullptr)
            break;
    }
    if (total >= kBufferSize) {
        Trace::Write("return(COM_BUFFER_TOO_BIG)\n");
        return COM_BUFFER_TOO_BIG;
    }
    reply.assign(s.buffer.get(), total);
    const bool echoed = reply.compare(0, command.size(), command) == 0;
    if (checkEcho != 0 && !echoed) {
        Trace::Write("return(COM_BAD_ECHO)\n");
        return COM_BAD_ECHO;
    }
    // One reply ends with the terminator and holds no other after the
    // echo: a second one means an unasked answer came glued to this one,
    // and neither can be trusted.
    const std::size_t body = echoed ? command.size() : 0;
    if (!reply.empty() && reply.back() == terminator && reply.find(terminator, body) == reply.size() - 1)
        return COM_OK;
    return COM_BAD_DATA;
}

void CSerialCommDev::CommWatchThread(std::shared_ptr<Shared> shared)
{
    pthread_setname_np(pthread_self(), "CommWatchThread");
    Shared& s = *shared;
    char chunk[CSerialCommDev::kBufferSize];
    while (s.connected == 1) {
        {
            // Stand aside while exchanges run, and until the port has rested.
            std::unique_lock lock(s.mutex);
            while (!s.closing && (s.busy || Clock::now() - s.lastExchange < kWatchRest))
                s.watchEvent.wait_for(lock, kWatchRest);
        }
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
        std::lock_guard lock(s.mutex);
        if (s.busy)
            continue; // the answer is the waiting caller's to read
        ssize_t n = ::read(s.fd, chunk, sizeof chunk);
        if (n <= 0)
            continue;
        CWireTrace::Bytes(s.path, CWireTrace::kFromDevice, chunk, static_cast<size_t>(n));
        size_t room = CSerialCommDev::kBufferSize - std::min<size_t>(s.inputQueue.size(), CSerialCommDev::kBufferSize);
        s.inputQueue.insert(s.inputQueue.end(), chunk, chunk + std::min<size_t>(static_cast<size_t>(n), room));
    }
    Trace::Printf("The thread %s has exited with code %d\n", "CommWatchThread", kWatchExitCode);
    std::lock_guard lock(s.exitMutex);
    s.threadRunning = false;
    s.exitEvent.notify_all();
}

} // namespace tessitor
