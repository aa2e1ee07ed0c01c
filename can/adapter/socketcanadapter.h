// The SocketCAN adapter: a raw CAN socket on a network interface ("can0",
// "vcan0"), the way every PC CAN board appears on Linux. The kernel filters
// reception down to the attached nodes' CANopen frames. The interface's bit
// rate belongs to the system (ip link set can0 type can bitrate 1000000):
// the descriptor's rate is not applied here.
#pragma once

#include <string>

#include "can/canadapter.h"

namespace tessitor {

class CSocketCanAdapter : public CCanAdapter {
public:
    explicit CSocketCanAdapter(std::string interfaceName);
    ~CSocketCanAdapter() override;

    /// True when this kernel offers CAN sockets at all (AF_CAN).
    static bool Available();

protected:
    int OpenDevice(std::uint8_t bitRateIndex, std::string& error) override;
    void CloseDevice() override;
    int WriteFrame(const CanFrame& frame) override;
    int ReadFrames(int wakeFd, std::vector<CanFrame>& frames) override;
    void ApplyNodeFilter(const std::vector<std::uint8_t>& nodes) override;

private:
    const std::string m_sInterface;
    int m_hSocket = -1;
};

} // namespace tessitor
