// A drive's recorder on a scripted pseudo-terminal (CScriptedPeer), for the
// recorder's tests through the real serial link and the command line.
#pragma once

#include <array>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "core/strformat.h"
#include "recorder/recorder.h"
#include "tests/support/scriptedpeer.h"

namespace tessitor::test {

// A drive's recorder as far as the client can see it: slot codes, a queue of
// "SR" answers (the last one repeats), "BH" answers made from the window
// "RP[8]".."RP[9]" (sample i of slot s is i + 1000 s), and refusals.
class CScriptedRecorderDrive {
public:
    std::string Answer(const std::string& line)
    {
        std::lock_guard lock(m_cs);
        const std::string command = line.substr(0, line.size() - 1);
        if (command == "VR")
            return CScriptedPeer::Answer(line, sVersion);
        if (auto refusal = m_mapRefusals.find(command); refusal != m_mapRefusals.end())
            return CScriptedPeer::Refusal(line, refusal->second);
        int n = 0, value = 0;
        if (std::sscanf(command.c_str(), "RV[%d]", &n) == 1 && command.find('=') == std::string::npos)
            return CScriptedPeer::Answer(line, std::to_string(arSlotCodes[n]));
        if (std::sscanf(command.c_str(), "RP[8]=%d", &value) == 1)
            m_nFirst = value;
        if (std::sscanf(command.c_str(), "RP[9]=%d", &value) == 1)
            m_nLast = value;
        if (command == "SR") {
            std::string sr = arSr.front();
            if (arSr.size() > 1)
                arSr.pop_front();
            return CScriptedPeer::Answer(line, sr);
        }
        if (command == "RP[12]")
            return CScriptedPeer::Answer(line, "250");
        if (std::sscanf(command.c_str(), "BH=%d", &value) == 1) {
            if (nShortBh > 0) {
                --nShortBh;
                return CScriptedPeer::Answer(line, std::string(19, '0'));
            }
            int slot = __builtin_ctz(static_cast<unsigned>(value));
            std::string text = StrFormat("0108%04X0001%08X", m_nLast - m_nFirst + 1, 0x3F800000u);
            for (int i = m_nFirst; i <= m_nLast; ++i)
                text += StrFormat("%08X", static_cast<unsigned>(i + 1000 * slot));
            return CScriptedPeer::Answer(line, text);
        }
        return CScriptedPeer::Answer(line, "");
    }
    void Refuse(const std::string& command, unsigned char error)
    {
        std::lock_guard lock(m_cs);
        m_mapRefusals[command] = error;
    }
    /// The "SR" answers from now on.
    void SetSr(std::deque<std::string> answers)
    {
        std::lock_guard lock(m_cs);
        arSr = std::move(answers);
    }
    /// The next count "BH" answers are 19 characters long.
    void SetShortBh(int count)
    {
        std::lock_guard lock(m_cs);
        nShortBh = count;
    }
    void SetVersion(std::string version)
    {
        std::lock_guard lock(m_cs);
        sVersion = std::move(version);
    }

private:
    std::mutex m_cs;
    // Slot 0 Position, 1 Velocity, 7 Digital Inputs; the rest unmapped.
    std::array<int, CRecorder::kSlots> arSlotCodes{1, 2, -1, -1, -1, -1, -1, 4, -1, -1, -1, -1, -1, -1, -1, -1};
    std::deque<std::string> arSr{"0"};
    std::string sVersion = "Talvina 2.1.0.0";
    int nShortBh = 0;
    std::map<std::string, unsigned char> m_mapRefusals;
    int m_nFirst = 0;
    int m_nLast = 0;
};

} // namespace tessitor::test
