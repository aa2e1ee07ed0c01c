// Fuzzes what crosses a CAN bus: SLCAN lines as an adapter sends them (cut
// anywhere, with time stamps, status bytes and garbage between), each frame
// read the way `tessitor can dump` reads it and written back unchanged, and
// fed to a virtual drive's CANopen node, whose SDO answers must stay
// eight-byte frames of its own node.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "can/adapter/slcancodec.h"
#include "can/canopenreading.h"
#include "sim/simcannode.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace tessitor;
    constexpr int kNode = 5;
    constexpr std::size_t kChunk = 16; // what one read of a serial device may bring
    // A fresh drive per input, so that a finding replays on its own.
    auto drive = std::make_shared<sim::CSimDrive>(size > 0 && data[0] % 2 ? "Bressa" : "Talvina");
    drive->SetClock(std::make_shared<sim::CSimManualClock>());
    sim::CSimCanNode node(drive, kNode);
    auto now = sim::CSimCanNode::Clock::now();
    std::string pending;
    for (std::size_t at = 0; at < size; at += kChunk) {
        pending.append(reinterpret_cast<const char*>(data) + at, std::min(kChunk, size - at));
        for (const std::string& line : slcan::TakeLines(pending)) {
            CanFrame frame;
            if (!slcan::DecodeFrame(line, frame))
                continue;
            std::string encoded = slcan::EncodeFrame(frame);
            CanFrame again;
            if (!slcan::DecodeFrame(encoded.substr(0, encoded.size() - 1), again) || !(again == frame))
                std::abort();
            (void)ReadCanOpenFrame(frame);

            sim::SimCanFrame bus{frame.nId, frame.bExtended, frame.bRemote, frame.nLength, frame.abData};
            const bool sdoRequest = !frame.bExtended && frame.nId == sim::kCobSdoRequest + kNode;
            for (const sim::SimCanOutput& out : node.Receive(bus, now)) {
                if (out.frame.nLength > 8 || out.tNotBefore < now)
                    std::abort();
                if (sdoRequest && out.frame.nId == sim::kCobSdoResponse + kNode && out.frame.nLength != 8)
                    std::abort();
            }
            now += std::chrono::milliseconds(1);
        }
        if (pending.size() > 64) // the codec keeps at most one unfinished line
            std::abort();
    }
    return 0;
}
