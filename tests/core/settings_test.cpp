// The settings file is the user's: what a save keeps, what it refuses, and
// what it never leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/settings.h"

namespace tessitor {
namespace {

namespace fs = std::filesystem;

class SettingsFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "tessitor-settings-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        m_Dir = pattern;
    }
    void TearDown() override { fs::remove_all(m_Dir); }

    static void Write(const fs::path& path, const std::string& text)
    {
        std::ofstream(path, std::ios::binary) << text;
    }
    static std::string Read(const fs::path& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), {});
    }
    std::vector<std::string> Entries() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_Dir))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path m_Dir;
};

TEST_F(SettingsFile, SaveKeepsCommentsOrderLineEndsModeAndTheSymbolicLink)
{
    fs::path real = m_Dir / "real.ini", link = m_Dir / "tessitor.ini";
    Write(real, "; written by hand\r\n[SerialPorts]\r\nCOM2 = /dev/ttyUSB0\r\n# spare\r\n\r\n"
                "[CommunicationInfo]\r\nLast Success Connect=old\r\nLast Success Port=1\r\n");
    ::chmod(real.c_str(), 0640);
    fs::create_symlink("real.ini", link);
    Settings settings(link.string());

    settings.Set("CommunicationInfo", "Last Success Connect", "new\nline");
    settings.Set("SerialPorts", "COM3", "/dev/ttyACM0");
    settings.Remove("CommunicationInfo", "Last Success Port");
    settings.Set("TCP", "Port", "47151");
    ASSERT_TRUE(settings.Save()) << settings.SaveError();

    EXPECT_EQ(Read(real), "; written by hand\r\n[SerialPorts]\r\nCOM2 = /dev/ttyUSB0\r\nCOM3=/dev/ttyACM0\r\n"
                          "# spare\r\n\r\n[CommunicationInfo]\r\nLast Success Connect=new line\r\n\r\n"
                          "[TCP]\r\nPort=47151\r\n");
    EXPECT_TRUE(fs::is_symlink(link)) << "the link stays a link";
    struct stat st {};
    ::stat(real.c_str(), &st);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(Entries(), (std::vector<std::string>{"real.ini", "tessitor.ini"})) << "no temporary file is left";
    Settings reread(link.string());
    EXPECT_EQ(reread.GetString("SerialPorts", "COM2"), "/dev/ttyUSB0");
    EXPECT_FALSE(reread.Get("CommunicationInfo", "Last Success Port"));
}

TEST_F(SettingsFile, ReadOnlyStrangeAndHugeFilesAreRefusedAndLeftAsTheyAre)
{
    fs::path readOnly = m_Dir / "ro.ini", fifo = m_Dir / "fifo.ini", huge = m_Dir / "huge.ini";
    Write(readOnly, "[Settings]\nA=1\n");
    ::chmod(readOnly.c_str(), 0444);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    Write(huge, std::string(Settings::kMaxFileBytes + 1, 'x'));

    Settings ro(readOnly.string());
    ro.Set("Settings", "A", "2");
    bool roSaved = ro.Save();
    Settings pipe(fifo.string()); // must return at once, not wait for a writer
    pipe.Set("Settings", "A", "2");
    bool pipeSaved = pipe.Save();
    Settings big(huge.string());
    big.Set("Settings", "A", "2");
    bool bigSaved = big.Save();

    EXPECT_FALSE(roSaved) << "even for root, which could write it";
    EXPECT_NE(ro.SaveError().find("read-only"), std::string::npos) << ro.SaveError();
    EXPECT_EQ(Read(readOnly), "[Settings]\nA=1\n");
    EXPECT_FALSE(pipeSaved);
    EXPECT_NE(pipe.LoadError().find("not a regular file"), std::string::npos) << pipe.LoadError();
    EXPECT_TRUE(fs::is_fifo(fifo));
    EXPECT_FALSE(bigSaved);
    EXPECT_NE(big.LoadError().find("larger than"), std::string::npos) << big.LoadError();
    EXPECT_EQ(fs::file_size(huge), Settings::kMaxFileBytes + 1);
}

TEST_F(SettingsFile, ASaveRemovesWhatAKilledSaveLeftButNotWhatAnotherRunIsWriting)
{
    // A pid that is surely gone: a child that has ended and been reaped.
    pid_t gone = ::fork();
    if (gone == 0)
        ::_exit(0);
    ::waitpid(gone, nullptr, 0);
    fs::path config = m_Dir / "tessitor.ini";
    Write(m_Dir / (".tessitor.ini." + std::to_string(gone) + ".0.tmp"), "half");
    Write(m_Dir / (".tessitor.ini." + std::to_string(::getppid()) + ".0.tmp"), "busy");
    Write(m_Dir / ".other.ini.1.0.tmp", "not ours");

    Settings settings(config.string());
    settings.Set("Settings", "A", "1");
    ASSERT_TRUE(settings.Save()) << settings.SaveError();

    EXPECT_EQ(Entries(), (std::vector<std::string>{".other.ini.1.0.tmp",
                                                   ".tessitor.ini." + std::to_string(::getppid()) + ".0.tmp",
                                                   "tessitor.ini"}));
    EXPECT_EQ(Read(config), "[Settings]\nA=1\n");
}

} // namespace
} // namespace tessitor
