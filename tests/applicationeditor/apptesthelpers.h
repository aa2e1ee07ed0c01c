// What the application tests share: a fresh temporary folder, whole-file
// reads and writes, and a progress window that records its messages.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "core/window.h"

namespace tessitor::test {

class CTempDir {
public:
    CTempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "tessitor-app-XXXXXX").string();
        m_Path = ::mkdtemp(pattern.data()) ? pattern : "";
        EXPECT_FALSE(m_Path.empty());
    }
    ~CTempDir()
    {
        std::error_code ignored;
        std::filesystem::permissions(m_Path, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(m_Path, ignored);
    }
    std::string operator/(const std::string& name) const { return (m_Path / name).string(); }
    const std::filesystem::path& Path() const { return m_Path; }

private:
    std::filesystem::path m_Path;
};

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

/// A progress window that keeps every message it is sent.
class CRecordingWindow : public Window {
public:
    using Message = std::tuple<unsigned, std::uintptr_t, std::intptr_t>;
    void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        m_arMessages.emplace_back(message, wParam, lParam);
    }
    std::intptr_t SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        m_arMessages.emplace_back(message, wParam, lParam);
        return 0;
    }
    std::vector<Message> m_arMessages;
};

} // namespace tessitor::test
