// The floor a serial link is measured against: the least any program can
// do for one command on a termios port, in one thread. It writes the line,
// waits with poll() and reads until the terminator; no purge, no echo or
// terminator checks, no watch thread, no lock.
#pragma once

#include <string>

namespace tessitor::bench {

class CSerialFloorClient {
public:
    /// Opens path raw at 115200 baud; throws std::runtime_error when it cannot.
    explicit CSerialFloorClient(const std::string& path);
    ~CSerialFloorClient();
    CSerialFloorClient(const CSerialFloorClient&) = delete;
    CSerialFloorClient& operator=(const CSerialFloorClient&) = delete;

    /// Writes line and reads the answer up to and including ";" into
    /// reply; false when the port fails or nothing comes within 1 s.
    bool Command(const std::string& line, std::string& reply);

private:
    int m_hPort = -1;
};

} // namespace tessitor::bench
