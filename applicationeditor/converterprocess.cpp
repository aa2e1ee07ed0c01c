#include "applicationeditor/converterprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "core/settings.h"
#include "core/trace.h"

extern char** environ;

namespace tessitor {

namespace {

// How often the wait for the converter looks at the abort flag [ms].
constexpr int kAbortPollMs = 100;
// The longest report taken; a converted path is far shorter.
constexpr std::size_t kMaxReportBytes = 64 * 1024;

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

// The arguments after the program, by the quoting rules of the original platform.
void SplitArguments(const std::string& text, std::size_t at, std::vector<std::string>& args)
{
    const std::size_t n = text.size();
    for (;;) {
        while (at < n && IsBlank(text[at]))
            ++at;
        if (at >= n)
            return;
        std::string arg;
        bool quoted = false;
        while (at < n && (quoted || !IsBlank(text[at]))) {
            std::size_t slashes = 0;
            while (at < n && text[at] == '\\') {
                ++slashes;
                ++at;
            }
            if (at < n && text[at] == '"') {
                arg.append(slashes / 2, '\\');
                if (slashes % 2) {
                    arg += '"';
                } else if (quoted && at + 1 < n && text[at + 1] == '"') {
                    arg += '"'; // "" inside quotes stands for one quote
                    ++at;
                } else {
                    quoted = !quoted;
                }
                ++at;
            } else {
                arg.append(slashes, '\\');
                if (at < n && (quoted || !IsBlank(text[at])))
                    arg += text[at++];
            }
        }
        args.push_back(std::move(arg));
    }
}

} // namespace

CConverterProcess::~CConverterProcess()
{
    Stop();
    if (m_hRead >= 0)
        ::close(m_hRead);
    if (m_hWrite >= 0)
        ::close(m_hWrite);
}

int CConverterProcess::OpenReportPipe()
{
    int fds[2];
    // Close-on-exec on both ends: a program another thread starts meanwhile
    // must not keep the write end open; Start hands it to the converter alone.
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        m_sError = std::string("pipe: ") + std::strerror(errno);
        return -1;
    }
    m_hRead = fds[0];
    m_hWrite = fds[1];
    return m_hWrite;
}

std::vector<std::string> CConverterProcess::SplitCommandLine(const std::string& commandLine, const std::string& program)
{
    std::vector<std::string> args;
    std::size_t at = 0;
    if (!program.empty() && commandLine.compare(0, program.size(), program) == 0
        && (commandLine.size() == program.size() || IsBlank(commandLine[program.size()]))) {
        args.push_back(program);
        at = program.size();
    } else {
        while (at < commandLine.size() && IsBlank(commandLine[at]))
            ++at;
        if (at >= commandLine.size())
            return args;
        std::size_t end;
        if (commandLine[at] == '"') {
            end = commandLine.find('"', at + 1);
            args.push_back(commandLine.substr(at + 1, end == std::string::npos ? end : end - at - 1));
            at = end == std::string::npos ? commandLine.size() : end + 1;
        } else {
            end = at;
            while (end < commandLine.size() && !IsBlank(commandLine[end]))
                ++end;
            args.push_back(commandLine.substr(at, end - at));
            at = end;
        }
    }
    SplitArguments(commandLine, at, args);
    return args;
}

bool CConverterProcess::Start(const std::string& program, const std::string& commandLine)
{
    std::vector<std::string> args = SplitCommandLine(commandLine, program);
    if (args.empty() || program.empty()) {
        m_sError = "no converter program";
        return false;
    }
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    // dup2 onto itself clears close-on-exec in the child only.
    if (m_hWrite >= 0)
        ::posix_spawn_file_actions_adddup2(&actions, m_hWrite, m_hWrite);
    bool search = program.find('/') == std::string::npos;
    int error = search ? ::posix_spawnp(&m_nPid, program.c_str(), &actions, nullptr, argv.data(), environ)
                       : ::posix_spawn(&m_nPid, program.c_str(), &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        m_nPid = -1;
        m_sError = program + ": " + std::strerror(error);
        Trace::Printf("CConverterProcess::Start: %s\n", m_sError.c_str());
        return false;
    }
    // Only the converter's copy may keep the pipe open now.
    if (m_hWrite >= 0) {
        ::close(m_hWrite);
        m_hWrite = -1;
    }
    return true;
}

bool CConverterProcess::WaitReport(std::string& report, const std::atomic<std::int32_t>* pAbort)
{
    report.clear();
    while (m_hRead >= 0) {
        if (pAbort && pAbort->load() != 0) {
            Stop();
            return false;
        }
        pollfd p{m_hRead, POLLIN, 0};
        int ready = ::poll(&p, 1, kAbortPollMs);
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0)
            continue;
        char buffer[4096];
        ssize_t got = ::read(m_hRead, buffer, sizeof buffer);
        if (got < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (got <= 0)
            break;
        if (report.size() < kMaxReportBytes)
            report.append(buffer, static_cast<std::size_t>(got));
    }
    if (m_hRead >= 0) {
        ::close(m_hRead);
        m_hRead = -1;
    }
    // The converter ends right after its report; reap it.
    if (m_nPid > 0) {
        int status = 0;
        while (::waitpid(m_nPid, &status, 0) < 0 && errno == EINTR) {
        }
        m_nPid = -1;
    }
    while (!report.empty() && (report.back() == '\n' || report.back() == '\r' || report.back() == '\0'))
        report.pop_back();
    return true;
}

void CConverterProcess::Stop()
{
    if (m_nPid <= 0)
        return;
    ::kill(m_nPid, SIGTERM);
    int status = 0;
    while (::waitpid(m_nPid, &status, 0) < 0 && errno == EINTR) {
    }
    m_nPid = -1;
}

std::string CConverterProcess::DefaultProgram()
{
    std::string configured = Settings::User().GetString(kToolsSection, kConverterKey);
    if (!configured.empty())
        return configured;
    std::error_code error;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        std::filesystem::path beside = self.parent_path() / kConverterProgram;
        if (::access(beside.c_str(), X_OK) == 0)
            return beside.string();
    }
    return kConverterProgram;
}

} // namespace tessitor
