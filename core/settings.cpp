#include "core/settings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "core/atomicfile.h"
#include "core/strformat.h"

namespace tessitor {

Settings::Settings(std::string path) : m_sPath(std::move(path))
{
    // O_NONBLOCK: a FIFO at this path must not hold the program up.
    int fd = ::open(m_sPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        if (errno != ENOENT)
            m_sLoadError = "settings file " + m_sPath + ": " + std::strerror(errno);
        return;
    }
    struct stat st {};
    std::string content;
    if (::fstat(fd, &st) != 0) {
        m_sLoadError = "settings file " + m_sPath + ": " + std::strerror(errno);
    } else if (!S_ISREG(st.st_mode)) {
        m_sLoadError = "settings file " + m_sPath + " is not a regular file";
    } else {
        char chunk[8192];
        for (;;) {
            ssize_t n = ::read(fd, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                m_sLoadError = "settings file " + m_sPath + ": " + std::strerror(errno);
                break;
            }
            if (n == 0)
                break;
            content.append(chunk, static_cast<size_t>(n));
            if (content.size() > kMaxFileBytes) {
                m_sLoadError = StrFormat("settings file %s is larger than %zu bytes", m_sPath.c_str(), kMaxFileBytes);
                break;
            }
        }
    }
    ::close(fd);
    if (m_sLoadError.empty())
        Parse(content);
}

void Settings::Parse(const std::string& content)
{
    std::string section;
    size_t start = 0;
    while (start < content.size()) {
        size_t end = content.find('\n', start);
        Line line;
        line.sText = content.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? content.size() : end + 1;
        if (m_arLines.empty())
            m_bCrLf = !line.sText.empty() && line.sText.back() == '\r';
        std::string trimmed = Trim(line.sText);
        if (!trimmed.empty() && trimmed.front() == '[' && trimmed.back() == ']') {
            section = trimmed.substr(1, trimmed.size() - 2);
            line.bHeader = true;
        }
        line.sSection = section;
        size_t eq = line.sText.find('=');
        if (!line.bHeader && !trimmed.empty() && trimmed[0] != ';' && trimmed[0] != '#' && eq != std::string::npos) {
            line.sKey = Trim(line.sText.substr(0, eq));
            line.nValueStart = line.sText.find_first_not_of(" \t", eq + 1);
            if (line.nValueStart == std::string::npos)
                line.nValueStart = line.sText.size();
        }
        m_arLines.push_back(std::move(line));
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

const Settings::Line* Settings::Find(const std::string& section, const std::string& key) const
{
    // A key written twice counts with its last line, as the old readers did.
    for (auto it = m_arLines.rbegin(); it != m_arLines.rend(); ++it)
        if (!it->sKey.empty() && it->sKey == key && it->sSection == section)
            return &*it;
    return nullptr;
}

std::optional<std::string> Settings::Get(const std::string& section, const std::string& key) const
{
    const Line* line = Find(section, key);
    if (!line)
        return std::nullopt;
    return Trim(line->sText.substr(line->nValueStart));
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
    // A line break in a value would end the line: it is stored as a blank.
    std::string flat = value;
    for (char& c : flat)
        if (c == '\n' || c == '\r')
            c = ' ';
    const std::string eol = m_bCrLf ? "\r" : "";
    if (Line* line = const_cast<Line*>(Find(section, key))) {
        line->sText = line->sText.substr(0, line->nValueStart) + flat + eol;
        return;
    }
    Line added{key + "=" + flat + eol, section, key, false, key.size() + 1};
    size_t after = m_arLines.size();
    for (size_t i = 0; i < m_arLines.size(); ++i)
        if (m_arLines[i].sSection == section && (m_arLines[i].bHeader || !m_arLines[i].sKey.empty()))
            after = i + 1;
    if (after < m_arLines.size() || (!m_arLines.empty() && m_arLines.back().sSection == section)) {
        m_arLines.insert(m_arLines.begin() + static_cast<std::ptrdiff_t>(after), added);
        return;
    }
    if (!m_arLines.empty() && !Trim(m_arLines.back().sText).empty())
        m_arLines.push_back(Line{eol, m_arLines.back().sSection, "", false, 0});
    m_arLines.push_back(Line{"[" + section + "]" + eol, section, "", true, 0});
    m_arLines.push_back(added);
}

void Settings::Remove(const std::string& section, const std::string& key)
{
    std::erase_if(m_arLines,
                  [&](const Line& line) { return !line.sKey.empty() && line.sKey == key && line.sSection == section; });
}

bool Settings::Fail(const std::string& why, int error)
{
    m_sSaveError = "cannot write settings file " + m_sPath + ": " + why;
    errno = error;
    return false;
}

bool Settings::Save()
{
    m_sSaveError.clear();
    if (!m_sLoadError.empty())
        return Fail("it could not be read, so it is left as it is (" + m_sLoadError + ")", EINVAL);
    std::string content;
    for (const Line& line : m_arLines)
        content += line.sText + "\n";

    CAtomicFile file(m_sPath);
    const std::filesystem::path folder = std::filesystem::path(file.Target()).parent_path();
    if (std::error_code ec; !folder.empty() && !std::filesystem::exists(folder, ec))
        std::filesystem::create_directories(folder, ec);
    if (!file.Create() || !file.Write(content) || !file.Commit())
        return Fail(file.Error() == "read-only" ? "the file is read-only; it is left as it is" : file.Error(),
                    file.ErrorNumber());
    return true;
}

} // namespace tessitor
