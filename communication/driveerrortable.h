// The texts of the drive's own error numbers (the byte before "?" in a
// reply), read from data/drive_errors.txt: one "number text" a line.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace tessitor {

class CDriveErrorTable {
public:
    /// Reads path; a missing file gives an empty table (every lookup then
    /// yields "Unknown Error").
    static CDriveErrorTable Load(const std::string& path);
    /// The table from the data folder, read once per process.
    static std::shared_ptr<const CDriveErrorTable> Default();

    /// Entry n when 1 <= n < Size(), else "Unknown Error".
    std::string Text(int n) const;
    /// One more than the highest error number.
    int Size() const { return static_cast<int>(m_arTexts.size()); }

private:
    std::vector<std::string> m_arTexts; // index 0 unused: drive numbers start at 1
};

} // namespace tessitor
