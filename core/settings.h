// User settings: an INI file at $XDG_CONFIG_HOME/tessitor/tessitor.ini
// (~/.config/tessitor/tessitor.ini), sections and keys as the system names
// them ("CommunicationInfo", "Settings", "SerialPorts"). TESSITOR_CONFIG
// names another file (tests use it).
#pragma once

#include <map>
#include <optional>
#include <string>

namespace tessitor {

class Settings {
public:
    /// Loads path; a missing file is an empty settings set.
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
    void Set(const std::string& section, const std::string& key, const std::string& value);

    /// Writes the file through a temporary name and a rename, creating the
    /// folder when needed; returns false (errno kept) when it cannot.
    bool Save() const;
    const std::string& Path() const { return m_sPath; }

private:
    std::string m_sPath;
    // Sections and keys compare as written; the order in the file is kept.
    std::map<std::string, std::map<std::string, std::string>> m_mapValues;
};

} // namespace tessitor
