#include "core/atomicfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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

    static std::atomic<unsigned> s_nCounter{0};
    std::string folder = FolderOf(m_sTarget);
    std::string name = fs::path(m_sTarget).filename().string();
    for (int attempt = 0; attempt < 100 && m_hFile < 0; ++attempt) {
        m_sTemp = (fs::path(folder) / StrFormat(".%s.%d.%u.tmp", name.c_str(), static_cast<int>(::getpid()),
                                                s_nCounter.fetch_add(1)))
                      .string();
        // 0666 less the umask, as a new file gets; an old file's mode is copied below.
        m_hFile = ::open(m_sTemp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (m_hFile < 0 && errno != EEXIST)
            break;
    }
    if (m_hFile < 0) {
        int error = errno;
        m_sTemp.clear();
        return Fail("create", error);
    }
    if (existed) {
        (void)::fchown(m_hFile, old.st_uid, old.st_gid); // keeps the owner where allowed
        (void)::fchmod(m_hFile, old.st_mode & 07777);
    }
    m_sError.clear();
    return true;
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
    if (::fsync(m_hFile) != 0) {
        int error = errno;
        ::close(m_hFile);
        m_hFile = -1;
        return Fail("fsync", error);
    }
    int closed = ::close(m_hFile);
    m_hFile = -1;
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
