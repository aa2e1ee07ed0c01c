#include "sim/simsignals.h"

namespace tessitor::sim {

namespace {

using S = SimSignal;

// Integer currents and voltages travel in milli-units, positions as 32-bit
// counts, velocities as floats: the layouts a client must be able to decode.
const std::vector<SimSignalInfo> kTalvinaSignals = {
    {1, "Position", S::kPosition, 1, 8, 1.0f},
    {2, "Velocity", S::kVelocity, 3, 8, 1.0f},
    {3, "Position Command", S::kPositionCommand, 1, 8, 1.0f},
    {4, "Digital Inputs", S::kDigitalInputs, 2, 4, 1.0f},
    {5, "Velocity Command", S::kVelocityCommand, 3, 8, 1.0f},
    {6, "Active Current", S::kActiveCurrent, 0, 4, 0.001f},
    {7, "Current Command", S::kCurrentCommand, 0, 4, 0.001f},
    {8, "Reactive Current", S::kReactiveCurrent, 0, 4, 0.001f},
    {9, "Position Error", S::kPositionError, 1, 8, 1.0f},
    {10, "Current - Phase A", S::kPhaseA, 0, 4, 0.001f},
    {11, "Current - Phase B", S::kPhaseB, 0, 4, 0.001f},
    {12, "DC Bus Voltage", S::kBusVoltage, 0, 4, 0.01f},
    {13, "Analog Input 1", S::kAnalog1, 0, 4, 0.001f},
    {14, "Analog Input 2", S::kAnalog2, 0, 4, 0.001f},
    {15, "Motor Voltage", S::kMotorVoltage, 0, 4, 0.01f},
    {16, "Status Register", S::kStatus, 2, 8, 1.0f},
};

const std::vector<SimSignalInfo> kBreNolSignals = {
    {1, "Abort", S::kAbort, 2, 4, 1.0f},
    {2, "Active Current", S::kActiveCurrent, 0, 4, 0.001f},
    {3, "Analog Input 1", S::kAnalog1, 0, 4, 0.001f},
    {4, "Analog Input 2", S::kAnalog2, 0, 4, 0.001f},
    {5, "Auxiliary Position", S::kAuxPosition, 1, 8, 1.0f},
    {6, "Auxiliary Velocity", S::kAuxVelocity, 3, 8, 1.0f},
    {7, "Current - Phase A [A]", S::kPhaseA, 0, 4, 0.001f},
    {8, "Current - Phase B", S::kPhaseB, 0, 4, 0.001f},
    {9, "Current Command [A]", S::kCurrentCommand, 0, 4, 0.001f},
    {10, "DC Bus Voltage", S::kBusVoltage, 0, 4, 0.01f},
    {11, "Digital Input 1", S::kInput1, 2, 4, 1.0f},
    {12, "Digital Input 2", S::kInput2, 2, 4, 1.0f},
    {13, "Digital Output 1", S::kOutput1, 2, 4, 1.0f},
    {14, "Digital Output 2", S::kOutput2, 2, 4, 1.0f},
    {15, "FLS", S::kForwardLimit, 2, 4, 1.0f},
    {16, "Enable", S::kEnable, 2, 4, 1.0f},
    {17, "Position", S::kPosition, 1, 8, 1.0f},
    {18, "Position Command", S::kPositionCommand, 1, 8, 1.0f},
    {19, "Reactive Current", S::kReactiveCurrent, 0, 4, 0.001f},
    {20, "RLS", S::kReverseLimit, 2, 4, 1.0f},
    {21, "Velocity", S::kVelocity, 3, 8, 1.0f},
    {22, "Velocity Command", S::kVelocityCommand, 3, 8, 1.0f},
    {23, "Begin Motion", S::kBeginMotion, 2, 4, 1.0f},
};

} // namespace

const std::vector<SimSignalInfo>& SignalTable(const std::string& family)
{
    return family == "BreNol" ? kBreNolSignals : kTalvinaSignals;
}

const SimSignalInfo* FindSignal(const std::string& family, int code)
{
    for (const SimSignalInfo& info : SignalTable(family))
        if (info.nCode == code)
            return &info;
    return nullptr;
}

} // namespace tessitor::sim
