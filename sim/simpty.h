// The pseudo-terminal a face of the virtual drive serves on: the master
// side for the face (non-blocking), the slave side in raw mode and held
// open, so that clients may open and close the device path again and again
// without the master ever seeing a hang-up.
#pragma once

#include <string>

namespace tessitor::sim {

class CSimPty {
public:
    CSimPty() = default;
    /// Closes both sides.
    ~CSimPty();
    CSimPty(const CSimPty&) = delete;
    CSimPty& operator=(const CSimPty&) = delete;

    /// Makes the pseudo-terminal; throws std::system_error naming the step
    /// that failed (and leaves nothing open).
    void Open();
    void Close();
    /// The master side's descriptor (-1 when closed).
    int Master() const { return m_fdMaster; }
    /// The device path a client opens (/dev/pts/N); valid after Open.
    const std::string& SlavePath() const { return m_sSlavePath; }

private:
    int m_fdMaster = -1;
    int m_fdSlave = -1;
    std::string m_sSlavePath;
};

} // namespace tessitor::sim
