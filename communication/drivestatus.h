// The drive's status register ("SR") read as words: motor on, fault,
// motion, in target, current limited, the user program, the unit mode and
// the recorder's state (bits 16-17).
#pragma once

#include <string>

namespace tessitor {

struct CDriveStatus {
    /// The recorder's state in bits 16-17.
    enum RecorderState : int { kRecIdle = 0, kRecWaiting = 1, kRecComplete = 2, kRecRecording = 3 };

    /// Reads sr, the decimal value of "SR".
    static CDriveStatus Decode(unsigned long sr);

    bool bFault = false;          ///< a motor fault is latched
    bool bMotorOn = false;
    bool bProgramRunning = false; ///< the user program runs
    bool bMotion = false;         ///< a motion is in progress
    bool bInTarget = false;
    bool bCurrentLimited = false;
    int nUnitMode = 0;            ///< "UM": 1 current, 2 velocity, 3 position
    int nRecorderState = kRecIdle;

    /// "motor on, fault, moving, in target, current limited" (what applies).
    std::string Text() const;
    /// "idle", "waiting for trigger", "recording" or "complete".
    const char* RecorderText() const;
};

} // namespace tessitor
