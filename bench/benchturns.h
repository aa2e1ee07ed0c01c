// Measuring a client against its floor in the same run: batches of
// commands through each in turn, so the machine's changing load falls on
// both alike, with the wall and process CPU time of each.
//
//   CTurns link, floor;
//   for (auto _ : state) { floor.Batch(200, sendFloor); link.Batch(200, sendLink); }
//   state.counters["throughput_ratio"] = link.Rate() / floor.Rate();
#pragma once

#include <time.h>

#include <chrono>
#include <cstdint>

namespace tessitor::bench {

class CTurns {
public:
    /// Runs count commands through send() (true = the command succeeded),
    /// adding their wall and CPU time; false at the first that fails.
    template <class Send>
    bool Batch(int count, Send send)
    {
        const double wall = Wall();
        const double cpu = Cpu();
        for (int i = 0; i < count; ++i)
            if (!send())
                return false;
        m_dCpu += Cpu() - cpu;
        m_dWall += Wall() - wall;
        m_nCommands += count;
        return true;
    }
    /// Commands per second of wall time.
    double Rate() const { return m_dWall > 0 ? static_cast<double>(m_nCommands) / m_dWall : 0; }
    /// Process CPU time per command, in microseconds.
    double CpuMicroseconds() const { return m_nCommands ? m_dCpu / static_cast<double>(m_nCommands) * 1e6 : 0; }
    std::int64_t Commands() const { return m_nCommands; }

private:
    static double Wall()
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    }
    static double Cpu()
    {
        timespec now{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    }

    double m_dWall = 0;
    double m_dCpu = 0;
    std::int64_t m_nCommands = 0;
};

} // namespace tessitor::bench
