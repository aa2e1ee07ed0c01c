#include "can/canadapter.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include "communication/communication.h"
#include "core/trace.h"

namespace tessitor {

CCanAdapter::CCanAdapter(std::string name) : m_sName(std::move(name)) {}

CCanAdapter::~CCanAdapter()
{
    // A derived adapter closes itself: CloseDevice is its own.
    if (m_thReceive.joinable())
        Trace::Printf("CCanAdapter %s destroyed while open\n", m_sName.c_str());
}

bool CCanAdapter::IsOpen() const
{
    std::lock_guard lock(m_csState);
    return m_bOpen && !m_bGone;
}

std::string CCanAdapter::LastError() const
{
    std::lock_guard lock(m_csState);
    return m_sLastError;
}

int CCanAdapter::Open(std::uint8_t bitRateIndex)
{
    {
        std::lock_guard lock(m_csState);
        if (m_bOpen && !m_bGone) {
            if (bitRateIndex == m_nBitRateIndex)
                return 0;
            m_sLastError = "already open at another bit rate";
            return EBUSY;
        }
    }
    if (m_bOpen)
        Close();
    std::string error;
    if (int result = OpenDevice(bitRateIndex, error)) {
        std::lock_guard lock(m_csState);
        m_sLastError = error.empty() ? std::strerror(result) : error;
        Trace::Printf("CCanAdapter::Open %s: %s\n", m_sName.c_str(), m_sLastError.c_str());
        return result;
    }
    if (::pipe2(m_aWake, O_CLOEXEC | O_NONBLOCK) != 0) {
        int result = errno;
        CloseDevice();
        std::lock_guard lock(m_csState);
        m_sLastError = std::strerror(result);
        return result;
    }
    {
        std::lock_guard lock(m_csState);
        m_bOpen = true;
        m_bGone = false;
        m_nBitRateIndex = bitRateIndex;
        m_sLastError.clear();
        m_mapQueues.clear();
    }
    ApplyNodeFilter(AttachedNodes());
    m_thReceive = std::thread([this] { ReceiveThread(); });
    return 0;
}

void CCanAdapter::Close()
{
    {
        std::lock_guard lock(m_csState);
        if (!m_bOpen)
            return;
        m_bOpen = false;
    }
    char poke = 1;
    [[maybe_unused]] ssize_t ignored = ::write(m_aWake[1], &poke, 1);
    if (m_thReceive.joinable())
        m_thReceive.join();
    ::close(m_aWake[0]);
    ::close(m_aWake[1]);
    m_aWake[0] = m_aWake[1] = -1;
    {
        std::lock_guard writeLock(m_csWrite);
        CloseDevice();
    }
    m_evFrame.notify_all();
}

int CCanAdapter::SendFrame(const CanFrame& frame)
{
    if (!IsOpen())
        return COM_WRITE_ERROR;
    CanFrame sent = frame;
    sent.tStamp = std::chrono::steady_clock::now();
    int result;
    {
        std::lock_guard lock(m_csWrite);
        result = WriteFrame(sent);
    }
    if (result == COM_OK)
        Notify(sent, true);
    return result;
}

int CCanAdapter::ReceiveFrame(std::uint16_t function, std::uint8_t node, CanFrame& frame, std::uint32_t timeoutMs)
{
    const std::uint16_t key = static_cast<std::uint16_t>(function | node);
    std::unique_lock lock(m_csState);
    bool ready = m_evFrame.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        auto it = m_mapQueues.find(key);
        return (it != m_mapQueues.end() && !it->second.empty()) || !m_bOpen || m_bGone;
    });
    auto it = m_mapQueues.find(key);
    if (it != m_mapQueues.end() && !it->second.empty()) {
        frame = it->second.front();
        it->second.pop_front();
        return COM_OK;
    }
    if (!m_bOpen || m_bGone)
        return COM_READ_ERROR;
    (void)ready;
    return COM_TIMEOUT;
}

void CCanAdapter::Purge(std::uint16_t function, std::uint8_t node)
{
    std::lock_guard lock(m_csState);
    auto it = m_mapQueues.find(static_cast<std::uint16_t>(function | node));
    if (it != m_mapQueues.end() && !it->second.empty()) {
        Trace::Printf("CCanAdapter %s: %zu stale frames of 0x%03X dropped\n", m_sName.c_str(), it->second.size(),
                      function | node);
        it->second.clear();
    }
}

std::vector<std::uint8_t> CCanAdapter::AttachedNodes() const
{
    std::lock_guard lock(m_csState);
    std::vector<std::uint8_t> nodes;
    for (const auto& [node, count] : m_mapNodes)
        nodes.push_back(node);
    return nodes;
}

void CCanAdapter::AttachNode(std::uint8_t node)
{
    {
        std::lock_guard lock(m_csState);
        ++m_mapNodes[node];
    }
    if (IsOpen())
        ApplyNodeFilter(AttachedNodes());
}

void CCanAdapter::DetachNode(std::uint8_t node)
{
    {
        std::lock_guard lock(m_csState);
        auto it = m_mapNodes.find(node);
        if (it == m_mapNodes.end())
            return;
        if (--it->second == 0)
            m_mapNodes.erase(it);
    }
    if (IsOpen())
        ApplyNodeFilter(AttachedNodes());
}

int CCanAdapter::AddMonitor(Monitor monitor)
{
    std::lock_guard lock(m_csMonitors);
    m_arMonitors.emplace_back(m_nNextMonitor, std::move(monitor));
    return m_nNextMonitor++;
}

void CCanAdapter::RemoveMonitor(int id)
{
    std::lock_guard lock(m_csMonitors);
    std::erase_if(m_arMonitors, [id](const auto& entry) { return entry.first == id; });
}

void CCanAdapter::Notify(const CanFrame& frame, bool bSent)
{
    std::lock_guard lock(m_csMonitors);
    for (const auto& [id, monitor] : m_arMonitors)
        monitor(frame, bSent);
}

void CCanAdapter::Deliver(const std::vector<CanFrame>& frames)
{
    // Monitors first: a waiter woken below sends its next request at once,
    // and a trace must show the answer before it.
    for (const CanFrame& frame : frames)
        Notify(frame, false);
    {
        std::lock_guard lock(m_csState);
        for (const CanFrame& frame : frames) {
            // Only CANopen's own frames are queued; extended and remote
            // frames are for the monitors alone.
            if (frame.bExtended || frame.bRemote)
                continue;
            std::deque<CanFrame>& queue = m_mapQueues[static_cast<std::uint16_t>(frame.nId & 0x7FF)];
            if (queue.size() >= kQueueDepth)
                queue.pop_front();
            queue.push_back(frame);
        }
    }
    m_evFrame.notify_all();
}

int CCanAdapter::WaitReadable(int fd, int wakeFd)
{
    for (;;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        if (fds[1].revents & POLLIN)
            return -1;
        if (fds[0].revents & POLLIN)
            return 0;
        if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL))
            return EIO;
    }
}

void CCanAdapter::ReceiveThread()
{
    pthread_setname_np(pthread_self(), "CanRxThread");
    std::vector<CanFrame> frames;
    for (;;) {
        {
            std::lock_guard lock(m_csState);
            if (!m_bOpen)
                break;
        }
        frames.clear();
        int error = ReadFrames(m_aWake[0], frames);
        auto now = std::chrono::steady_clock::now();
        for (CanFrame& frame : frames)
            frame.tStamp = now;
        if (!frames.empty())
            Deliver(frames);
        if (error != 0) {
            Trace::Printf("CanRxThread %s: %s\n", m_sName.c_str(), std::strerror(error));
            std::lock_guard lock(m_csState);
            m_bGone = true;
            m_sLastError = std::strerror(error);
            m_evFrame.notify_all();
            break;
        }
    }
    Trace::Printf("The thread %s has exited with code %d\n", "CanRxThread", 0);
}

} // namespace tessitor
