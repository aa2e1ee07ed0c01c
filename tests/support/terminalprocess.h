// A program run on a pseudo-terminal for end-to-end tests, as a person at
// a terminal runs it: keys in, what the terminal shows out. stdout may go
// to a pipe instead, to tell what reaches stdout from what the terminal
// shows on stderr.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace tessitor::test {

class CTerminalProcess {
public:
    /// Starts args[0] with args and extra environment on a new terminal
    /// (stdin and stderr; stdout too unless bStdoutToPipe).
    CTerminalProcess(const std::vector<std::string>& args, const std::vector<std::string>& env,
                     bool bStdoutToPipe = false);
    /// Kills the program if it still runs.
    ~CTerminalProcess();
    CTerminalProcess(const CTerminalProcess&) = delete;
    CTerminalProcess& operator=(const CTerminalProcess&) = delete;

    /// Types bytes at the terminal.
    void Type(const std::string& bytes);
    /// Reads what the terminal shows until it holds wanted (20 s at most);
    /// returns what was shown since the last call, up to and including
    /// wanted (everything, when wanted never came).
    std::string ReadUntil(const std::string& wanted);
    /// Waits for the program to end (60 s at most, then kills it) and
    /// returns its exit status, 128 + N for signal N, -1 when killed.
    int Wait();
    /// Sends signal to the program.
    void Signal(int signal);
    /// What reached the stdout pipe (after Wait).
    const std::string& Stdout() const { return m_sStdout; }

private:
    void Drain(int timeoutMs);

    pid_t m_nPid = -1;
    int m_hMaster = -1;
    int m_hStdout = -1;
    std::string m_sShown;
    std::string m_sStdout;
};

} // namespace tessitor::test
