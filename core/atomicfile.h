// Replacing a file so that a failed or interrupted write leaves the old one
// whole: the new content goes to a temporary file beside the real one (a
// symbolic link is followed, not replaced), reaches the disk, and is renamed
// over it. A file without write permission, or one that is not a regular
// file, is refused, never replaced. The temporary file has no name until it
// needs one (O_TMPFILE), and a name a killed run left is removed by the
// next save of the same file.
//
//   CAtomicFile file("drive.dat");
//   if (!file.Create()) ... file.Error()            // "read-only", "create: ..."
//   write to file.Fd(), or open file.TempPath() with a library of its own
//   if (!file.Commit()) ... file.Error()            // the old file is untouched
#pragma once

#include <string>

namespace tessitor {

class CAtomicFile {
public:
    /// Names the file to replace; nothing is touched yet.
    explicit CAtomicFile(const std::string& path);
    /// Removes the temporary file unless Commit succeeded.
    ~CAtomicFile();
    CAtomicFile(const CAtomicFile&) = delete;
    CAtomicFile& operator=(const CAtomicFile&) = delete;

    /// The file a commit replaces: path with its symbolic links followed.
    const std::string& Target() const { return m_sTarget; }
    /// True when the target exists and may not be written (no write bit is
    /// the read-only attribute, also for root).
    bool IsReadOnly() const;
    /// Creates the temporary file in the target's folder, with the old
    /// file's mode and (where allowed) owner, after removing the named
    /// temporary files of earlier runs that are gone. False when the target
    /// is read-only or not a regular file, or the file cannot be made;
    /// Error() says which.
    bool Create();
    /// The open temporary file (-1 before Create); closed by Commit.
    int Fd() const { return m_hFile; }
    /// The temporary file's path, for writers that open files by name (it
    /// is named now if it has no name yet); empty when naming failed.
    const std::string& TempPath();
    /// Writes all of bytes to Fd(), retrying short writes; false on failure.
    bool Write(const std::string& bytes);
    /// Flushes the temporary file to the disk, renames it over the target and
    /// makes the rename durable. False, the target untouched, when a step fails.
    bool Commit();
    /// The failed step and its reason ("read-only", "fsync: No space left on
    /// device"); empty after a success.
    const std::string& Error() const { return m_sError; }
    /// errno of the failed step (EACCES for a read-only target).
    int ErrorNumber() const { return m_nErrno; }

private:
    bool Fail(const char* step, int error);
    // Gives the temporary file a free name: a new named file (bCreate) or
    // a link to the unnamed one.
    bool NameTemp(bool bCreate);

    std::string m_sTarget;
    std::string m_sTemp;
    int m_hFile = -1;
    bool m_bCommitted = false;
    std::string m_sError;
    int m_nErrno = 0;
};

} // namespace tessitor
