// What the TCP tests share: a scripted network device on a loopback port,
// whose handler sees every request frame and writes back whatever bytes it
// likes, so each misbehaviour of a peer can be staged; the one script the
// tests use; a TCP descriptor; and catching the exception a call throws.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "communication/communication.h"
#include "communication/netprotocol.h"

namespace tessitor::test {

/// One accepted connection, as the handler sees it.
struct CPeerConnection {
    int hSocket;
    std::uint32_t nRequest = 0; ///< the number of the request being answered
    /// Writes bytes as they stand; false when the client is gone.
    bool Write(const std::string& bytes);
    /// Writes a reply frame to request number (0: the one being answered).
    void Reply(std::uint32_t functionId, std::uint32_t status, const std::string& body, std::uint32_t number = 0);
    /// Closes with a reset instead of an orderly close; no more requests are read.
    void Abort();
};

class CTcpScriptedPeer {
public:
    /// Gets each request with its body (the payload after the number, which
    /// is in CPeerConnection::nRequest).
    using Handler = std::function<void(CPeerConnection&, const NetFrameHeader&, const std::string& body)>;

    /// Listens on 127.0.0.1; each connection's requests go to handler in
    /// turn, on that connection's own thread, until the client closes or
    /// stays silent for 10 s. Throws std::runtime_error when it cannot listen.
    explicit CTcpScriptedPeer(Handler handler);
    /// Stops accepting and joins the connections.
    ~CTcpScriptedPeer();

    std::uint16_t Port() const { return m_wPort; }
    /// Connections accepted so far.
    int Accepted() const { return m_nAccepted; }
    /// Connections that have ended so far.
    int Ended() const { return m_nEnded; }

private:
    Handler m_Handler;
    int m_hListen = -1;
    std::uint16_t m_wPort = 0;
    std::atomic<int> m_nAccepted{0};
    std::atomic<int> m_nEnded{0};
    std::thread m_Thread;
    std::vector<std::thread> m_arThreads; // the accept thread's alone until it is joined
};

/// A device with two drives, "RS232 Port 1" (handle 11) and "CANopen Bus 1
/// NodeID 5" (handle 12), whose answer each request names (the command, or
/// the payload of other functions): see the .cpp. Anything it does not
/// know is echoed; a trailing '!' resets the connection after the answer.
/// "unasked" gets an answer to the request before it first, "late" its
/// answer after 600 ms, "drip" its answer one byte every 150 ms.
void ScriptedDevice(CPeerConnection& c, const NetFrameHeader& h, const std::string& payload);
/// A loopback port nobody listens on (one just given up).
std::uint16_t ClosedPort();

/// A "TCP" descriptor for the drive named target on 127.0.0.1.
CCommunicationInfo TcpInfo(const std::string& target);

/// The CExceptionComm action throws; a test failure when it throws none.
template <class F>
CCommunication::CExceptionComm Thrown(F&& action)
{
    try {
        action();
    } catch (const CCommunication::CExceptionComm& e) {
        return e;
    }
    ADD_FAILURE() << "no CExceptionComm was thrown";
    return CCommunication::CExceptionComm(0, nullptr, -100);
}

} // namespace tessitor::test
