// The pseudo-terminal a face of the virtual drive serves on, with the
// face's serving thread: the master side for the face (non-blocking), the
// slave side in raw mode and held open, so that clients may open and close
// the device path again and again without the master ever seeing a
// hang-up; and a wake-up event that wakes the serving thread from its poll,
// also when the last client closes the line, so that the next client,
// whoever it is, finds the line as a fresh one.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace tessitor::sim {

class CSimPty {
public:
    CSimPty() = default;
    /// Stops serving.
    ~CSimPty();
    CSimPty(const CSimPty&) = delete;
    CSimPty& operator=(const CSimPty&) = delete;

    /// Makes the pseudo-terminal and the wake-up event and runs serve on a
    /// thread named threadName; serve returns once Serving() is false.
    /// Throws std::system_error naming the step that failed (and leaves
    /// nothing open). Does nothing while serving.
    void Start(const char* threadName, std::function<void()> serve);
    /// Ends the serving thread, waits for it and closes the terminal.
    void Stop();
    /// True from Start until Stop: the serving loop runs while it holds.
    bool Serving() const { return m_bServing.load(); }
    /// True while the serving thread exists.
    bool Running() const { return m_Thread.joinable(); }
    /// The master side's descriptor (-1 when closed).
    int Master() const { return m_fdMaster; }
    /// The wake-up event's descriptor, readable after Wake and when clients
    /// open or close the line (-1 when closed).
    int WakeEvent() const { return m_fdEvents; }
    /// Wakes whoever polls WakeEvent; from any thread.
    void Wake();
    /// Takes the wake-ups seen so far (serving thread only). True when the
    /// last client has closed the line since: its exclusive claim is then
    /// cleared, the line is raw again and what was in flight is dropped.
    bool ClearWake();
    /// The device path a client opens (/dev/pts/N); valid after Open.
    const std::string& SlavePath() const { return m_sSlavePath; }

private:
    int m_fdMaster = -1;
    int m_fdSlave = -1;
    int m_fdWake = -1;
    int m_fdNotify = -1;
    int m_fdEvents = -1;
    int m_nClients = 0;
    std::string m_sSlavePath;
    std::thread m_Thread;
    std::atomic<bool> m_bServing{false};

    void Open();
    void Close();
    bool MakeRaw(int fd) const;
};

} // namespace tessitor::sim
