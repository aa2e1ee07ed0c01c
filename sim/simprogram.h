// The virtual drive's user program memory: lines arrive one "DL" line at a
// time, "LS" lists them, "CC" checks them, "XQ" runs them, "HX" halts.
// The language is small: drive commands, "##NAME" labels, "GO ##NAME",
// "WT=ms", "EN", and comment lines starting with "'".
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tessitor::sim {

class CSimProgram {
public:
    /// Bytes of program text the memory holds (the listing must fit one reply).
    static constexpr std::size_t kCapacity = 8000;
    /// Checks or runs one drive command of a program line; returns 0 or the drive error.
    using CommandFn = std::function<int(const std::string&)>;

    /// Appends a line; returns 0 or the drive error (11 running, 14 bad line, 15 full).
    int AddLine(const std::string& line);
    /// Erases the program; returns 0 or 11 while it runs.
    int Clear();
    /// The program, lines separated by LF.
    std::string Listing() const;
    std::size_t LineCount() const { return m_arLines.size(); }

    /// Checks every line; check tells whether a drive command is valid.
    /// Returns 0 or the drive error (14 bad line, 16 unknown label, 11 running).
    int Compile(const CommandFn& check);
    bool Compiled() const { return m_bCompiled; }
    /// The 1-based line of the last compile or run error (0 none).
    int ErrorLine() const { return m_nErrorLine; }

    /// Starts at the first line; returns 0 or the drive error (11 running, 12 not compiled).
    int Run();
    void Halt() { m_bRunning = false; }
    bool Running() const { return m_bRunning; }
    /// Advances a running program by one servo period of dt seconds: at most
    /// one line runs. A failing command stops the program; its error is returned.
    int Tick(double dt, const CommandFn& execute);

private:
    int FindLabel(const std::string& label) const;

    std::vector<std::string> m_arLines;
    std::size_t m_nBytes = 0;
    bool m_bCompiled = false;
    bool m_bRunning = false;
    std::size_t m_nNext = 0;
    double m_dWait = 0;
    int m_nErrorLine = 0;
};

} // namespace tessitor::sim
