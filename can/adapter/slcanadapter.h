// The SLCAN adapter: a USB-CAN stick (or the virtual drive's bus) that
// speaks the Lawicel ASCII protocol on a serial device. Open closes the
// channel ("C"), sets the bit rate ("S0".."S8") and opens it ("O"); frames
// then travel as "t"/"T" lines. The device is held exclusively.
#pragma once

#include <string>

#include "can/canadapter.h"
#include "communication/custombaud.h"

namespace tessitor {

class CSlcanAdapter : public CCanAdapter {
public:
    /// How long each set-up command waits for the adapter's "\r" or "\a";
    /// adapters that answer nothing cost this much per command.
    static constexpr int kAnswerWaitMs = 200;

    explicit CSlcanAdapter(std::string devicePath);
    /// Closes the channel ("C") and gives the device back as it was found.
    ~CSlcanAdapter() override;

    const std::string& DevicePath() const { return m_sPath; }

protected:
    int OpenDevice(std::uint8_t bitRateIndex, std::string& error) override;
    void CloseDevice() override;
    int WriteFrame(const CanFrame& frame) override;
    int ReadFrames(int wakeFd, std::vector<CanFrame>& frames) override;

private:
    int WriteAll(const std::string& text);
    void Command(const std::string& command);

    const std::string m_sPath;
    int m_hDevice = -1;
    std::string m_sPending; // received bytes of an unfinished line
    SavedLineSettings m_SavedLine; // the line as it was before Open
};

} // namespace tessitor
