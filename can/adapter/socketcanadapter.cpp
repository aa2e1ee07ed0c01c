#include "can/adapter/socketcanadapter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "communication/communication.h"
#include "core/trace.h"

namespace tessitor {
namespace {

// What a node sends that a client reads: SDO responses, the four transmit
// PDOs, emergencies and heartbeats.
constexpr std::uint16_t kNodeFunctions[] = {kCobSdoResponse, kCobTpdo1, kCobTpdo2, 0x380, 0x480, kCobSync,
                                            kCobHeartbeat};

int OpenSocket()
{
    return ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW);
}

} // namespace

CSocketCanAdapter::CSocketCanAdapter(std::string interfaceName)
    : CCanAdapter("socketcan:" + interfaceName), m_sInterface(std::move(interfaceName))
{
}

CSocketCanAdapter::~CSocketCanAdapter()
{
    Close();
}

bool CSocketCanAdapter::Available()
{
    int fd = OpenSocket();
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

int CSocketCanAdapter::OpenDevice(std::uint8_t /*bitRateIndex*/, std::string& error)
{
    int fd = OpenSocket();
    if (fd < 0) {
        int result = errno;
        if (result == EAFNOSUPPORT || result == EPROTONOSUPPORT)
            error = "this kernel has no SocketCAN (AF_CAN); use an SLCAN adapter (--can slcan:PATH)";
        return result;
    }
    unsigned index = m_sInterface.size() < IFNAMSIZ ? ::if_nametoindex(m_sInterface.c_str()) : 0;
    if (index == 0) {
        ::close(fd);
        error = "no CAN interface of that name";
        return ENODEV;
    }
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(index);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        int result = errno;
        ::close(fd);
        return result;
    }
    m_hSocket = fd;
    return 0;
}

void CSocketCanAdapter::ApplyNodeFilter(const std::vector<std::uint8_t>& nodes)
{
    if (m_hSocket < 0)
        return;
    std::vector<can_filter> filters;
    if (std::find(nodes.begin(), nodes.end(), 0) == nodes.end())
        for (std::uint8_t node : nodes)
            for (std::uint16_t function : kNodeFunctions)
                filters.push_back({static_cast<canid_t>(function | node), CAN_SFF_MASK | CAN_EFF_FLAG | CAN_RTR_FLAG});
    if (filters.empty())
        filters.push_back({0, 0}); // everything
    if (::setsockopt(m_hSocket, SOL_CAN_RAW, CAN_RAW_FILTER, filters.data(),
                     static_cast<socklen_t>(filters.size() * sizeof(can_filter))) != 0)
        Trace::Printf("CSocketCanAdapter %s: filter: %s\n", m_sInterface.c_str(), std::strerror(errno));
}

void CSocketCanAdapter::CloseDevice()
{
    if (m_hSocket >= 0)
        ::close(m_hSocket);
    m_hSocket = -1;
}

int CSocketCanAdapter::WriteFrame(const CanFrame& frame)
{
    if (m_hSocket < 0)
        return COM_WRITE_ERROR;
    can_frame out{};
    out.can_id = frame.nId | (frame.bExtended ? CAN_EFF_FLAG : 0) | (frame.bRemote ? CAN_RTR_FLAG : 0);
    out.can_dlc = std::min<std::uint8_t>(frame.nLength, 8);
    std::memcpy(out.data, frame.abData.data(), 8);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWriteTimeoutMs);
    for (;;) {
        ssize_t n = ::write(m_hSocket, &out, sizeof out);
        if (n == static_cast<ssize_t>(sizeof out))
            return COM_OK;
        if (n < 0 && errno == EINTR)
            continue;
        // A full transmit queue says ENOBUFS, and poll() does not tell when
        // it has room again: retry briefly until the deadline.
        if (n < 0 && (errno == EAGAIN || errno == ENOBUFS)) {
            if (std::chrono::steady_clock::now() >= deadline)
                return COM_TIMEOUT;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        Trace::Printf("CSocketCanAdapter %s: write: %s\n", m_sInterface.c_str(), std::strerror(errno));
        return COM_WRITE_ERROR;
    }
}

int CSocketCanAdapter::ReadFrames(int wakeFd, std::vector<CanFrame>& frames)
{
    for (;;) {
        if (int waited = WaitReadable(m_hSocket, wakeFd))
            return waited < 0 ? 0 : waited;
        for (;;) {
            can_frame in{};
            ssize_t n = ::read(m_hSocket, &in, sizeof in);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno == EAGAIN)
                break;
            if (n < 0)
                return errno; // the interface went down or away
            if (n != static_cast<ssize_t>(sizeof in) || (in.can_id & CAN_ERR_FLAG))
                continue;
            CanFrame frame = MakeCanFrame(in.can_id & ((in.can_id & CAN_EFF_FLAG) ? CAN_EFF_MASK : CAN_SFF_MASK),
                                          in.data, std::min<std::uint8_t>(in.can_dlc, 8));
            frame.bExtended = (in.can_id & CAN_EFF_FLAG) != 0;
            frame.bRemote = (in.can_id & CAN_RTR_FLAG) != 0;
            frames.push_back(frame);
        }
        if (!frames.empty())
            return 0;
    }
}

} // namespace tessitor
