#include "communication/drivestatus.h"

namespace tessitor {

namespace {

constexpr unsigned long kSrFault = 1ul << 0;
constexpr int kSrUnitModeShift = 1;
constexpr unsigned long kSrUnitModeMask = 0x7;
constexpr unsigned long kSrMotorOn = 1ul << 4;
constexpr unsigned long kSrProgramRunning = 1ul << 5;
constexpr unsigned long kSrMotion = 1ul << 6;
constexpr unsigned long kSrInTarget = 1ul << 7;
constexpr unsigned long kSrCurrentLimit = 1ul << 8;
constexpr int kSrRecorderShift = 16;
constexpr unsigned long kSrRecorderMask = 0x3;

} // namespace

CDriveStatus CDriveStatus::Decode(unsigned long sr)
{
    CDriveStatus status;
    status.bFault = (sr & kSrFault) != 0;
    status.bMotorOn = (sr & kSrMotorOn) != 0;
    status.bProgramRunning = (sr & kSrProgramRunning) != 0;
    status.bMotion = (sr & kSrMotion) != 0;
    status.bInTarget = (sr & kSrInTarget) != 0;
    status.bCurrentLimited = (sr & kSrCurrentLimit) != 0;
    status.nUnitMode = static_cast<int>((sr >> kSrUnitModeShift) & kSrUnitModeMask);
    status.nRecorderState = static_cast<int>((sr >> kSrRecorderShift) & kSrRecorderMask);
    return status;
}

std::string CDriveStatus::Text() const
{
    std::string text = bMotorOn ? "motor on" : "motor off";
    if (bFault)
        text += ", fault";
    if (bMotion)
        text += ", moving";
    if (bInTarget)
        text += ", in target";
    if (bCurrentLimited)
        text += ", current limited";
    return text;
}

const char* CDriveStatus::RecorderText() const
{
    switch (nRecorderState) {
    case kRecWaiting:
        return "waiting for trigger";
    case kRecRecording:
        return "recording";
    case kRecComplete:
        return "complete";
    default:
        return "idle";
    }
}

} // namespace tessitor
