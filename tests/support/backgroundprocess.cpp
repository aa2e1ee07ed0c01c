#include "tests/support/backgroundprocess.h"

#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessitor::test {

CBackgroundProcess::CBackgroundProcess(const std::vector<std::string>& args, const std::vector<std::string>& env)
{
    std::vector<std::string> envStrings = EnvironmentWith(env);
    std::vector<char*> envp;
    for (auto& e : envStrings)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<std::string> copy = args;
    std::vector<char*> argv;
    for (auto& a : copy)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (::posix_spawn(&m_nPid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0)
        m_nPid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    m_hOut = out[0];
}

CBackgroundProcess::~CBackgroundProcess()
{
    if (m_nPid > 0) {
        ::kill(m_nPid, SIGKILL);
        ::waitpid(m_nPid, nullptr, 0);
    }
    if (m_hOut >= 0)
        ::close(m_hOut);
}

std::string CBackgroundProcess::FirstLine()
{
    std::string line;
    char c = 0;
    while (line.size() < 4096) {
        pollfd p{m_hOut, POLLIN, 0};
        if (::poll(&p, 1, 20000) <= 0 || ::read(m_hOut, &c, 1) != 1 || c == '\n')
            break;
        line += c;
    }
    return line;
}

int CBackgroundProcess::Stop(int signal)
{
    if (m_nPid <= 0)
        return -1;
    ::kill(m_nPid, signal);
    int status = 0;
    ::waitpid(m_nPid, &status, 0);
    m_nPid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace tessitor::test
