// Fuzzes what a network device sends back: the drive list parser, and both
// socket exchanges reading hostile reply bytes from a socket pair (cut
// headers, huge announced lengths, other function IDs and request numbers,
// trailing bytes).
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "communication/communication.h"
#include "communication/netprotocol.h"
#include "communication/socketcom.h"

namespace {

// Runs one exchange on a socket whose peer has sent bytes and closed.
void Exchange(const std::string& bytes, bool timed)
{
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        return;
    if (::send(pair[1], bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) != static_cast<ssize_t>(bytes.size())) {
        ::close(pair[0]);
        ::close(pair[1]);
        return;
    }
    ::shutdown(pair[1], SHUT_WR);
    tessitor::CSocketCom socket;
    socket.Attach(pair[0]);
    socket.SetBufferExchangeTimeout(5);
    const std::string request = tessitor::NetBuildFrame(tessitor::kNetFnCommand, 1, 1, "PX");
    try {
        if (timed) {
            const std::uint8_t* reply = nullptr;
            std::uint32_t length = 0;
            if (socket.Exchange(tessitor::kNetFnCommand, request.data(), request.size(), &reply, &length, 1)
                && length > 0 && reply == nullptr)
                __builtin_trap(); // a handed-out payload always has its bytes
        } else {
            char buffer[256];
            std::int32_t length = socket.Exchange(request.data(), request.size(), buffer, sizeof buffer);
            if (length != tessitor::E_OUTOFMEMORY && (length < 0 || length > static_cast<std::int32_t>(sizeof buffer)))
                __builtin_trap();
        }
    } catch (const tessitor::CCommunication::CExceptionComm&) {
    }
    ::close(pair[1]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string bytes(reinterpret_cast<const char*>(data), size);
    if (auto drives = tessitor::NetParseDriveList(bytes)) {
        // Whatever was accepted writes back byte for byte (the version word aside).
        if (tessitor::NetDriveListPayload(*drives).substr(4) != bytes.substr(4))
            __builtin_trap();
        for (const auto& drive : *drives)
            if (drive.sName.size() > tessitor::kNetMaxNameBytes)
                __builtin_trap();
    }
    if (size < 64 * 1024) {
        Exchange(bytes, true);
        Exchange(bytes, false);
    }
    return 0;
}
