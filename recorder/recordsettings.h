// The settings of one recording, as the user chose them: the trigger, its
// level mode and levels, the gap, the length, the pre-trigger text and the
// signal of each display.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tessitor {

class CVector;

/// Trigger level modes (also the drive's trigger types of a level trigger).
enum RecLevelMode : std::int32_t {
    kLevelRising = 2,  ///< rising through the second (high) level
    kLevelFalling = 3, ///< falling through the first (low) level
    kLevelWindow = 4,  ///< leaving the window between the two levels
    kLevelEvent = 5,   ///< an input event
};

/// The name of a display that shows no signal.
inline constexpr char kNoSignal[] = "(None)";

struct CRecordSettings {
    /// One display: the signal it shows and its sample store (not owned).
    struct Display {
        std::string sSignal = kNoSignal;
        CVector* pStore = nullptr;
    };

    /// CRecBreNol: a code of its signal table, 0 no trigger. CRecTalvina:
    /// the index of the chosen row of the trigger list.
    std::int32_t nTrigger = 0;
    std::int32_t nLevelMode = kLevelRising;
    std::string sGap = "1";         ///< sent after "RG="
    std::string sLength = "1000";   ///< sent after "RL="; read as a decimal for the upload
    /// Sent after "RP[2]=" less its final character (the field ends in "%").
    std::string sPreTrigger = "0%";
    double dLevel1 = 0; ///< the low level
    double dLevel2 = 0; ///< the high level
    std::vector<Display> arDisplays;
};

} // namespace tessitor
