// Time as the virtual drive sees it. The drive advances its motor and
// recorder to "now" on every command; tests install a manual clock so that
// the motion and the recordings they check do not depend on the machine.
#pragma once

#include <chrono>
#include <mutex>

namespace tessitor::sim {

class CSimClock {
public:
    virtual ~CSimClock() = default;
    /// Seconds since an arbitrary start; never decreases.
    virtual double Now() = 0;
};

/// The machine's monotonic clock.
class CSimSteadyClock : public CSimClock {
public:
    CSimSteadyClock() : m_tStart(std::chrono::steady_clock::now()) {}
    double Now() override
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_tStart).count();
    }

private:
    std::chrono::steady_clock::time_point m_tStart;
};

/// A clock that moves only when told to; thread-safe.
class CSimManualClock : public CSimClock {
public:
    double Now() override
    {
        std::lock_guard lock(m_csTime);
        return m_dNow;
    }
    /// Moves the clock forward by seconds (negative values are ignored).
    void Advance(double seconds)
    {
        std::lock_guard lock(m_csTime);
        if (seconds > 0)
            m_dNow += seconds;
    }

private:
    std::mutex m_csTime;
    double m_dNow = 0;
};

} // namespace tessitor::sim
