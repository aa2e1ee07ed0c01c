// The application file of a drive: a CApplication that knows its four
// groups ("Version", "DownLoad", "Communication", "UserProgram"), the
// connection fields each communication type stores, and the decoding of
// the parameter image's hexadecimal text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "applicationeditor/application.h"
#include "communication/communicationinfo.h"

namespace tessitor {

/// What the version handling reports when an image does not fit its version.
inline constexpr char kSizeMismatchText[] = "Size of this DAT file mismatch of the Version.";

class CDatFile : public CApplication {
public:
    using CApplication::CApplication;

    /// "Communication"/field.
    std::string GetCommunicationText(const std::string& field) const { return GetValue(kGroupCommunication, field); }
    void SetCommunicationText(const std::string& field, const std::string& value) { SetValue(kGroupCommunication, field, value); }
    std::int32_t GetCommunicationInt(const std::string& field) const { return GetInt(kGroupCommunication, field); }
    void SetCommunicationInt(const std::string& field, std::int32_t value) { SetInt(kGroupCommunication, field, value); }
    /// "DownLoad"/"Params": the parameter image as hexadecimal text.
    std::string GetParams() const { return GetValue(kGroupDownLoad, kFieldParams); }
    void SetParams(const std::string& hex) { SetValue(kGroupDownLoad, kFieldParams, hex); }
    /// "UserProgram"/"Program": the user program as the drive holds it.
    std::string GetUserProgram() const { return GetValue(kGroupUserProgram, kFieldProgram); }
    void SetUserProgram(const std::string& text) { SetValue(kGroupUserProgram, kFieldProgram, text); }
    /// "Version"/"LOAD_VERSION_STRING": the version of the image's layout.
    std::string GetVersionString() const { return GetValue(kGroupVersion, kFieldVersion); }
    void SetVersionString(const std::string& version) { SetValue(kGroupVersion, kFieldVersion, version); }

    /// Stores "CommunicationType" and then the fields of info's kind, in
    /// their order: serial fields for "RS_232" and "TCP_KMAS", CAN fields
    /// for "CAN", TCP fields for "TCP", none for any other type.
    void SetCommunicationInfo(const CCommunicationInfo& info);
    /// A descriptor with the stored type and the fields of its kind, each
    /// read with "%d" and cut to its member's width; others at defaults.
    CCommunicationInfo GetCommunicationInfo() const;

    /// Decodes hexadecimal text two digits a byte into bytes, stopping at
    /// the end or at the first ";" (a lone last digit is dropped). Returns
    /// 1; 0 when the text holds more than capacity + 1 bytes (the check
    /// stands before each character); -1 at a pair that is not two
    /// hexadecimal digits.
    static int DecodeParams(const std::string& text, std::vector<std::uint8_t>& bytes, std::size_t capacity);
    /// Upper-case hexadecimal text of bytes, as "Params" is written.
    static std::string EncodeParams(const std::vector<std::uint8_t>& bytes);

    static constexpr char kGroupVersion[] = "Version";
    static constexpr char kFieldVersion[] = "LOAD_VERSION_STRING";
    static constexpr char kGroupDownLoad[] = "DownLoad";
    static constexpr char kFieldParams[] = "Params";
    static constexpr char kGroupCommunication[] = "Communication";
    static constexpr char kFieldCommunicationType[] = "CommunicationType";
    static constexpr char kGroupUserProgram[] = "UserProgram";
    static constexpr char kFieldProgram[] = "Program";
};

} // namespace tessitor
