#include "sim/simmotor.h"

#include <algorithm>
#include <cmath>

namespace tessitor::sim {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Velocity (rad/s) below which Coulomb friction fades out, so that the
// friction model stays smooth through standstill.
constexpr double kStictionVelocity = 0.5;
// Thermal time constant of the continuous current limit [s].
constexpr double kHeatTimeConstant = 2.0;

double Clamp(double value, double limit)
{
    return std::clamp(value, -limit, limit);
}

} // namespace

void CSimMotor::SetParams(const SimMotorParams& params)
{
    m_Params = params;
    m_bCruising = false;
}

double CSimMotor::RadPerCount() const
{
    return 2 * kPi / m_Params.dCountsPerRev;
}

void CSimMotor::SetMotorOn(bool on)
{
    m_bCruising = false;
    if (on && !m_bOn) {
        m_nFault = kFaultNone;
        m_dRefPosition = m_dPosition;
        m_dRefVelocity = 0;
        m_dRefAccel = 0;
        m_eProfile = Profile::kIdle;
        m_dIntPosition = m_dIntVelocity = m_dIntCurrent = 0;
        m_dInTargetTime = 0;
    }
    if (!on) {
        m_eProfile = Profile::kIdle;
        m_dCurrent = m_dVoltage = m_dCurrentCommand = m_dVelocityCommand = 0;
        m_dRefVelocity = m_dRefAccel = 0;
        m_dTorqueCommand = 0;
        m_bCurrentLimited = false;
    }
    m_bOn = on;
}

void CSimMotor::SetPosition(double counts)
{
    m_bCruising = false;
    m_dPosition = counts;
    m_dRefPosition = counts;
}

void CSimMotor::BeginJog(double velocity)
{
    m_bCruising = false;
    m_dJogVelocity = Clamp(velocity, m_Params.dSpeedLimit);
    m_eProfile = Profile::kJog;
}

void CSimMotor::BeginMove(double target)
{
    m_bCruising = false;
    m_dTarget = target;
    m_eProfile = Profile::kMove;
}

void CSimMotor::Stop()
{
    m_bCruising = false;
    if (m_eProfile != Profile::kIdle)
        m_eProfile = Profile::kStop;
}

double CSimMotor::MoveBase() const
{
    return m_eProfile == Profile::kMove ? m_dTarget : std::round(m_dRefPosition);
}

void CSimMotor::StepProfile(double dt)
{
    double before = m_dRefVelocity;
    switch (m_eProfile) {
    case Profile::kIdle:
        m_dRefVelocity = 0;
        break;
    case Profile::kJog: {
        double target = m_dJogVelocity;
        bool speedingUp = std::abs(target) > std::abs(m_dRefVelocity) && target * m_dRefVelocity >= 0;
        double rate = speedingUp ? m_Params.dAccel : m_Params.dDecel;
        m_dRefVelocity += std::clamp(target - m_dRefVelocity, -rate * dt, rate * dt);
        m_dRefPosition += m_dRefVelocity * dt;
        if (target == 0 && m_dRefVelocity == 0)
            m_eProfile = Profile::kIdle;
        break;
    }
    case Profile::kMove: {
        double distance = m_dTarget - m_dRefPosition;
        double direction = distance >= 0 ? 1.0 : -1.0;
        double along = m_dRefVelocity * direction;
        double next;
        if (along < 0) {
            next = std::min(0.0, along + m_Params.dDecel * dt); // turn round first
        } else {
            double braking = std::sqrt(2 * m_Params.dDecel * std::abs(distance));
            next = std::min({along + m_Params.dAccel * dt, m_Params.dSpeed, m_Params.dSpeedLimit, braking});
        }
        if (along >= 0 && std::abs(distance) <= std::max(next, 0.0) * dt + 1e-9) {
            m_dRefPosition = m_dTarget;
            m_dRefVelocity = 0;
            m_eProfile = Profile::kIdle;
        } else {
            m_dRefVelocity = next * direction;
            m_dRefPosition += m_dRefVelocity * dt;
        }
        break;
    }
    case Profile::kStop: {
        double rate = m_Params.dStopDecel * dt;
        m_dRefVelocity -= std::clamp(m_dRefVelocity, -rate, rate);
        m_dRefPosition += m_dRefVelocity * dt;
        if (m_dRefVelocity == 0)
            m_eProfile = Profile::kIdle;
        break;
    }
    }
    m_dRefAccel = (m_dRefVelocity - before) / dt;
}

void CSimMotor::TripFault(int fault)
{
    SetMotorOn(false);
    m_nFault = fault;
}

CSimMotor::LoopState CSimMotor::Loops() const
{
    return {m_dVelocity, m_dCurrent, m_dVoltage, m_dVelocityCommand, m_dCurrentCommand, m_dRefPosition - m_dPosition};
}

bool CSimMotor::SettledSince(const LoopState& before) const
{
    const SimMotorParams& p = m_Params;
    // A jog at its velocity, or holding still with no motion.
    bool steady = m_eProfile == Profile::kJog ? m_dRefVelocity == m_dJogVelocity : m_eProfile == Profile::kIdle;
    if (!m_bOn || !steady || m_dRefAccel != 0 || m_bCurrentLimited || p.nUnitMode < 2)
        return false;
    // Below both limits, so that the thermal filter cannot make either one clip.
    if (std::abs(m_dCurrentCommand) >= std::min(p.dContCurrent, p.dPeakCurrent))
        return false;
    // Positions are large numbers: their rounding grows with the distance
    // travelled, a velocity moves them only in steps of that rounding, and
    // the loops pass it on.
    double noise = 8 * std::max(std::abs(m_dPosition), std::abs(m_dRefPosition)) * 0x1p-52;
    double velocityNoise = 1e-6 + noise / m_dLastDt + (p.nUnitMode == 3 ? p.arKp[2] * noise : 0);
    double currentNoise = 1e-9 + p.arKp[1] / 1000.0 * velocityNoise;
    LoopState now = Loops();
    auto still = [](double a, double b, double tolerance) { return std::abs(a - b) <= tolerance; };
    // A loop with integral action settles with no error left.
    double velocityError = m_dVelocityCommand - m_dVelocity;
    double currentError = m_dCurrentCommand - m_dCurrent;
    return still(now.dPositionError, before.dPositionError, 1e-9 + noise)
           && still(now.dVelocity, before.dVelocity, velocityNoise)
           && still(now.dVelocityCommand, before.dVelocityCommand, velocityNoise)
           && still(now.dCurrent, before.dCurrent, currentNoise)
           && still(now.dCurrentCommand, before.dCurrentCommand, currentNoise)
           && still(now.dVoltage, before.dVoltage, 1e-7 + p.arKp[0] * currentNoise)
           && (p.arKi[1] == 0 || std::abs(velocityError) <= velocityNoise)
           && (p.arKi[0] == 0 || std::abs(currentError) <= currentNoise)
           && (p.nUnitMode != 3 || p.arKi[2] == 0 || std::abs(now.dPositionError) <= 1e-9 + noise);
}

void CSimMotor::Cruise(unsigned long long steps, double dt)
{
    const SimMotorParams& p = m_Params;
    double seconds = static_cast<double>(steps) * dt;
    double positionError = m_dRefPosition - m_dPosition;
    m_dRefPosition += m_dRefVelocity * seconds;
    // In position mode the loop holds the error; in velocity mode the
    // position follows the velocity the loop settled at.
    m_dPosition = p.nUnitMode == 3 ? m_dRefPosition - positionError : m_dPosition + m_dVelocity * seconds;
    m_dIntPosition += positionError * seconds;
    m_dIntVelocity += (m_dVelocityCommand - m_dVelocity) * seconds;
    m_dIntCurrent += (m_dCurrentCommand - m_dCurrent) * seconds;
    if (p.nUnitMode == 3 && m_eProfile == Profile::kIdle && std::abs(positionError) <= p.dTargetWindow)
        m_dInTargetTime += seconds;
    // The thermal filter in closed form: each step takes dt / tau of the gap.
    double square = m_dCurrent * m_dCurrent;
    m_dHeat = square + (m_dHeat - square) * std::pow(1 - dt / kHeatTimeConstant, static_cast<double>(steps));
}

void CSimMotor::Step(double dt)
{
    const LoopState before = Loops();
    m_dLastDt = dt;
    StepLoops(dt);
    m_bCruising = SettledSince(before);
}

void CSimMotor::StepLoops(double dt)
{
    const SimMotorParams& p = m_Params;
    double radPerCount = RadPerCount();
    double omega = m_dVelocity * radPerCount;

    if (m_bOn) {
        StepProfile(dt);
        double velocityError = 0;
        if (p.nUnitMode >= 2) {
            if (p.nUnitMode == 3) {
                double positionError = m_dRefPosition - m_dPosition;
                double command = p.arKp[2] * (positionError + p.arKi[2] * m_dIntPosition) + p.arFf[0] * m_dRefVelocity;
                m_dVelocityCommand = Clamp(command, p.dSpeedLimit);
                if (m_dVelocityCommand == command)
                    m_dIntPosition += positionError * dt;
                if (std::abs(positionError) > p.dMaxPosError)
                    return TripFault(kFaultFollowingError);
            } else {
                m_dVelocityCommand = m_dRefVelocity;
            }
            velocityError = m_dVelocityCommand - m_dVelocity;
            if (std::abs(velocityError) > p.dMaxVelError)
                return TripFault(kFaultFollowingError);
            double feedForward = p.arFf[1] * p.dInertia * m_dRefAccel * radPerCount / p.dTorqueConstant;
            m_dCurrentCommand = p.arKp[1] / 1000.0 * (velocityError + p.arKi[1] * m_dIntVelocity) + feedForward;
        } else {
            m_dVelocityCommand = 0;
            m_dCurrentCommand = m_dTorqueCommand;
        }

        // Peak limit always; the continuous limit once the winding is "warm".
        double limit = m_dHeat > p.dContCurrent * p.dContCurrent ? p.dContCurrent : p.dPeakCurrent;
        double limited = Clamp(m_dCurrentCommand, limit);
        m_bCurrentLimited = limited != m_dCurrentCommand;
        // Integrate the velocity error only while that does not wind up a clipped command.
        if (p.nUnitMode >= 2 && (!m_bCurrentLimited || velocityError * m_dCurrentCommand < 0))
            m_dIntVelocity += velocityError * dt;
        m_dCurrentCommand = limited;

        double currentError = m_dCurrentCommand - m_dCurrent;
        double voltage = p.arKp[0] * (currentError + p.arKi[0] * m_dIntCurrent);
        m_dVoltage = Clamp(voltage, BusVoltage());
        if (m_dVoltage == voltage || currentError * voltage < 0)
            m_dIntCurrent += currentError * dt;

        // The winding, solved exactly over the period for constant voltage and speed.
        double decay = std::exp(-p.dResistance * dt / p.dInductance);
        double backEmf = p.dTorqueConstant * omega;
        m_dCurrent = m_dCurrent * decay + (1 - decay) * (m_dVoltage - backEmf) / p.dResistance;
        m_dHeat += (m_dCurrent * m_dCurrent - m_dHeat) * dt / kHeatTimeConstant;
        if (std::abs(m_dCurrent) > 1.5 * p.dPeakCurrent + 1)
            return TripFault(kFaultOverCurrent);
    } else {
        m_dHeat -= m_dHeat * dt / kHeatTimeConstant;
    }

    double torque = p.dTorqueConstant * m_dCurrent - p.dViscous * omega
                    - p.dCoulomb * std::tanh(omega / kStictionVelocity);
    omega += torque / p.dInertia * dt;
    if (!m_bOn && std::abs(omega) < 1e-6)
        omega = 0;
    m_dVelocity = omega / radPerCount;
    m_dPosition += m_dVelocity * dt;
    if (!m_bOn)
        m_dRefPosition = m_dPosition;

    if (m_bOn && p.nUnitMode == 3 && m_eProfile == Profile::kIdle
        && std::abs(m_dRefPosition - m_dPosition) <= p.dTargetWindow)
        m_dInTargetTime += dt;
    else
        m_dInTargetTime = 0;
}

bool CSimMotor::AtRest() const
{
    return !m_bOn && m_dVelocity == 0;
}

void CSimMotor::Rest(double seconds)
{
    m_dHeat *= std::exp(-seconds / kHeatTimeConstant);
}

bool CSimMotor::InTarget() const
{
    return m_bOn && m_Params.nUnitMode == 3 && m_eProfile == Profile::kIdle
           && m_dInTargetTime >= m_Params.dTargetTime;
}

double CSimMotor::PhaseCurrent(int phase) const
{
    double electrical = m_dPosition * RadPerCount() * m_Params.nPolePairs;
    double shift = phase == 0 ? 0 : 2 * kPi / 3;
    return -m_dCurrent * std::sin(electrical - shift);
}

double CSimMotor::BusVoltage() const
{
    // A small sag under load, as a real supply shows.
    return m_Params.dBusVoltage - 0.1 * std::abs(m_dCurrent);
}

} // namespace tessitor::sim
