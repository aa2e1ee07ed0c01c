// `tessitor app save|download|diff` as a user runs them against `tessitor
// sim`: a drive whose image takes two chunks saved, changed and restored
// over a pseudo-terminal, a loopback network device and an SLCAN bus; the
// version checks, the convert question answered by --yes and --no, and the
// refusals a user must see with their exit statuses.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "applicationeditor/datfile.h"
#include "core/datadir.h"
#include "sim/simdrive.h"
#include "tests/applicationeditor/apptesthelpers.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"

using namespace tessitor;
using namespace tessitor::test;
namespace fs = std::filesystem;

namespace {

using Args = std::vector<std::string>;

class AppCliTest : public ::testing::Test {
protected:
    ProcessResult Tessitor(const Args& connection, Args args)
    {
        args.insert(args.begin(), connection.begin(), connection.end());
        args.insert(args.begin(), TessitorPath());
        std::vector<std::string> env = {"TESSITOR_CONFIG=" + m_Dir / "tessitor.ini"};
        if (!m_sData.empty())
            env.push_back("TESSITOR_DATA=" + m_sData);
        return RunProcess(args, env, {}, 120000);
    }
    // An application of product at version whose KP[2] is 0.5, with a program.
    std::string Seed(const std::string& product, const std::string& version, const std::string& name)
    {
        sim::CSimDrive drive(product, version);
        drive.Execute("KP[2]=0.5");
        CDatFile file(m_Dir / name);
        file.SetVersionString(drive.VersionString());
        file.SetParams(drive.Execute("IM").sValue);
        file.SetCommunicationText("CommunicationType", "RS_232");
        file.SetUserProgram("MO=0\n'comment\nWT=10");
        return file.GetFileName();
    }

    CTempDir m_Dir;
    std::string m_sData; ///< the data folder of the drives and the commands ("" = the shipped one)
};

// A data folder whose version database adds Talvina 2.9.0.0: the
// parameters of 2.1 and 1200 more, so that its image (2596 bytes) moves in
// two chunks, on every face. Returns the folder.
std::string BigImageData(const CTempDir& dir)
{
    fs::path data = dir.Path() / "data";
    fs::copy(fs::path(DataFilePath("versions.txt")).parent_path(), data);
    std::string versions = ReadFile((data / "versions.txt").string());
    std::size_t list = versions.find("list DSP-2.1\n");
    std::size_t rows = versions.find("wordswap 0\n", list) + 11;
    std::string big = "list BIG\nversion Talvina 2.9.0.0\nwordswap 0\n"
                      + versions.substr(rows, versions.find("\nend\n", rows) - rows)
                      + "\nZZ 1..1200 1 1 0 65535 0 rws filler\nend\n";
    WriteFile((data / "versions.txt").string(), versions + big);
    return data.string();
}

TEST_F(AppCliTest, SavedDriveComesBackAfterChangesOverSerialTcpAndCan)
{
    struct Face {
        const char* sName;
        Args arSim;
        Args (*pConnection)(const std::string& firstLine);
    };
    const Face faces[] = {
        {"serial", {"--serial"}, [](const std::string& pty) { return Args{"--serial", pty}; }},
        {"TCP", {"--tcp", "0"}, [](const std::string& at) { return Args{"--tcp", at, "--target", "RS232 Port 1"}; }},
        {"CAN", {"--slcan", "--node", "3"}, [](const std::string& pty) { return Args{"--can", "slcan:" + pty, "--node", "3"}; }},
    };
    m_sData = BigImageData(m_Dir);
    for (const Face& face : faces) {
        SCOPED_TRACE(face.sName);
        Args sim = {TessitorPath(), "sim"};
        sim.insert(sim.end(), face.arSim.begin(), face.arSim.end());
        CBackgroundProcess drive(sim, {"TESSITOR_DATA=" + m_sData});
        Args conn = face.pConnection(drive.FirstLine());
        std::string saved = m_Dir / (std::string(face.sName) + ".dat");

        ProcessResult seeded = Tessitor(conn, {"send", "KP[2]=0.5", "ZZ[1200]=7", "DLMO=0\\", "DL'comment\\",
                                               "DLWT=10\\"});
        ProcessResult save = Tessitor(conn, {"app", "save", saved});
        ProcessResult listing = Tessitor(conn, {"send", "LS"});
        ProcessResult change = Tessitor(conn, {"send", "KP[2]=0.25", "ZZ[1200]=9", "CP"});
        ProcessResult changed = Tessitor(conn, {"app", "diff", saved});
        ProcessResult restore = Tessitor(conn, {"app", "download", saved});
        ProcessResult same = Tessitor(conn, {"app", "diff", saved});
        ProcessResult listingAfter = Tessitor(conn, {"send", "LS"});
        ProcessResult shown = Tessitor(conn, {"app", "show", saved}); // the same line as save, drive left alone

        ASSERT_EQ(0, seeded.nStatus) << seeded.sErr;
        ASSERT_EQ(0, save.nStatus) << save.sErr;
        EXPECT_EQ(0, change.nStatus) << change.sErr;
        EXPECT_EQ(3, changed.nStatus) << changed.sErr;
        EXPECT_EQ("KP[2]: 0.500 | 0.250\nZZ[1200]: 7 | 9\n", changed.sOut);
        EXPECT_EQ(0, restore.nStatus) << restore.sErr;
        EXPECT_EQ(0, same.nStatus) << same.sOut << same.sErr;
        EXPECT_EQ("", same.sOut);
        EXPECT_EQ(listing.sOut, listingAfter.sOut);
        EXPECT_NE(std::string::npos, listing.sOut.find("WT=10"));
        EXPECT_NE(std::string::npos, shown.sOut.find("program: 3 lines\n    MO=0\n    'comment\n    WT=10\n"
                                                     "parameters: 1255 (BIG, 2596 bytes)\n"))
            << shown.sOut;
        EXPECT_NE(std::string::npos, shown.sOut.find("\nZZ[1200] = 7\n"));
        CDatFile file(saved);
        std::vector<std::string> groups;
        for (const auto& group : file.Groups())
            groups.push_back(group->GetName());
        EXPECT_EQ((std::vector<std::string>{"Version", "DownLoad", "Communication", "UserProgram"}), groups);
        EXPECT_EQ(0, drive.Stop());
    }
}

TEST_F(AppCliTest, VersionChecksAskOrRefuseAndLeaveTheDriveAlone)
{
    CBackgroundProcess older({TessitorPath(), "sim", "--serial", "--firmware", "2.0.0.0"});
    Args conn = {"--serial", older.FirstLine()};
    std::string newer = Seed("Talvina", "2.1.0.0", "drive.dat");
    std::string other = Seed("Corvessa", "", "corvessa.dat");
    std::string readOnly = m_Dir / "ro.dat";
    WriteFile(readOnly, "kept");
    ::chmod(readOnly.c_str(), 0444);

    const std::string newerText = ReadFile(newer);

    ProcessResult no = Tessitor(conn, {"app", "download", newer, "--no"});
    ProcessResult untouched = Tessitor(conn, {"send", "KP[2]"});
    ProcessResult yes = Tessitor(conn, {"--yes", "app", "download", newer});
    ProcessResult converted = Tessitor(conn, {"send", "KP[2]"});
    ProcessResult products = Tessitor(conn, {"app", "download", other});
    ProcessResult missing = Tessitor(conn, {"app", "diff", newer, m_Dir / "missing.dat"});
    ProcessResult refusedSave = Tessitor(conn, {"app", "save", readOnly});

    const std::string question = "Difference versions:\nDriver - Talvina 2.0.0.0\nFile   - Talvina 2.1.0.0\n"
                                 "Do you want to make convert?";
    EXPECT_EQ(1, no.nStatus);
    EXPECT_NE(std::string::npos, no.sErr.find(question)) << no.sErr;
    EXPECT_EQ("0.33\n", untouched.sOut);
    EXPECT_EQ(0, yes.nStatus) << yes.sErr;
    EXPECT_NE(std::string::npos, yes.sErr.find("tessitor-convert: FF[1] = 1.000 (dropped)")) << yes.sErr;
    EXPECT_EQ("0.5\n", converted.sOut);
    EXPECT_EQ("Talvina 2.0.0.0", CDatFile(m_Dir / "drive-2.0.0.0.dat").GetVersionString());
    EXPECT_EQ(newerText, ReadFile(newer)) << "the converter writes beside the file, never over it";
    EXPECT_EQ(1, products.nStatus);
    EXPECT_NE(std::string::npos,
              products.sErr.find("Incompatible products:\nDriver - Talvina 2.0.0.0\nFile   - Corvessa 2.1.3.0\n"))
        << products.sErr;
    EXPECT_EQ(1, missing.nStatus);
    EXPECT_EQ("tessitor: cannot read " + m_Dir / "missing.dat" + ": No such file or directory\n", missing.sErr);
    EXPECT_EQ(1, refusedSave.nStatus);
    EXPECT_NE(std::string::npos, refusedSave.sErr.find("Can't open file to write: " + readOnly
                                                       + " \nProbably the file name is wrong or file attribute is "
                                                         "READ ONLY"))
        << refusedSave.sErr;
    EXPECT_EQ("kept", ReadFile(readOnly));
}

TEST_F(AppCliTest, DemoRecordsSavesChangesAndRestores)
{
    ProcessResult demo = Tessitor({}, {"demo", "--dir", m_Dir / "demo"});

    EXPECT_EQ(0, demo.nStatus) << demo.sErr;
    EXPECT_NE(std::string::npos, demo.sOut.find("Scope.sdv: 800 samples, position 0 to 4000 counts")) << demo.sOut;
    EXPECT_NE(std::string::npos, demo.sOut.find("KP[3]=250, read back 250\n")) << demo.sOut;
    EXPECT_NE(std::string::npos, demo.sOut.find("KP[3] is back: 120\n")) << demo.sOut;
    EXPECT_EQ("Talvina 2.1.0.0", CDatFile(m_Dir / "demo/drive.dat").GetVersionString());
}

} // namespace
