#include "tests/support/terminalprocess.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/process.h"

namespace tessitor::test {

CTerminalProcess::CTerminalProcess(const std::vector<std::string>& args, const std::vector<std::string>& env,
                                   bool bStdoutToPipe)
{
    // Everything the child needs is built before the fork: only execve runs there.
    std::vector<std::string> argStrings = args, envStrings = EnvironmentWith(env);
    std::vector<char*> argv, envp;
    for (auto& a : argStrings)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& e : envStrings)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    int out[2] = {-1, -1};
    if (bStdoutToPipe && ::pipe2(out, O_CLOEXEC) != 0)
        return;
    m_nPid = ::forkpty(&m_hMaster, nullptr, nullptr, nullptr);
    if (m_nPid == 0) {
        if (out[1] >= 0)
            ::dup2(out[1], STDOUT_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    if (out[1] >= 0)
        ::close(out[1]);
    m_hStdout = out[0];
}

CTerminalProcess::~CTerminalProcess()
{
    if (m_nPid > 0) {
        ::kill(m_nPid, SIGKILL);
        ::waitpid(m_nPid, nullptr, 0);
    }
    if (m_hMaster >= 0)
        ::close(m_hMaster);
    if (m_hStdout >= 0)
        ::close(m_hStdout);
}

void CTerminalProcess::Type(const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(m_hMaster, bytes.data() + done, bytes.size() - done);
        if (n <= 0 && errno != EINTR)
            return;
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
}

// Reads what is there within timeoutMs into m_sShown and m_sStdout.
void CTerminalProcess::Drain(int timeoutMs)
{
    pollfd fds[2] = {{m_hMaster, POLLIN, 0}, {m_hStdout, POLLIN, 0}};
    if (::poll(fds, m_hStdout >= 0 ? 2 : 1, timeoutMs) <= 0)
        return;
    char chunk[4096];
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP)))
            continue;
        ssize_t n = ::read(fds[i].fd, chunk, sizeof chunk);
        if (n > 0)
            (i == 0 ? m_sShown : m_sStdout).append(chunk, static_cast<size_t>(n));
        else if (i == 1) {
            ::close(m_hStdout);
            m_hStdout = -1;
        }
    }
}

std::string CTerminalProcess::ReadUntil(const std::string& wanted)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (m_sShown.find(wanted) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        size_t before = m_sShown.size();
        Drain(100);
        siginfo_t ended{};
        if (before == m_sShown.size()
            && (::waitid(P_PID, static_cast<id_t>(m_nPid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0
                || ended.si_pid != 0))
            break; // ended, or gone: nothing more will come
    }
    size_t found = m_sShown.find(wanted);
    size_t end = found == std::string::npos ? m_sShown.size() : found + wanted.size();
    std::string shown = m_sShown.substr(0, end);
    m_sShown.erase(0, end);
    return shown;
}

int CTerminalProcess::Wait()
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    int status = 0;
    while (::waitpid(m_nPid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(m_nPid, SIGKILL);
            ::waitpid(m_nPid, nullptr, 0);
            m_nPid = -1;
            return -1;
        }
        Drain(50); // a program blocked on a full terminal would never end
    }
    m_nPid = -1;
    for (int tries = 0; m_hStdout >= 0 && tries < 100; ++tries)
        Drain(100);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void CTerminalProcess::Signal(int signal)
{
    if (m_nPid > 0)
        ::kill(m_nPid, signal);
}

} // namespace tessitor::test
