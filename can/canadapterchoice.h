// Which adapter a CAN descriptor names, and the adapters shared by the links
// of one process. Adapter maker "SLCAN": the board is the serial device;
// "SocketCAN": the board is the interface; any other maker is a board that
// Linux shows as SocketCAN interface "can<channel>". The descriptor's board
// text holds 31 characters: a longer device path is kept in the settings
// section "CanBoards" ("slcan1=/dev/serial/by-id/usb-...") and the board
// names its key.
#pragma once

#include <memory>
#include <string>

#include "communication/communicationinfo.h"

namespace tessitor {

class CCanAdapter;
class Settings;

enum class CanAdapterKind { Slcan, SocketCan };

/// What the command line's --can names, and what a descriptor resolves to.
struct CanAdapterChoice {
    CanAdapterKind eKind = CanAdapterKind::Slcan;
    std::string sDevice; ///< serial device path or interface name

    /// "slcan:/dev/ttyACM0", "socketcan:can0": the --can form.
    std::string Name() const;
    /// Reads the --can form; false when it is neither.
    bool FromName(const std::string& text);
};

/// The adapter info names (see above), with board keys looked up in settings.
CanAdapterChoice ChooseCanAdapter(const CCommunicationInfo& info, const Settings& settings);
/// Sets info's maker and board to name choice; a serial path too long for
/// the board text gets a key in "CanBoards" (settings changed, not saved).
void SetCanAdapter(CCommunicationInfo& info, const CanAdapterChoice& choice, Settings& settings);

/// The adapter for choice: the one the process already shares, else a new
/// one, not yet open. It is closed when the last holder lets it go.
std::shared_ptr<CCanAdapter> AcquireCanAdapter(const CanAdapterChoice& choice);

} // namespace tessitor
