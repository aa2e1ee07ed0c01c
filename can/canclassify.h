// Which transfer carries a drive command over CAN: an SDO upload or
// download of a fixed object, the binary interpreter on the second PDO pair,
// or the CANopen OS command. A pure function of the command text and the
// drive's processor type, with the drive tools' own rules, oddities kept.
//
//   CanCommandClass c = ClassifyCanCommand("KP[2]=7", "DSP");   // c.nKind == kTransferBinary
#pragma once

#include <cstdint>
#include <string>

namespace tessitor {

/// Transfer kinds.
constexpr int kTransferSdoUpload = 1;
constexpr int kTransferSdoDownload = 2;
constexpr int kTransferBinary = 3;
constexpr int kTransferOsCommand = 4;

/// The object of the recorder's "BH" upload.
constexpr std::uint16_t kRecordObject = 0x2030;

struct CanCommandClass {
    int nKind = kTransferOsCommand;
    std::uint16_t wIndex = 0;   ///< the object of an SDO transfer
    std::uint8_t bSubIndex = 0;
    bool bRecord = false;       ///< the upload is a segmented record upload
    std::string sData;          ///< written instead of the command text when not empty
};

/// Classifies command for a drive of processorType ("DSP", "STP", "BreNol"...).
CanCommandClass ClassifyCanCommand(const std::string& command, const std::string& processorType);

} // namespace tessitor
