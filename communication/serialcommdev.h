// A serial port as the drive link uses it: termios on a device path, a
// watch thread ("CommWatchThread") that collects bytes and wakes the caller
// when the current event character (";" or 0x08) arrives, and one exchange
// of command and reply with the coded results 0, 1, 3, 4, 5, 10, 11. The
// port is held exclusively while open and left as it was found when closed.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace tessitor {

/// Line settings of a port, with the descriptor's codes.
struct SerialLineSettings {
    std::uint32_t wBaudRate = 115200; ///< bits per second
    std::uint8_t bByteSize = 8;       ///< 5..8
    std::uint8_t bParity = 0;         ///< 0 none, 1 odd, 2 even, 3 mark, 4 space
    std::uint8_t bStopBits = 0;       ///< 0 one, 1 one and a half (two here), 2 two
    std::uint8_t bFlowCtrl = 0;       ///< bit 0 DSR/DTR, bit 1 CTS/RTS, bit 2 XON/XOFF
};

class CSerialCommDev {
public:
    /// Size of the receive buffer and of each driver queue, in bytes.
    static constexpr std::uint32_t kBufferSize = 8192;
    /// Attempts of one exchange before its result is reported.
    static constexpr int kAttempts = 3;
    /// How long Close waits for the watch thread before leaving it behind.
    static constexpr int kCloseWaitMs = 500;

    CSerialCommDev();
    /// Closes, then waits for a watch thread an earlier Close left behind
    /// (up to 100 waits of 100 ms).
    virtual ~CSerialCommDev();
    CSerialCommDev(const CSerialCommDev&) = delete;
    CSerialCommDev& operator=(const CSerialCommDev&) = delete;

    /// Opens path exclusively (flock and TIOCEXCL), saves its line settings
    /// as found, configures it, starts the watch thread and raises DTR.
    /// Returns 0 or an errno value: EBUSY when another program holds it,
    /// ENOTTY when path is not a terminal device.
    int Open(const std::string& path, const SerialLineSettings& line);
    /// Stops the watch thread (at most kCloseWaitMs), puts the line settings
    /// back as Open found them, gives up the exclusivity and closes. Safe
    /// from any thread: an exchange waiting meanwhile ends at once with
    /// COM_READ_ERROR.
    void Close();
    /// Writes command (terminator included) and waits up to timeoutMs for
    /// the reply, kAttempts times at most, each attempt announced to the
    /// front end (Ui::WaitBegin); returns a CommResult.
    int Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs, std::int32_t checkEcho);
    /// Switches the event character between ";" and 0x08.
    void ToggleTerminator();
    /// The character that ends a reply now.
    char EventChar() const;
    bool IsOpen() const;
    /// The path given to the last Open.
    const std::string& Path() const { return m_sPath; }

private:
    struct Shared;
    std::shared_ptr<Shared> Current() const;
    static int Write(Shared& s, const std::string& command, std::uint32_t timeoutMs);
    static int WaitForReply(Shared& s, const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                            std::int32_t checkEcho);
    /// Collects bytes and signals the reply when the event character arrives.
    static void CommWatchThread(std::shared_ptr<Shared> shared);

    mutable std::mutex m_csShared;     // guards the pointer, not the state
    std::shared_ptr<Shared> m_pShared; // shared with the watch thread and running exchanges
    std::shared_ptr<Shared> m_pLeftBehind; // a thread Close could not stop, for the destructor
    std::string m_sPath;
};

} // namespace tessitor
