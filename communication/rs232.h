// The serial link: CSerialCommDev below the shared command transaction of
// CCommunication. Serves "RS_232" and "RS_485" descriptors alike.
//
//   CRs232 link(info);
//   link.SetDevicePath("/dev/ttyUSB0");      // else the port number's mapping
//   if (int err = link.Connect()) ...        // errno value
//   std::string value;
//   link.SendCommandGetValue("VR", value, 1000);
#pragma once

#include <string>

#include "communication/communication.h"
#include "communication/serialcommdev.h"

namespace tessitor {

class CRs232 : public CSerialCommDev, public CCommunication {
public:
    explicit CRs232(const CCommunicationInfo& info);
    /// Tells the listeners while the port is still open, then closes it.
    ~CRs232() override;

    /// Opens this path instead of the one the port number maps to.
    void SetDevicePath(const std::string& path) { m_sDevicePath = path; }
    /// The path Connect opens (explicit, or from the settings' port map).
    std::string GetDevicePath() const;

    /// Opens and configures the port; 0 or an errno value (ENOTTY: the
    /// path is not a terminal device; EBUSY: another program has it).
    int Connect() override;
    /// Tells the listeners, marks the link broken, closes the port and
    /// leaves it as it was found. Safe from another thread than the one
    /// waiting in a command: that command ends with "Communication Read
    /// Error".
    void Disconnect() override;
    std::int32_t QueryOption() override { return 1; }
    /// The device path (explicit, or from the settings' port map).
    std::string DeviceName() const override { return GetDevicePath(); }

protected:
    int Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                 std::int32_t checkEcho) override;
    void ToggleTerminator() override;

private:
    std::string m_sDevicePath;
};

} // namespace tessitor
