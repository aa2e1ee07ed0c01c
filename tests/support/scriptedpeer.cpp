#include "tests/support/scriptedpeer.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace tessitor::test {

struct CScriptedPeer::Impl {
    int master = -1;
    int keepSlave = -1; // keeps the line alive between client opens
    int wake[2] = {-1, -1};
    std::string path;
    std::atomic<bool> stop{false};
    mutable std::mutex mutex;
    Handler handler;
    std::vector<std::string> lines;
    std::thread thread;

    void WriteAll(const std::string& bytes)
    {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::write(master, bytes.data() + done, bytes.size() - done);
            if (n > 0) {
                done += static_cast<size_t>(n);
            } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
                pollfd p{master, POLLOUT, 0};
                ::poll(&p, 1, 100);
            } else {
                return;
            }
        }
    }

    void Serve()
    {
        std::string pending;
        char chunk[4096];
        while (!stop) {
            pollfd fds[2] = {{master, POLLIN, 0}, {wake[0], POLLIN, 0}};
            if (::poll(fds, 2, 200) <= 0)
                continue;
            if (fds[1].revents & POLLIN)
                break;
            ssize_t n = ::read(master, chunk, sizeof chunk);
            if (n <= 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                continue;
            }
            pending.append(chunk, static_cast<size_t>(n));
            for (;;) {
                size_t end = pending.find('\r');
                if (pending.rfind("DL", 0) == 0) {
                    size_t slash = pending.find('\\');
                    if (slash != std::string::npos && (end == std::string::npos || slash < end))
                        end = slash;
                }
                if (end == std::string::npos)
                    break;
                std::string line = pending.substr(0, end + 1);
                pending.erase(0, end + 1);
                Handler current;
                {
                    std::lock_guard lock(mutex);
                    lines.push_back(line);
                    current = handler;
                }
                WriteAll(current ? current(line) : Answer(line, ""));
            }
        }
    }
};

CScriptedPeer::CScriptedPeer() : m_pImpl(std::make_unique<Impl>())
{
    Impl& p = *m_pImpl;
    p.master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (p.master < 0 || ::grantpt(p.master) != 0 || ::unlockpt(p.master) != 0)
        throw std::runtime_error("cannot make a pseudo-terminal");
    p.path = ::ptsname(p.master);
    p.keepSlave = ::open(p.path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios tio{};
    ::tcgetattr(p.keepSlave, &tio);
    ::cfmakeraw(&tio);
    ::tcsetattr(p.keepSlave, TCSANOW, &tio);
    if (::pipe2(p.wake, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot make a pipe");
    p.thread = std::thread([&p] { p.Serve(); });
}

CScriptedPeer::~CScriptedPeer()
{
    Impl& p = *m_pImpl;
    p.stop = true;
    char poke = 1;
    [[maybe_unused]] ssize_t ignored = ::write(p.wake[1], &poke, 1);
    p.thread.join();
    ::close(p.wake[0]);
    ::close(p.wake[1]);
    ::close(p.keepSlave);
    ::close(p.master);
}

std::string CScriptedPeer::Path() const
{
    return m_pImpl->path;
}

void CScriptedPeer::SetHandler(Handler handler)
{
    std::lock_guard lock(m_pImpl->mutex);
    m_pImpl->handler = std::move(handler);
}

void CScriptedPeer::SendRaw(const std::string& bytes)
{
    m_pImpl->WriteAll(bytes);
}

// The master's termios requests reach the slave's settings.
termios CScriptedPeer::Line() const
{
    termios line{};
    ::tcgetattr(m_pImpl->master, &line);
    return line;
}

void CScriptedPeer::SetLine(const termios& line)
{
    ::tcsetattr(m_pImpl->master, TCSANOW, &line);
}

std::vector<std::string> CScriptedPeer::Lines() const
{
    std::lock_guard lock(m_pImpl->mutex);
    return m_pImpl->lines;
}

int CScriptedPeer::Count(const std::string& line) const
{
    std::lock_guard lock(m_pImpl->mutex);
    int count = 0;
    for (const auto& received : m_pImpl->lines)
        count += received == line;
    return count;
}

std::string CScriptedPeer::Answer(const std::string& line, const std::string& value)
{
    return line + value + ";";
}

std::string CScriptedPeer::Refusal(const std::string& line, unsigned char error)
{
    return line + std::string(1, static_cast<char>(error)) + "?;";
}

} // namespace tessitor::test
