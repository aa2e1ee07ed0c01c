#include "core/atomicfile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "core/strformat.h"

namespace tessitor {

namespace {

namespace fs = std::filesystem;

// Links are followed so that a link stays a link and the file it names gets
// the new contents.
std::string FollowLinks(const std::string& name)
{
    fs::path path(name);
    std::error_code error;
    for (int hops = 0; hops < 40 && fs::is_symlink(path, error); ++hops) {
        fs::path link = fs::read_symlink(path, error);
        if (error)
            break;
        path = link.is_absolute() ? link : path.parent_path() / link;
    }
    return path.string();
}

std::string FolderOf(const std::string& path)
{
    fs::path parent = fs::path(path).parent_path();
    return parent.empty() ? "." : parent.string();
}

constexpr char kTempSuffix[] = ".tmp";

// ".<file>.<pid>.<n>.tmp": a run killed between naming its file and the
// rename leaves it behind, and a later save tells by the pid that nobody
// is writing it any more.
std::string TempName(const std::string& file, unsigned counter)
{
    return StrFormat(".%s.%d.%u%s", file.c_str(), static_cast<int>(::getpid()), counter, kTempSuffix);
}

void RemoveStaleTemps(const std::string& folder, const std::string& file)
{
    DIR* dir = ::opendir(folder.c_str());
    if (!dir)
        return;
    const std::string prefix = "." + file + ".";
    while (const dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (!name.starts_with(prefix) || !name.ends_with(kTempSuffix))
            continue;
        std::string middle = name.substr(prefix.size(), name.size() - prefix.size() - std::strlen(kTempSuffix));
        std::size_t dot = middle.find('.');
        std::string pid = middle.substr(0, dot);
        if (dot == std::string::npos || pid.empty() || pid.size() > 9
            || middle.find_first_not_of("0123456789.") != std::string::npos)
            continue;
        if (::kill(static_cast<pid_t>(std::stol(pid)), 0) != 0 && errno == ESRCH)
            ::unlinkat(::dirfd(dir), name.c_str(), 0);
    }
    ::closedir(dir);
}

} // namespace

CAtomicFile::CAtomicFile(const std::string& path) : m_sTarget(FollowLinks(path)) {}

CAtomicFile::~CAtomicFile()
{
    if (m_hFile >= 0)
        ::close(m_hFile);
    if (!m_sTemp.empty() && !m_bCommitted)
        ::unlink(m_sTemp.c_str());
}

bool CAtomicFile::IsReadOnly() const
{
    struct stat st {};
    if (::stat(m_sTarget.c_str(), &st) != 0)
        return false;
    // access() lets root through, so the mode bits are asked as well.
    return (st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 || ::access(m_sTarget.c_str(), W_OK) != 0;
}

bool CAtomicFile::Fail(const char* step, int error)
{
    m_nErrno = error;
    m_sError = StrFormat("%s: %s", step, std::strerror(error));
    return false;
}

bool CAtomicFile::Create()
{
    if (IsReadOnly()) {
        m_nErrno = EACCES;
        m_sError = "read-only";
        return false;
    }
    struct stat old {};
    bool existed = ::stat(m_sTarget.c_str(), &old) == 0;
    if (existed && !S_ISREG(old.st_mode)) {
        m_nErrno = EINVAL;
        m_sError = "not a regular file";
        return false;
    }

    const std::string folder = FolderOf(m_sTarget);
    RemoveStaleTemps(folder, fs::path(m_sTarget).filename().string());
    // An unnamed file cannot be left behind by a killed run; it gets its
    // name only when a writer needs one or its content is on the disk.
    // 0666 less the umask, as a new file gets; an old file's mode is copied below.
    m_hFile = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (m_hFile < 0 && !NameTemp(true))
        return false;
    if (existed) {
        (void)::fchown(m_hFile, old.st_uid, old.st_gid); // keeps the owner where allowed
        (void)::fchmod(m_hFile, old.st_mode & 07777);
    }
    m_sError.clear();
    return true;
}

bool CAtomicFile::NameTemp(bool bCreate)
{
    static std::atomic<unsigned> s_nCounter{0};
    const std::string folder = FolderOf(m_sTarget);
    const std::string name = fs::path(m_sTarget).filename().string();
    const std::string proc = "/proc/self/fd/" + std::to_string(m_hFile);
    int error = 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string temp = (fs::path(folder) / TempName(name, s_nCounter.fetch_add(1))).string();
        bool made = bCreate
                        ? (m_hFile = ::open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) >= 0
                        : ::linkat(AT_FDCWD, proc.c_str(), AT_FDCWD, temp.c_str(), AT_SYMLINK_FOLLOW) == 0;
        if (made) {
            m_sTemp = temp;
            return true;
        }
        error = errno;
        if (error != EEXIST)
            break;
    }
    return Fail(bCreate ? "create" : "link", error);
}

const std::string& CAtomicFile::TempPath()
{
    if (m_sTemp.empty() && m_hFile >= 0)
        NameTemp(false);
    return m_sTemp;
}

bool CAtomicFile::Write(const std::string& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(m_hFile, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return Fail("write", n < 0 ? errno : EIO);
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool CAtomicFile::Commit()
{
    if (m_hFile < 0)
        return Fail("create", EBADF);
    // fsync works on the file, so it also flushes what a library wrote
    // through a descriptor of its own.
    bool ok = ::fsync(m_hFile) == 0 || Fail("fsync", errno);
    if (ok && m_sTemp.empty())
        ok = NameTemp(false);
    int closed = ::close(m_hFile);
    m_hFile = -1;
    if (!ok)
        return false;
    if (closed != 0)
        return Fail("close", errno);
    if (::rename(m_sTemp.c_str(), m_sTarget.c_str()) != 0)
        return Fail("rename", errno);
    m_bCommitted = true;
    // The rename itself is made durable with the folder.
    if (int folder = ::open(FolderOf(m_sTarget).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); folder >= 0) {
        (void)::fsync(folder);
        ::close(folder);
    }
    m_sError.clear();
    return true;
}

} // namespace tessitor
