#include "core/settings.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "core/strformat.h"

namespace tessitor {

Settings::Settings(std::string path) : m_sPath(std::move(path))
{
    std::ifstream in(m_sPath);
    std::string line, section;
    while (std::getline(in, line)) {
        line = Trim(line);
        if (line.empty() || line[0] == ';' || line[0] == '#')
            continue;
        if (line.front() == '[' && line.back() == ']') {
            section = line.substr(1, line.size() - 2);
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        m_mapValues[section][Trim(line.substr(0, eq))] = Trim(line.substr(eq + 1));
    }
}

std::string Settings::UserPath()
{
    if (const char* explicitPath = std::getenv("TESSITOR_CONFIG"); explicitPath && *explicitPath)
        return explicitPath;
    return XdgBaseDir("XDG_CONFIG_HOME", ".config") + "/tessitor/tessitor.ini";
}

std::string Settings::XdgBaseDir(const char* variable, const char* homeRelative)
{
    if (const char* dir = std::getenv(variable); dir && *dir)
        return dir;
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::string(home) + "/" + homeRelative;
    return ".";
}

Settings Settings::User()
{
    return Settings(UserPath());
}

std::optional<std::string> Settings::Get(const std::string& section, const std::string& key) const
{
    auto s = m_mapValues.find(section);
    if (s == m_mapValues.end())
        return std::nullopt;
    auto k = s->second.find(key);
    if (k == s->second.end())
        return std::nullopt;
    return k->second;
}

std::string Settings::GetString(const std::string& section, const std::string& key, const std::string& fallback) const
{
    return Get(section, key).value_or(fallback);
}

int Settings::GetInt(const std::string& section, const std::string& key, int fallback) const
{
    auto value = Get(section, key);
    if (!value || value->empty())
        return fallback;
    return std::atoi(value->c_str());
}

void Settings::Set(const std::string& section, const std::string& key, const std::string& value)
{
    m_mapValues[section][key] = value;
}

bool Settings::Save() const
{
    std::error_code ec;
    std::filesystem::path target(m_sPath);
    if (target.has_parent_path())
        std::filesystem::create_directories(target.parent_path(), ec);
    std::string temp = m_sPath + ".tmp." + std::to_string(::getpid());
    {
        std::ofstream out(temp, std::ios::trunc);
        if (!out)
            return false;
        for (const auto& [section, keys] : m_mapValues) {
            out << '[' << section << "]\n";
            for (const auto& [key, value] : keys)
                out << key << '=' << value << '\n';
            out << '\n';
        }
        if (!out.flush())
            return false;
    }
    if (std::rename(temp.c_str(), m_sPath.c_str()) != 0) {
        int saved = errno;
        std::remove(temp.c_str());
        errno = saved;
        return false;
    }
    return true;
}

} // namespace tessitor
