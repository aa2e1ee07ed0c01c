// The scope data file: a MAT file read back through matio, the CSV form, and
// saves that fail without harming the file already there.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "recorder/scopefile.h"
#include "tests/recorder/mathelpers.h"

using namespace tessitor;
namespace fs = std::filesystem;

namespace {

class ScopeFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Dir = fs::temp_directory_path()
            / ("tessitor-scope-" + std::to_string(::getpid()) + "-"
               + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(m_Dir);
        fs::create_directories(m_Dir);
    }
    void TearDown() override { fs::remove_all(m_Dir); }
    static std::string Read(const fs::path& path)
    {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    fs::path m_Dir;
};

CScopeFile TwoSignals()
{
    CScopeFile file(0.0005);
    file.AddSignal("Position", {0, 10, 20});
    file.AddSignal("Current, \"A\"", {0.5, -0.25});
    file.SetSetting("trigger", std::string("Begin Motion"));
    file.SetSetting("level1", 1.5);
    file.SetSetting("version", std::string());
    return file;
}

} // namespace

TEST_F(ScopeFileTest, MatFileHoldsColumnsNamesAndSettingsAndLoadsBack)
{
    CScopeFile file = TwoSignals();
    fs::path path = m_Dir / "Scope.sdv";

    ASSERT_TRUE(file.SaveMat(path.string())) << file.Error();

    test::CMatFile mat(path.string());
    EXPECT_EQ(mat.Columns(), (std::vector<std::string>{"Index", "Time(sec)", "Position", "Current, \"A\""}));
    ASSERT_EQ(mat.Rows(), 3u);
    EXPECT_EQ(mat.Column(0), (std::vector<double>{0, 1, 2}));
    EXPECT_EQ(mat.Column(1), (std::vector<double>{0, 0.0005, 0.001}));
    EXPECT_EQ(mat.Column(2), (std::vector<double>{0, 10, 20}));
    std::vector<double> current = mat.Column(3);
    EXPECT_EQ(current[1], -0.25);
    EXPECT_TRUE(std::isnan(current[2])) << "a shorter column is padded";
    EXPECT_EQ(mat.Text("trigger"), "Begin Motion");
    EXPECT_EQ(mat.Number("level1"), 1.5);
    EXPECT_EQ(mat.Text("version"), "");
    EXPECT_EQ(std::distance(fs::directory_iterator(m_Dir), fs::directory_iterator()), 1) << "no temporary left";

    CScopeFile again(0);
    ASSERT_TRUE(again.LoadMat(path.string())) << again.Error();
    EXPECT_EQ(again.Columns(), file.Columns());
    EXPECT_EQ(again.Rows(), 3u);
    EXPECT_DOUBLE_EQ(again.SampleTime(), 0.0005) << "taken from the time column when settings lack it";
    EXPECT_EQ(again.Value(2, 2), 20);
    EXPECT_EQ(again.Value(1, 3), -0.25);
    EXPECT_TRUE(std::isnan(again.Value(2, 3))) << "the padding stays padding";
    ASSERT_EQ(again.Settings().size(), 3u);
    EXPECT_EQ(std::get<std::string>(again.Settings()[0].second), "Begin Motion");
    EXPECT_EQ(std::get<double>(again.Settings()[1].second), 1.5);
    EXPECT_EQ(std::get<std::string>(again.Settings()[2].second), "");
}

TEST_F(ScopeFileTest, CsvHasAHeaderLineAndOneLineASample)
{
    CScopeFile file = TwoSignals();
    fs::path path = m_Dir / "scope.csv";

    ASSERT_TRUE(file.SaveCsv(path.string())) << file.Error();

    EXPECT_EQ(Read(path), "Index,Time(sec),Position,\"Current, \"\"A\"\"\"\n"
                          "0,0,0,0.5\n"
                          "1,0.0005,10,-0.25\n"
                          "2,0.001,20,\n");
}

TEST_F(ScopeFileTest, FailedSaveLeavesTheOldFileWhole)
{
    fs::path path = m_Dir / "Scope.sdv";
    std::ofstream(path) << "old";
    fs::permissions(path, fs::perms::owner_read);
    CScopeFile file = TwoSignals();

    EXPECT_FALSE(file.SaveMat(path.string()));
    EXPECT_EQ(file.Error(), path.string() + ": read-only");
    EXPECT_EQ(Read(path), "old");

    // A folder where the file would go: refused, nothing replaced and no
    // temporary file left behind.
    fs::path folder = m_Dir / "taken";
    fs::create_directory(folder);
    EXPECT_FALSE(file.SaveCsv(folder.string()));
    EXPECT_EQ(file.Error(), folder.string() + ": not a regular file");
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(std::distance(fs::directory_iterator(m_Dir), fs::directory_iterator()), 2);
    EXPECT_FALSE(file.SaveMat((m_Dir / "missing" / "Scope.sdv").string()));
    EXPECT_NE(file.Error().find(": create: No such file or directory"), std::string::npos) << file.Error();
}

TEST_F(ScopeFileTest, LoadRefusesWhatIsNotAScopeFile)
{
    fs::path text = m_Dir / "notes.sdv";
    std::ofstream(text) << "Index,Time(sec)\n0,0\n";
    fs::path csv = m_Dir / "move.csv";
    ASSERT_TRUE(TwoSignals().SaveCsv(csv.string()));
    CScopeFile file(0.001);
    file.AddSignal("Position", {1, 2});

    EXPECT_FALSE(file.LoadMat((m_Dir / "missing.sdv").string()));
    EXPECT_EQ(file.Error(), (m_Dir / "missing.sdv").string() + ": not a MAT file, or it cannot be read");
    EXPECT_FALSE(file.LoadMat(text.string()));
    EXPECT_FALSE(file.LoadMat(csv.string()));

    EXPECT_EQ(file.Rows(), 2u) << "a failed load changes nothing";
    EXPECT_EQ(file.SampleTime(), 0.001);
}
