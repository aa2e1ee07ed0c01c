#include "tests/support/process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tessitor::test {

std::string TessitorPath()
{
    const char* path = std::getenv("TESSITOR_BIN");
    return path && *path ? path : TESSITOR_TEST_BIN;
}

std::vector<std::string> EnvironmentWith(const std::vector<std::string>& extra)
{
    // An entry of extra replaces this process's entry of the same name:
    // getenv() would find the first of two.
    auto named = [&extra](const std::string& entry) {
        std::string prefix = entry.substr(0, entry.find('=') + 1);
        return std::any_of(extra.begin(), extra.end(), [&prefix](const std::string& e) { return e.rfind(prefix, 0) == 0; });
    };
    std::vector<std::string> entries;
    for (char** e = environ; *e; ++e)
        if (!named(*e))
            entries.emplace_back(*e);
    entries.insert(entries.end(), extra.begin(), extra.end());
    return entries;
}

ProcessResult RunProcess(const std::vector<std::string>& args, const std::vector<std::string>& env,
                         const std::string& input, int timeoutMs, const std::vector<int>& closedFds)
{
    ProcessResult result;
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC))
        return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    for (int fd : closedFds)
        posix_spawn_file_actions_addclose(&actions, fd);

    std::vector<char*> argv;
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> envStrings = EnvironmentWith(env);
    std::vector<char*> envp;
    for (auto& e : envStrings)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    pid_t pid = -1;
    int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    if (spawned != 0) {
        ::close(in[1]);
        ::close(out[0]);
        ::close(err[0]);
        return result;
    }
    std::signal(SIGPIPE, SIG_IGN);
    [[maybe_unused]] ssize_t written = ::write(in[1], input.data(), input.size());
    ::close(in[1]);

    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    bool outOpen = true, errOpen = true, killed = false;
    char chunk[4096];
    while (outOpen || errOpen) {
        int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
        if (left <= 0) {
            ::kill(pid, SIGKILL);
            killed = true;
            break;
        }
        pollfd fds[2] = {{outOpen ? out[0] : -1, POLLIN, 0}, {errOpen ? err[0] : -1, POLLIN, 0}};
        if (::poll(fds, 2, left) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP)))
                continue;
            ssize_t n = ::read(fds[i].fd, chunk, sizeof chunk);
            if (n > 0)
                (i == 0 ? result.sOut : result.sErr).append(chunk, static_cast<size_t>(n));
            else
                (i == 0 ? outOpen : errOpen) = false;
        }
    }
    ::close(out[0]);
    ::close(err[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.nStatus = (!killed && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
    return result;
}

} // namespace tessitor::test
