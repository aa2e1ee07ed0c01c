#include "can/adapter/slcanadapter.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "can/adapter/slcancodec.h"
#include "communication/communication.h"
#include "core/trace.h"

namespace tessitor {
namespace {

using Clock = std::chrono::steady_clock;

int MsLeft(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

std::string Printable(const std::string& line)
{
    std::string text;
    for (char c : line)
        text += (c >= 0x20 && c < 0x7F) ? std::string(1, c) : "\\x" + std::to_string(static_cast<unsigned char>(c));
    return text;
}

} // namespace

CSlcanAdapter::CSlcanAdapter(std::string devicePath) : CCanAdapter("slcan:" + devicePath), m_sPath(std::move(devicePath))
{
}

CSlcanAdapter::~CSlcanAdapter()
{
    Close();
}

int CSlcanAdapter::OpenDevice(std::uint8_t bitRateIndex, std::string& error)
{
    const std::string rate = slcan::BitRateCommand(bitRateIndex);
    if (rate.empty()) {
        error = "no SLCAN bit rate for index " + std::to_string(bitRateIndex);
        return EINVAL;
    }
    int fd = ::open(m_sPath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno;
    auto fail = [&](int result) {
        ::close(fd);
        return result;
    };
    // Exclusive, as the serial link holds its port: two programs writing
    // one adapter would garble each other's lines.
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0)
        return fail(errno == EWOULDBLOCK ? EBUSY : errno);
    termios tio{};
    if (::tcgetattr(fd, &tio) != 0 || SaveLineSettings(fd, m_SavedLine) != 0) {
        int result = errno;
        error = "not a serial device (" + std::string(std::strerror(result)) + ")";
        return fail(result);
    }
    ::ioctl(fd, TIOCEXCL);
    ::cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    // USB adapters ignore the line speed; serial ones commonly run at 115200.
    ::cfsetispeed(&tio, B115200);
    ::cfsetospeed(&tio, B115200);
    if (::tcsetattr(fd, TCSANOW, &tio) != 0) {
        int result = errno;
        ::ioctl(fd, TIOCNXCL);
        return fail(result);
    }
    ::tcflush(fd, TCIOFLUSH);
    m_hDevice = fd;
    m_sPending.clear();

    // Empty lines first end whatever a previous program left half written.
    WriteAll("\r\r\r");
    Command(slcan::kCommandClose);
    Command(rate);
    Command(slcan::kCommandOpen);
    return 0;
}

void CSlcanAdapter::Command(const std::string& command)
{
    if (WriteAll(command) != COM_OK)
        return;
    // Wait for "\r" or "\a"; frames already on the bus are not ours yet.
    auto deadline = Clock::now() + std::chrono::milliseconds(kAnswerWaitMs);
    for (;;) {
        pollfd p{m_hDevice, POLLIN, 0};
        int ready = ::poll(&p, 1, MsLeft(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0 || !(p.revents & POLLIN))
            break;
        char chunk[256];
        ssize_t n = ::read(m_hDevice, chunk, sizeof chunk);
        if (n <= 0)
            break;
        std::string answer(chunk, static_cast<std::size_t>(n));
        if (answer.find(slcan::kErrorAnswer) != std::string::npos) {
            Trace::Printf("CSlcanAdapter %s: '%s' answered with an error\n", m_sPath.c_str(),
                          Printable(command.substr(0, command.size() - 1)).c_str());
            break;
        }
        if (answer.find(slcan::kEndOfLine) != std::string::npos)
            break;
    }
}

int CSlcanAdapter::WriteAll(const std::string& text)
{
    auto deadline = Clock::now() + std::chrono::milliseconds(kWriteTimeoutMs);
    std::size_t written = 0;
    while (written < text.size()) {
        ssize_t n = ::write(m_hDevice, text.data() + written, text.size() - written);
        if (n > 0) {
            written += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN) {
            Trace::Printf("CSlcanAdapter %s: write: %s\n", m_sPath.c_str(), std::strerror(errno));
            return COM_WRITE_ERROR;
        }
        pollfd p{m_hDevice, POLLOUT, 0};
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

void CSlcanAdapter::CloseDevice()
{
    if (m_hDevice < 0)
        return;
    WriteAll(slcan::kCommandClose);
    ::tcdrain(m_hDevice);
    // The device goes back as it was found, for the next program.
    if (int error = RestoreLineSettings(m_hDevice, m_SavedLine))
        Trace::Printf("CSlcanAdapter %s: cannot restore the line: %s\n", m_sPath.c_str(), std::strerror(error));
    ::ioctl(m_hDevice, TIOCNXCL);
    ::flock(m_hDevice, LOCK_UN);
    ::close(m_hDevice);
    m_hDevice = -1;
}

int CSlcanAdapter::WriteFrame(const CanFrame& frame)
{
    if (m_hDevice < 0)
        return COM_WRITE_ERROR;
    return WriteAll(slcan::EncodeFrame(frame));
}

int CSlcanAdapter::ReadFrames(int wakeFd, std::vector<CanFrame>& frames)
{
    for (;;) {
        if (int waited = WaitReadable(m_hDevice, wakeFd))
            return waited < 0 ? 0 : waited;
        char chunk[4096];
        ssize_t n = ::read(m_hDevice, chunk, sizeof chunk);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        // A hung-up line (the stick unplugged, the far end of a
        // pseudo-terminal gone) reads as EIO or end of file.
        if (n <= 0)
            return n < 0 ? errno : EIO;
        m_sPending.append(chunk, static_cast<std::size_t>(n));
        for (const std::string& line : slcan::TakeLines(m_sPending)) {
            CanFrame frame;
            if (slcan::DecodeFrame(line, frame))
                frames.push_back(frame);
            else if (line != "z" && line != "Z")
                Trace::Printf("CSlcanAdapter %s: ignored '%s'\n", m_sPath.c_str(), Printable(line).c_str());
        }
        if (!frames.empty())
            return 0;
    }
}

} // namespace tessitor
