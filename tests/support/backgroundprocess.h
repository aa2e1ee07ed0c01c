// A program running in the background for end-to-end tests (`tessitor sim`
// serving a drive): its first line of stdout, and a signal to stop it.
#pragma once

#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tessitor::test {

class CBackgroundProcess {
public:
    /// Starts args[0] with args and extra environment; stdout is kept for FirstLine.
    explicit CBackgroundProcess(const std::vector<std::string>& args, const std::vector<std::string>& env = {});
    /// Kills the program if it still runs.
    ~CBackgroundProcess();
    CBackgroundProcess(const CBackgroundProcess&) = delete;
    CBackgroundProcess& operator=(const CBackgroundProcess&) = delete;

    /// The first line of stdout without its newline; "" when none came in 20 s.
    std::string FirstLine();
    /// The process id (-1 when it could not be started or was stopped).
    pid_t Pid() const { return m_nPid; }
    /// Sends signal, waits, and returns the exit status (-1 when it did not exit normally).
    int Stop(int signal = SIGINT);

private:
    pid_t m_nPid = -1;
    int m_hOut = -1;
};

} // namespace tessitor::test
