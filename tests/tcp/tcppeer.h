// A scripted network device for tests: listens on a loopback port and runs
// a script on each connection it accepts, on its own thread. The script
// reads request frames and writes whatever bytes it likes back, so every
// misbehaviour of a peer can be staged.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "communication/netprotocol.h"

namespace tessitor::test {

/// One accepted connection, as the script sees it.
class CPeerConnection {
public:
    explicit CPeerConnection(int fd) : m_hSocket(fd) {}

    /// Reads one request frame; false when the client closed or 10 s passed.
    bool ReadFrame(NetFrameHeader& header, std::string& payload);
    /// Writes bytes as they stand.
    void Write(const std::string& bytes);
    /// Writes a reply frame.
    void Reply(std::uint32_t functionId, std::uint32_t status, const std::string& payload);
    /// Closes with a reset instead of an orderly close.
    void Abort();
    /// Waits until the client closes its end (or 10 s pass).
    void WaitForClose();

private:
    int m_hSocket;
};

class CTcpScriptedPeer {
public:
    using Script = std::function<void(CPeerConnection&)>;

    explicit CTcpScriptedPeer(Script script);
    /// Stops accepting and joins the scripts (each ends when its client closes).
    ~CTcpScriptedPeer();

    std::uint16_t Port() const { return m_wPort; }
    /// Connections accepted so far.
    int Accepted() const { return m_nAccepted; }

private:
    void AcceptLoop();

    Script m_Script;
    int m_hListen = -1;
    int m_hWake[2] = {-1, -1};
    std::uint16_t m_wPort = 0;
    std::atomic<int> m_nAccepted{0};
    std::thread m_Thread;
    std::mutex m_csThreads;
    std::vector<std::thread> m_arThreads;
};

} // namespace tessitor::test
