// The application file: the reader's and the writer's exact rules, the
// connection fields of each communication type, and saves that never lose
// the old file.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "applicationeditor/datfile.h"
#include "core/trace.h"
#include "tests/applicationeditor/apptesthelpers.h"
#include "tests/support/tracecapture.h"

namespace tessitor {
namespace {

using test::CTempDir;
using test::ReadFile;
using test::TraceOf;
using test::WriteFile;

TEST(ApplicationFile, MissingFileIsEmptyAndItsFirstSaveWritesOneGroupOfOneField)
{
    CTempDir dir;
    std::string path = dir / "new.dat";
    int loaded = -1;

    std::string trace = TraceOf([&] {
        CApplication app(path);
        loaded = app.IsLoaded();
        EXPECT_TRUE(app.Groups().empty());
        EXPECT_FALSE(app.IsModified());
        app.SetValue("Version", "LOAD_VERSION_STRING", "Talvina 2.1.0.0");
    });

    EXPECT_EQ(0, loaded);
    EXPECT_EQ("CApplication:: Unable to open file for Read on LoadDatat the file will be create in first Update .\n"
              "CApplication::LoadData: " + path + ": No such file or directory\n",
              trace);
    EXPECT_EQ(0, CApplication(dir.Path().string()).IsLoaded()) << "a folder is no file to load";
    EXPECT_EQ("<Version>\r\n\t<LOAD_VERSION_STRING>Talvina 2.1.0.0<end_LOAD_VERSION_STRING>\r\n<end_Version>\r\n",
              ReadFile(path));
}

TEST(ApplicationFile, ReaderKeepsItsRulesForNamesTagsAndBrokenLines)
{
    CTempDir dir;
    std::string path = dir / "rules.dat";
    WriteFile(path, "stray text before any group\n"
                    "<Version>\r\n"
                    "\t<Gt>a>b<end_Gt>\r\n"
                    "\t<Cut>x<end_Cut>y<end_Cut>\r\n"
                    "\t<Multi>first\r\n"
                    "second\n"
                    "last<end_Multi>\r\n"
                    "\t<Caps>1<END_Caps>\r\n"
                    "\t<After>2<end_After>\r\n"
                    "<end_Version>\r\n"
                    "<Second>\n"
                    "\t<A>1<end_A>\n"
                    "no tag ends this group\n"
                    "\t<Loose>3<end_Loose>\n"
                    "<end_Loose>\n"
                    "<Open>\n"
                    "\t<Rest>r1\n"
                    "r2\n");

    CApplication app(path);

    EXPECT_EQ(1, app.IsLoaded());
    EXPECT_EQ("a>b", app.GetValue("version", "GT"));
    EXPECT_EQ("x", app.GetValue("Version", "Cut"));
    EXPECT_EQ("first\n\rsecond\n\rlast", app.GetValue("Version", "Multi"));
    // "<END_Caps>" does not close the field: it gathers lines up to "<end_Caps>", which never comes.
    EXPECT_EQ("1<END_Caps>\n\r\t<After>2<end_After>\n\r<end_Version>\n\r<Second>\n\r\t<A>1<end_A>\n\rno tag ends "
              "this group\n\r\t<Loose>3<end_Loose>\n\r<end_Loose>\n\r<Open>\n\r\t<Rest>r1\n\rr2",
              app.GetValue("Version", "Caps"));
    EXPECT_EQ(1u, app.Groups().size());
    EXPECT_EQ("Version", app.Groups()[0]->GetName());

    WriteFile(path, "<Second>\n\t<A>1<end_A>\nno tag ends this group\n\t<Loose>3<end_Loose>\n<end_Loose>\n"
                    "<Open>\n\t<Rest>r1\nr2\n");
    CApplication other(path);

    EXPECT_EQ("1", other.GetValue("Second", "A"));
    // After the tagless line "\t<Loose>..." starts a group named "Loose", whose
    // next line is its end tag; so no field named "Loose" exists.
    EXPECT_EQ("", other.GetValue("Second", "Loose"));
    EXPECT_EQ("", other.GetValue("Loose", "Loose"));
    EXPECT_EQ("r1\n\rr2", other.GetValue("Open", "Rest"));
    std::vector<std::string> names;
    for (const auto& group : other.Groups())
        names.push_back(group->GetName());
    EXPECT_EQ((std::vector<std::string>{"Second", "Open"}), names);
}

TEST(ApplicationFile, StoresMergeCaseBlindAndTheWriterAndReaderStayAsymmetric)
{
    CTempDir dir;
    std::string path = dir / "merge.dat";
    {
        CApplication app(path);
        app.SetValue("Group", "Field", "one");
        app.SetValue("GROUP", "field", "two");   // the same field
        app.SetValue("Group", "Lines", "a\nb");  // written as two lines
        app.SetInt("Numbers", "Negative", -42);
        app.Update(true);
        EXPECT_FALSE(app.IsModified());
        EXPECT_EQ(1, app.IsLoaded());
    }
    std::string written = ReadFile(path);
    CApplication app(path);
    app.SetValue("Group", "Field", "changed");
    app.SetValue("Extra", "Kept", "yes");

    app.Update(false); // merges the file's values into those held
    app.Update(false);
    app.Update(true); // not modified since the load: writes nothing, "Extra" and all

    EXPECT_EQ("<Group>\r\n\t<Field>two<end_Field>\r\n\t<Lines>a\r\nb<end_Lines>\r\n<end_Group>\r\n"
              "<Numbers>\r\n\t<Negative>-42<end_Negative>\r\n<end_Numbers>\r\n",
              written);
    EXPECT_FALSE(app.IsModified());
    EXPECT_EQ(written, ReadFile(path));
    EXPECT_EQ("two", app.GetValue("group", "FIELD"));
    EXPECT_EQ("a\n\rb", app.GetValue("Group", "Lines"));
    EXPECT_EQ(-42, app.GetInt("Numbers", "Negative"));
    EXPECT_EQ(0, app.GetInt("Group", "Field")); // not a number
    EXPECT_EQ(0, app.GetInt("Missing", "Field"));
    EXPECT_EQ("yes", app.GetValue("Extra", "Kept"));
    ASSERT_EQ(3u, app.Groups().size());
    EXPECT_EQ(2u, app.Groups()[0]->Fields().size());
    EXPECT_EQ("Field", app.Groups()[0]->Fields()[0]->m_sName); // the case first stored
}

TEST(ApplicationFile, EveryConnectionKindRoundTripsWithItsOwnFields)
{
    CTempDir dir;
    struct Case {
        const char* type;
        std::vector<std::string> fields;
    };
    const std::vector<Case> cases = {
        {"RS_232", {"CommunicationType", "nPort", "wBaudRate", "bByteSize", "bParity", "bStopBits", "bFlowCtrl"}},
        {"TCP_KMAS", {"CommunicationType", "nPort", "wBaudRate", "bByteSize", "bParity", "bStopBits", "bFlowCtrl"}},
        {"CAN", {"CommunicationType", "mNodeID", "sBoardType", "mCanNr", "mBaudRateIndex", "w_irq1", "w_address1",
                 "sManufacture"}},
        {"TCP", {"CommunicationType", "IP", "sDesc", "type"}},
        {"RS_485", {"CommunicationType"}},
    };
    CCommunicationInfo info;
    info.nPort = 3;
    info.wBaudRate = 115200;
    info.bParity = 2;
    info.bStopBits = 2;
    info.bFlowCtrl = 1;
    info.mNodeID = 127;
    info.sBoardType = "/dev/pts/9";
    info.sManufacture = "SLCAN";
    info.mCanNr = 1;
    info.mBaudRateIndex = 7;
    info.w_irq1 = 15;
    info.w_address1 = 0xBEEF;
    info.abIP = {10, 0, 0, 200};
    info.sDesc = "CANopen Bus 1 NodeID 5";
    info.nType = 1;

    for (const Case& c : cases) {
        std::string path = dir / (std::string(c.type) + ".dat");
        info.m_sCommType = c.type;
        {
            CDatFile file(path);
            file.SetVersionString("Talvina 2.1.0.0");
            file.SetParams("0300");
            file.SetCommunicationInfo(info);
            file.SetUserProgram("MO=1");
        }
        std::string written = ReadFile(path);
        CDatFile file(path);
        file.SetParams(file.GetParams()); // modified, same values
        file.Update(true);
        CCommunicationInfo back = file.GetCommunicationInfo();

        std::vector<std::string> fields;
        for (const auto& group : file.Groups())
            if (group->GetName() == "Communication")
                for (const auto& field : group->Fields())
                    fields.push_back(field->m_sName);
        EXPECT_EQ(c.fields, fields) << c.type;
        EXPECT_EQ(written, ReadFile(path)) << c.type << ": a CR LF file saves back byte for byte";
        EXPECT_EQ(c.type, back.m_sCommType);
        int kind = info.GetKind();
        if (kind == kKindRs232 || kind == kKindCan || kind == kKindTcp) {
            EXPECT_TRUE(back.IsEqual(info)) << c.type << ": " << back.ToLine();
        } else if (kind == kKindTcpKmas) {
            EXPECT_EQ(std::make_pair(info.nPort, info.wBaudRate), std::make_pair(back.nPort, back.wBaudRate));
        }
        if (kind == kKindCan) {
            EXPECT_EQ(0xBEEF, back.w_address1);
        }
        EXPECT_EQ("Talvina 2.1.0.0", file.GetVersionString());
        EXPECT_EQ("MO=1", file.GetUserProgram());
    }

    std::string path = dir / "narrow.dat";
    {
        CDatFile file(path);
        file.SetCommunicationText("CommunicationType", "CAN");
        file.SetCommunicationInt("w_irq1", 300); // an 8-bit member behind a 16-bit prefix
        file.SetCommunicationInt("w_address1", 70000);
    }
    CCommunicationInfo narrow = CDatFile(path).GetCommunicationInfo();
    EXPECT_EQ(44, narrow.w_irq1);
    EXPECT_EQ(70000 - 65536, narrow.w_address1);
    EXPECT_EQ("TCP/IP 10.0.0.200 CANopen Bus 1 NodeID 5", CDatFile(dir / "TCP.dat").GetCommunicationInfo().GetDisplayText());
}

TEST(ApplicationFile, SavesNeverReplaceAReadOnlyFileAndAFailedWriteLeavesTheOldFileWhole)
{
    CTempDir dir;
    std::string path = dir / "kept.dat";
    {
        CApplication app(path);
        app.SetValue("Version", "LOAD_VERSION_STRING", "old");
    }
    const std::string old = ReadFile(path);
    ASSERT_EQ(0, ::chmod(path.c_str(), 0444));
    bool readOnly = false;

    std::string trace = TraceOf([&] {
        CApplication app(path);
        readOnly = app.IsReadOnly();
        app.SetValue("Version", "LOAD_VERSION_STRING", "new");
        app.Update(true);
        EXPECT_EQ(0, app.IsLoaded());
        EXPECT_TRUE(app.IsModified()); // so the destructor tries once more, and is refused again
    });

    EXPECT_TRUE(readOnly);
    EXPECT_EQ(old, ReadFile(path));
    EXPECT_EQ(0, trace.find("CApplication:: Unable to open file for Update.\n")) << trace;

    // A write that fails half way (the file-size limit stands in for a full
    // disk), and one whose process is killed half way: SIGKILL raised from
    // the signal that the limit sends in the middle of the write.
    ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
    for (bool killed : {false, true}) {
        std::fflush(nullptr);
        pid_t child = ::fork();
        if (child == 0) {
            std::signal(SIGXFSZ, killed ? [](int) { ::raise(SIGKILL); } : SIG_IGN);
            rlimit limit{64, 64};
            ::setrlimit(RLIMIT_FSIZE, &limit);
            CApplication app(path);
            app.SetValue("DownLoad", "Params", std::string(4096, 'A'));
            app.Update(true);
            ::_exit(app.IsLoaded() == 0 && app.IsModified() ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        if (killed)
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        else
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_EQ(old, ReadFile(path)) << (killed ? "killed" : "failed");
    }
    struct stat st {};
    ::stat(path.c_str(), &st);
    EXPECT_EQ(0640u, st.st_mode & 07777u);
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir.Path()), {})) << "no temporary file is left";

    // A symbolic link stays a link; the file it names gets the new contents.
    std::string link = dir / "link.dat";
    std::filesystem::create_symlink("kept.dat", link);
    {
        CApplication app(link);
        app.SetValue("Version", "LOAD_VERSION_STRING", "through the link");
    }
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ("through the link", CApplication(path).GetValue("Version", "LOAD_VERSION_STRING"));
    ::stat(path.c_str(), &st);
    EXPECT_EQ(0640u, st.st_mode & 07777u);
}

} // namespace
} // namespace tessitor
