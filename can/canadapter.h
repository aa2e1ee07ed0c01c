// The CAN adapter layer: one interface over the PC's CAN hardware (SLCAN
// serial adapters, SocketCAN interfaces; see can/adapter/). An adapter's
// receive thread ("CanRxThread") sorts every received frame by function
// code and node, so a wait for a node's SDO response never sees a PDO or
// another node's frame. Links to several nodes on one bus share one adapter
// (canadapterchoice.h hands it out).
//
//   std::shared_ptr<CCanAdapter> adapter = AcquireCanAdapter(choice);
//   if (int err = adapter->Open(7)) ... adapter->LastError()       // 1000 kbit/s
//   adapter->SendFrame(MakeCanFrame(0x605, request.data(), 8));
//   CanFrame response;
//   if (adapter->ReceiveFrame(kCobSdoResponse, 5, response, 1000) == COM_TIMEOUT) ...
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "can/canmessage.h"

namespace tessitor {

class CCanAdapter {
public:
    /// Told of every frame sent (bSent) and received, on the sending thread
    /// or on the receive thread; calls are never concurrent.
    using Monitor = std::function<void(const CanFrame& frame, bool bSent)>;

    /// Frames kept per function code and node; older ones are dropped.
    static constexpr std::size_t kQueueDepth = 256;
    /// How long a frame may wait for room in the adapter, in milliseconds.
    static constexpr int kWriteTimeoutMs = 1000;

    virtual ~CCanAdapter();
    CCanAdapter(const CCanAdapter&) = delete;
    CCanAdapter& operator=(const CCanAdapter&) = delete;

    /// Opens the device at the descriptor's bit-rate index and starts the
    /// receive thread; 0 or an errno value (LastError says more). Opening an
    /// open adapter at its own rate is 0, at another rate EBUSY.
    int Open(std::uint8_t bitRateIndex);
    /// Stops the receive thread and closes the device; waiters get COM_READ_ERROR.
    void Close();
    bool IsOpen() const;
    /// "slcan:/dev/ttyACM0" or "socketcan:can0".
    const std::string& Name() const { return m_sName; }
    /// What went wrong in the last Open, for the user.
    std::string LastError() const;

    /// Sends one frame: COM_OK, COM_WRITE_ERROR (device gone or refused),
    /// COM_TIMEOUT (no room within kWriteTimeoutMs).
    int SendFrame(const CanFrame& frame);
    /// The oldest queued frame of function code and node, waiting up to
    /// timeoutMs: COM_OK, COM_TIMEOUT, or COM_READ_ERROR when the device is gone.
    int ReceiveFrame(std::uint16_t function, std::uint8_t node, CanFrame& frame, std::uint32_t timeoutMs);
    /// Drops the queued frames of function code and node (a late answer to
    /// an earlier request must not be taken for the next one's).
    void Purge(std::uint16_t function, std::uint8_t node);

    /// Receive the frames of node (0: every frame on the bus). Until a node
    /// is attached, an adapter receives everything.
    void AttachNode(std::uint8_t node);
    void DetachNode(std::uint8_t node);

    /// Adds a monitor; returns its id for RemoveMonitor.
    int AddMonitor(Monitor monitor);
    void RemoveMonitor(int id);

protected:
    explicit CCanAdapter(std::string name);

    /// Opens the device; 0 or an errno value with error set for the user.
    virtual int OpenDevice(std::uint8_t bitRateIndex, std::string& error) = 0;
    /// Closes the device (the receive thread has stopped).
    virtual void CloseDevice() = 0;
    /// Writes one frame; a CommResult.
    virtual int WriteFrame(const CanFrame& frame) = 0;
    /// Blocks until frames arrive (appended to frames) or wakeFd becomes
    /// readable; 0, or an errno value when the device is gone.
    virtual int ReadFrames(int wakeFd, std::vector<CanFrame>& frames) = 0;
    /// Waits until fd or wakeFd is readable: 0 for fd, -1 when woken, or an
    /// errno value (EIO for a device in error).
    static int WaitReadable(int fd, int wakeFd);
    /// Narrows reception to these nodes (0 among them: everything).
    virtual void ApplyNodeFilter(const std::vector<std::uint8_t>& nodes) { (void)nodes; }

private:
    void ReceiveThread();
    void Deliver(const std::vector<CanFrame>& frames);
    void Notify(const CanFrame& frame, bool bSent);
    std::vector<std::uint8_t> AttachedNodes() const;

    const std::string m_sName;
    mutable std::mutex m_csState;      // queues, open state, attached nodes
    std::condition_variable m_evFrame;
    std::unordered_map<std::uint16_t, std::deque<CanFrame>> m_mapQueues; // by COB-ID = function | node
    std::map<std::uint8_t, int> m_mapNodes;                              // attached node -> count
    bool m_bOpen = false;
    bool m_bGone = false;
    std::uint8_t m_nBitRateIndex = 0;
    std::string m_sLastError;
    int m_aWake[2] = {-1, -1};
    std::thread m_thReceive;

    std::mutex m_csWrite;
    std::mutex m_csMonitors;
    std::vector<std::pair<int, Monitor>> m_arMonitors;
    int m_nNextMonitor = 1;
};

} // namespace tessitor
