// Tells the front end that a link waits for a drive's answer, for as long
// as the object lives: Ui::WaitBegin when made, Ui::WaitEnd when gone.
//
//   {
//       CWaitNotice notice("VR", "/dev/ttyUSB0", attempt, CSerialCommDev::kAttempts);
//       ... write, wait for the reply ...
//   }
#pragma once

#include <string>

#include "core/ui.h"

namespace tessitor {

class CWaitNotice {
public:
    /// Announces the wait for command (a carriage return at its end is
    /// not shown) on device, attempt of attempts.
    CWaitNotice(const std::string& command, const std::string& device, int attempt = 1, int attempts = 1);
    /// Ends the wait on the Ui that was told of its beginning.
    ~CWaitNotice() { m_Ui.WaitEnd(); }
    CWaitNotice(const CWaitNotice&) = delete;
    CWaitNotice& operator=(const CWaitNotice&) = delete;

private:
    Ui& m_Ui;
};

} // namespace tessitor
