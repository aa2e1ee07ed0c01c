// The connection descriptor: which kind of link reaches a drive and that
// link's parameters, with the text forms it travels in (display text, short
// name, the one-line form of files and command lines, the keyed form).
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tessitor {

/// Kind codes used by every switch on the communication type.
enum CommKind : int {
    kKindUnknown = -1,
    kKindRs232 = 0,
    kKindCan = 1,
    kKindTcpKmas = 2,
    kKindTcp = 3,
    kKindRs485 = 4,
};

/// CAN bit rates in kbit/s by index, closed by "END". Validation accepts
/// only 0..7, so "800" is never kept.
extern const char* const g_szCanBitRates[];
/// Parity names by the Win32 parity code 0..4.
extern const char* const g_szParityNames[];

struct CCommunicationInfo {
    /// The adapter device identifier of the "IXXAT_VCI3" adapter.
    struct Guid {
        std::uint32_t Data1 = 0;
        std::uint16_t Data2 = 0;
        std::uint16_t Data3 = 0;
        std::array<std::uint8_t, 8> Data4{};
        bool operator==(const Guid&) const = default;
    };

    std::string m_sName;             ///< link name with its short-name suffix
    std::string m_sCommType = "RS_232"; ///< "RS_232", "RS_485", "CAN", "TCP", "TCP_KMAS"
    std::uint8_t nPort = 1;          ///< serial port number, 1 = COM1
    std::uint32_t wBaudRate = 19200; ///< bits per second
    std::uint8_t bByteSize = 8;
    std::uint8_t bParity = 0;        ///< 0 None, 1 Odd, 2 Even, 3 Mark, 4 Space
    std::uint8_t bStopBits = 0;      ///< Win32 code: 0 one, 1 one and a half, 2 two
    std::uint8_t bFlowCtrl = 0;      ///< bit 0 DSR/DTR, bit 1 CTS/RTS, bit 2 XON/XOFF
    std::uint8_t mNodeID = 1;        ///< CAN node, 1..127
    std::string sManufacture = "IXXAT"; ///< CAN adapter maker ("SLCAN", "SocketCAN", ...)
    std::string sBoardType = "iPC-I 386"; ///< CAN adapter board (serial path or interface)
    std::uint8_t mCanNr = 0;         ///< CAN channel, 0 or 1
    std::uint8_t mBaudRateIndex = 6; ///< index into g_szCanBitRates
    std::uint8_t w_irq1 = 0;         ///< CAN net number, 1..15 or 0
    std::uint16_t w_address1 = 0;    ///< carried and compared; 0 after validation
    Guid guidDevice;                 ///< present when Data1 is nonzero
    std::array<std::uint8_t, 4> abIP{}; ///< IPv4, most significant byte first
    std::string sDesc;               ///< TCP target: "RS232 Port %d" or "CANopen Bus %d NodeID %d"
    std::int32_t nType = 0;          ///< TCP target kind: 0 serial port, 1 CANopen node

    /// Kind code of the communication type; empty or unknown gives kKindUnknown.
    int GetKind() const;
    /// Replaces out-of-range fields with their defaults (see the .cpp).
    void Validate();
    /// Equality as links compare: only the fields of this descriptor's kind.
    bool IsEqual(const CCommunicationInfo& other) const;
    /// "RS_232; COM1; 115200[bit/sec]; Parity None" and the like.
    std::string GetDisplayText() const;
    /// The suffix for this kind ("_COM3", "_CAN_ID5", "_rs1", ...), or "".
    std::string GetShortName() const;
    /// Stores name plus the short-name suffix unless name already holds it.
    void SetNameWithShortName(const std::string& name);

    /// The one-line form; blanks inside strings are written as 0x01.
    std::string ToLine() const;
    /// Reads the one-line form; false (and this unchanged) when malformed
    /// or when a text field could not be written back equal; why (may be
    /// null) then says what is wrong.
    bool FromLine(const std::string& line, std::string* why = nullptr);
    /// Empty when every text field (type, adapter maker and board, target)
    /// can travel in the one-line form and read back equal; else why not
    /// ("the target text holds the byte 0x00, which the one-line form
    /// cannot carry"). Control bytes and ";" cannot, nor text beyond a
    /// field's length (31 characters, the target text 127).
    std::string TextFieldError() const;
    /// Reads the keyed form of a "StartFromZAS" command line; keys that are
    /// missing leave their fields as they are.
    void FromKeyedLine(const std::string& line);
};

} // namespace tessitor
