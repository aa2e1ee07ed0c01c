// The virtual drive's motor and its three control loops: a brushless motor
// seen in its rotor frame (winding resistance and inductance, torque
// constant, inertia, viscous and Coulomb friction), driven by a PI current
// loop, a PI velocity loop and a PI position loop with feed-forward, and a
// profile generator for jogs and point-to-point moves. Stepped at the servo
// period by the drive; no I/O, no clock of its own.
#pragma once

namespace tessitor::sim {

/// The drive parameters the motor and its loops use, in drive units.
struct SimMotorParams {
    int nUnitMode = 3;            ///< 1 current, 2 velocity, 3 position
    double arKp[3] = {7.5, 0.33, 100};  ///< current [V/A], velocity [mA per count/s], position [1/s]
    double arKi[3] = {800, 100, 0};     ///< integral corners [1/s]
    double arFf[2] = {1, 0};            ///< velocity and acceleration feed-forward ratios
    double dPeakCurrent = 10;     ///< [A]
    double dContCurrent = 5;      ///< [A]
    double dSpeedLimit = 200000;  ///< [counts/s]
    double dAccel = 1e6;          ///< [counts/s^2]
    double dDecel = 1e6;
    double dStopDecel = 1e7;
    double dSpeed = 100000;       ///< profile speed of moves [counts/s]
    double dMaxVelError = 100000; ///< [counts/s]
    double dMaxPosError = 20000;  ///< [counts]
    double dTargetWindow = 20;    ///< [counts]
    double dTargetTime = 0.010;   ///< [s]
    double dResistance = 1.2;     ///< [ohm]
    double dInductance = 1.5e-3;  ///< [H]
    double dTorqueConstant = 0.12; ///< [Nm/A]
    double dInertia = 0.5e-4;     ///< [kg m^2]
    double dViscous = 1e-4;       ///< [Nm per rad/s]
    double dCoulomb = 0.01;       ///< [Nm]
    double dCountsPerRev = 4000;
    int nPolePairs = 4;
    double dBusVoltage = 48;      ///< [V]
};

/// Why the motor was switched off by itself (drive error numbers).
enum SimMotorFault {
    kFaultNone = 0,
    kFaultOverCurrent = 27,
    kFaultFollowingError = 29,
};

class CSimMotor {
public:
    void SetParams(const SimMotorParams& params);
    const SimMotorParams& Params() const { return m_Params; }

    /// Switches the bridge on (holding the present position) or off.
    void SetMotorOn(bool on);
    bool MotorOn() const { return m_bOn; }
    /// The latched fault (0 none); cleared by switching the motor on.
    int Fault() const { return m_nFault; }
    /// Sets the position counter (motor off).
    void SetPosition(double counts);

    /// Starts a jog at velocity (counts/s) with the profile's acceleration.
    void BeginJog(double velocity);
    /// Starts a point-to-point move to target (counts).
    void BeginMove(double target);
    /// Decelerates to standstill with the stop deceleration.
    void Stop();
    /// The current command of unit mode 1 [A].
    void SetTorqueCommand(double amps) { m_dTorqueCommand = amps; }
    /// The position a relative move starts from: the target of the running
    /// move, else the position command.
    double MoveBase() const;

    /// Advances motor and loops by dt seconds (one servo period).
    void Step(double dt);
    /// True when stepping changes nothing but the winding's cooling: motor
    /// off and at standstill.
    bool AtRest() const;
    /// Lets seconds pass at rest in one go (only when AtRest).
    void Rest(double seconds);
    /// True when the last step found the motor on, jogging at its velocity
    /// or holding still, with every loop settled and the current within both
    /// limits, so that further steps would only carry the positions on;
    /// cleared by anything that changes the motor.
    bool Cruising() const { return m_bCruising; }
    /// Lets steps servo periods of dt pass cruising in one go, as stepping
    /// would (only when Cruising).
    void Cruise(unsigned long long steps, double dt);

    double Position() const { return m_dPosition; }           ///< [counts]
    double Velocity() const { return m_dVelocity; }           ///< [counts/s]
    double PositionCommand() const { return m_dRefPosition; } ///< [counts]
    double ProfileVelocity() const { return m_dRefVelocity; } ///< [counts/s]
    double VelocityCommand() const { return m_dVelocityCommand; } ///< [counts/s]
    double CurrentCommand() const { return m_dCurrentCommand; }   ///< [A]
    double ActiveCurrent() const { return m_dCurrent; }       ///< [A]
    double PositionError() const { return m_dRefPosition - m_dPosition; }
    double Voltage() const { return m_dVoltage; }             ///< [V]
    double PhaseCurrent(int phase) const;                     ///< phase 0 (A) or 1 (B) [A]
    double BusVoltage() const;                                ///< [V]
    /// The profile generator is moving the command (jog, move or stop).
    bool MotionActive() const { return m_eProfile != Profile::kIdle; }
    /// Position mode, no motion, and within the target window long enough.
    bool InTarget() const;
    /// The current command was clipped by a limit in the last step.
    bool CurrentLimited() const { return m_bCurrentLimited; }

private:
    enum class Profile { kIdle, kJog, kMove, kStop };

    struct LoopState {
        double dVelocity, dCurrent, dVoltage, dVelocityCommand, dCurrentCommand, dPositionError;
    };
    LoopState Loops() const;
    bool SettledSince(const LoopState& before) const;
    void StepLoops(double dt);
    void StepProfile(double dt);
    void TripFault(int fault);
    double RadPerCount() const;

    SimMotorParams m_Params;
    bool m_bOn = false;
    int m_nFault = 0;

    // Plant state: angle in counts, velocity in counts/s, q-axis current.
    double m_dPosition = 0;
    double m_dVelocity = 0;
    double m_dCurrent = 0;
    double m_dVoltage = 0;

    // Profile generator.
    Profile m_eProfile = Profile::kIdle;
    double m_dRefPosition = 0;
    double m_dRefVelocity = 0;
    double m_dRefAccel = 0;
    double m_dJogVelocity = 0;
    double m_dTarget = 0;

    // Loops.
    double m_dTorqueCommand = 0;
    double m_dVelocityCommand = 0;
    double m_dCurrentCommand = 0;
    double m_dIntPosition = 0;
    double m_dIntVelocity = 0;
    double m_dIntCurrent = 0;
    double m_dHeat = 0;           ///< filtered square of the current [A^2]
    double m_dInTargetTime = 0;
    bool m_bCurrentLimited = false;
    bool m_bCruising = false;
    double m_dLastDt = 1;
};

} // namespace tessitor::sim
