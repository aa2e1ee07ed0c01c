// The signals the virtual drive can record, and how each family names them
// by signal code: the code a recorder slot is mapped to ("RV[n]=code"), the
// sample layout of its "BH" upload, and its display name (as in Vectors.ini).
#pragma once

#include <array>
#include <string>
#include <vector>

namespace tessitor::sim {

/// Everything the drive can sample, one value each servo period.
enum class SimSignal {
    kPosition,
    kVelocity,
    kPositionCommand,
    kVelocityCommand,
    kCurrentCommand,
    kActiveCurrent,
    kReactiveCurrent,
    kPositionError,
    kPhaseA,
    kPhaseB,
    kBusVoltage,
    kAnalog1,
    kAnalog2,
    kMotorVoltage,
    kStatus,
    kDigitalInputs,
    kAuxPosition,
    kAuxVelocity,
    kInput1,
    kInput2,
    kOutput1,
    kOutput2,
    kAbort,
    kForwardLimit,
    kReverseLimit,
    kEnable,
    kBeginMotion,
    kCount
};

/// One sample of every signal.
using SimSnapshot = std::array<double, static_cast<std::size_t>(SimSignal::kCount)>;

/// A signal as one family offers it to its recorder.
struct SimSignalInfo {
    int nCode;           ///< the family's signal code
    const char* pName;   ///< display name
    SimSignal eSignal;
    int nDataType;       ///< "BH" data type: 0, 1, 2 integer samples, 3 float samples
    int nDigits;         ///< hex digits per sample: 4 or 8
    float fScale;        ///< physical value = integer sample x scale (1 for floats)
};

/// The signal table of a family ("DSP" and "STP" share one; "BreNol" has its own).
const std::vector<SimSignalInfo>& SignalTable(const std::string& family);
/// The entry of code in the family's table, or null.
const SimSignalInfo* FindSignal(const std::string& family, int code);

/// Value of signal in snapshot.
inline double SignalValue(const SimSnapshot& snapshot, SimSignal signal)
{
    return snapshot[static_cast<std::size_t>(signal)];
}

} // namespace tessitor::sim
