#include "bench/serialfloorclient.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>

namespace tessitor::bench {

CSerialFloorClient::CSerialFloorClient(const std::string& path)
{
    m_hPort = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios tio{};
    if (m_hPort < 0 || ::tcgetattr(m_hPort, &tio) != 0)
        throw std::runtime_error("cannot open " + path);
    ::cfmakeraw(&tio);
    ::cfsetispeed(&tio, B115200);
    ::cfsetospeed(&tio, B115200);
    ::tcsetattr(m_hPort, TCSANOW, &tio);
}

CSerialFloorClient::~CSerialFloorClient()
{
    if (m_hPort >= 0)
        ::close(m_hPort);
}

bool CSerialFloorClient::Command(const std::string& line, std::string& reply)
{
    if (::write(m_hPort, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        return false;
    reply.clear();
    char chunk[512];
    for (;;) {
        pollfd p{m_hPort, POLLIN, 0};
        if (::poll(&p, 1, 1000) <= 0)
            return false;
        ssize_t n = ::read(m_hPort, chunk, sizeof chunk);
        if (n <= 0)
            return false;
        reply.append(chunk, static_cast<size_t>(n));
        if (reply.back() == ';')
            return true;
    }
}

} // namespace tessitor::bench
