// User settings: an INI file at $XDG_CONFIG_HOME/tessitor/tessitor.ini
// (~/.config/tessitor/tessitor.ini), sections and keys as the system names
// them ("CommunicationInfo", "Settings", "SerialPorts"). TESSITOR_CONFIG
// names another file (tests use it). The file is the user's: a save keeps
// its comments, the order of its lines, its mode and a symbolic link to it,
// and never replaces a file without write permission.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tessitor {

class Settings {
public:
    /// The largest settings file read, in bytes; a larger one is refused.
    static constexpr std::size_t kMaxFileBytes = 1024 * 1024;

    /// Loads path; a missing file is an empty settings set. A file that
    /// cannot be read (not a regular file, too large, unreadable) is also
    /// empty, LoadError says why, and Save refuses to replace it.
    explicit Settings(std::string path);
    /// The settings file of this user (see above).
    static Settings User();
    /// The path of the user's settings file.
    static std::string UserPath();
    /// An XDG base folder: $variable, else $HOME/homeRelative, else ".".
    static std::string XdgBaseDir(const char* variable, const char* homeRelative);

    std::optional<std::string> Get(const std::string& section, const std::string& key) const;
    std::string GetString(const std::string& section, const std::string& key, const std::string& fallback = "") const;
    int GetInt(const std::string& section, const std::string& key, int fallback = 0) const;
    /// Changes the key's line in place, or adds it at the end of its section
    /// (the section at the end of the file when it is new).
    void Set(const std::string& section, const std::string& key, const std::string& value);
    /// Removes the key's lines; nothing when it is not there.
    void Remove(const std::string& section, const std::string& key);

    /// Why the file could not be read; empty when it was read or is missing.
    const std::string& LoadError() const { return m_sLoadError; }
    /// Writes the file as CAtomicFile replaces one (a symbolic link is
    /// followed, not replaced; the content reaches the disk before the
    /// rename; a read-only file is refused); a missing folder is made.
    /// Returns false when it cannot; SaveError says why and the old file is
    /// left as it was.
    bool Save();
    /// Why the last Save failed.
    const std::string& SaveError() const { return m_sSaveError; }
    const std::string& Path() const { return m_sPath; }

private:
    // One line of the file as read; key lines also keep where the value starts.
    struct Line {
        std::string sText;     // without the line feed (a CR stays)
        std::string sSection;  // the section the line stands in
        std::string sKey;      // empty for headers, comments and blank lines
        bool bHeader = false;  // a "[section]" line
        size_t nValueStart = 0;
    };
    void Parse(const std::string& content);
    const Line* Find(const std::string& section, const std::string& key) const;
    bool Fail(const std::string& why, int error);

    std::string m_sPath;
    std::vector<Line> m_arLines;
    bool m_bCrLf = false;
    std::string m_sLoadError;
    std::string m_sSaveError;
};

} // namespace tessitor
