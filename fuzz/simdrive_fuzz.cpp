// Fuzzes the virtual drive's command interpreter with hostile command lines
// (split at line ends, between time steps) and checks what every answer
// must keep: a value without ";" or "?", an error number that cannot break
// the framing, an answer that fits one reply.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "sim/simdrive.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // A fresh drive per input, so that a finding replays on its own.
    auto clock = std::make_shared<tessitor::sim::CSimManualClock>();
    tessitor::sim::CSimDrive drive(size > 0 && data[0] % 4 == 0 ? "Bressa" : "Talvina");
    drive.SetClock(clock);
    std::string text(reinterpret_cast<const char*>(data), size);
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        tessitor::sim::SimReply reply = drive.Execute(line);
        if (reply.sValue.find_first_of(";?") != std::string::npos || reply.sValue.size() > 8180)
            std::abort();
        if (reply.bError && (reply.nErrorNumber < 1 || reply.nErrorNumber > 255 || reply.nErrorNumber == 8
                             || reply.nErrorNumber == 13 || reply.nErrorNumber == 59 || reply.nErrorNumber == 63))
            std::abort();
        if (reply.cTerminator != ';' && reply.cTerminator != '\x08')
            std::abort();
        clock->Advance(0.001);
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return 0;
}
