// A one-line CANopen reading of a frame, for people watching a bus
// (`tessitor can dump`): "NMT start node 5", "SDO request node 5: upload
// 0x1008/0", "SDO response node 5: abort 0x06020000 Object does not exist
// in the object dictionary.", "heartbeat node 5: boot-up".
#pragma once

#include <string>

#include "can/canmessage.h"

namespace tessitor {

/// What frame means in CANopen terms; "" for a frame CANopen does not define.
std::string ReadCanOpenFrame(const CanFrame& frame);

} // namespace tessitor
