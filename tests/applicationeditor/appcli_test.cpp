// `tessitor app show` as a user runs it: a file holding the virtual drive's
// image, --json, and the files it cannot show whole.
#include <gtest/gtest.h>

#include "applicationeditor/datfile.h"
#include "sim/simdrive.h"
#include "tests/applicationeditor/apptesthelpers.h"
#include "tests/support/process.h"

namespace tessitor {
namespace {

using test::RunProcess;
using test::TessitorPath;

TEST(AppShowCommand, ListsTheImageThroughTheVersionDatabaseAndRefusesWhatItCannotShow)
{
    test::CTempDir dir;
    sim::CSimDrive drive("Bressa"); // a word-swapped image
    drive.Execute("KP[2]=0.5");
    std::string hex = drive.Execute("IM").sValue;
    std::string good = dir / "good.dat", bad = dir / "bad.dat", unknown = dir / "unknown.dat", names = dir / "names.dat";
    {
        CDatFile file(good);
        file.SetVersionString("Bressa 1.0.4.2");
        file.SetParams(hex);
        CCommunicationInfo info;
        info.m_sCommType = "TCP";
        info.abIP = {10, 0, 0, 200};
        info.sDesc = "RS232 Port 1";
        file.SetCommunicationInfo(info);
        file.SetUserProgram("MO=1\nWT=100");
    }
    {
        CDatFile file(bad);
        file.SetVersionString("Bressa 1.0.4.2");
        file.SetParams(hex + "0000");
    }
    {
        CDatFile file(unknown);
        file.SetVersionString("Bressa 9.9.0.0");
    }
    {
        CDatFile file(names); // NM[5] is a NUL character in a fresh drive
        file.SetVersionString("Talvina 2.1.0.0");
        file.SetParams(sim::CSimDrive("Talvina").Execute("IM").sValue);
    }

    auto shown = RunProcess({TessitorPath(), "app", "show", good});
    auto json = RunProcess({TessitorPath(), "app", "show", "--json", good});
    auto mismatch = RunProcess({TessitorPath(), "app", "show", bad});
    auto noLayout = RunProcess({TessitorPath(), "app", "show", unknown});
    auto unprintable = RunProcess({TessitorPath(), "app", "show", names});
    auto unprintableJson = RunProcess({TessitorPath(), "app", "show", "--json", names});
    auto missing = RunProcess({TessitorPath(), "app", "show", dir / "missing.dat"});
    auto folder = RunProcess({TessitorPath(), "app", "show", dir.Path().string()});

    EXPECT_EQ(0, shown.nStatus) << shown.sErr;
    EXPECT_EQ(0, shown.sOut.find("version: Bressa 1.0.4.2\nconnection: TCP/IP 10.0.0.200 RS232 Port 1\n"
                                 "program: 2 lines\n    MO=1\n    WT=100\nparameters: "))
        << shown.sOut;
    EXPECT_NE(std::string::npos, shown.sOut.find("\nUM = 3\nKP[1] = 7.500\nKP[2] = 0.500\nKP[3] = 100.000\n"));
    EXPECT_NE(std::string::npos, shown.sOut.find("\nMP[8] = 4\nOP = 0\n"));
    EXPECT_EQ(0, json.nStatus);
    EXPECT_NE(std::string::npos, json.sOut.find("\"program\": \"MO=1\\nWT=100\""));
    EXPECT_NE(std::string::npos,
              json.sOut.find("{\"name\": \"KP[2]\", \"mnemonic\": \"KP\", \"index\": 2, \"value\": \"0.500\"}"));
    EXPECT_NE(std::string::npos, json.sOut.find("{\"name\": \"UM\", \"mnemonic\": \"UM\", \"index\": null"));
    EXPECT_EQ(1, mismatch.nStatus);
    EXPECT_EQ("Size of this DAT file mismatch of the Version.\n", mismatch.sErr);
    EXPECT_EQ(std::string::npos, mismatch.sOut.find("KP[1]"));
    EXPECT_EQ(1, noLayout.nStatus);
    EXPECT_EQ("The version database has no parameter layout for the version \"Bressa 9.9.0.0\".\n", noLayout.sErr);
    EXPECT_NE(std::string::npos, unprintable.sOut.find("connection: none\nprogram: 0 lines\n"));
    EXPECT_NE(std::string::npos, unprintable.sOut.find("\nNM[1] = A\nNM[2] = x\nNM[3] = i\nNM[4] = s\nNM[5] = \\x00\n"));
    EXPECT_NE(std::string::npos, unprintableJson.sOut.find("\"name\": \"NM[5]\", \"mnemonic\": \"NM\", \"index\": 5, "
                                                           "\"value\": \"\\u0000\""));
    EXPECT_EQ(1, missing.nStatus);
    EXPECT_EQ("tessitor: cannot read " + dir / "missing.dat" + ": No such file or directory\n", missing.sErr);
    EXPECT_EQ(1, folder.nStatus);
    EXPECT_EQ("tessitor: cannot read " + dir.Path().string() + ": Is a directory\n", folder.sErr);
}

} // namespace
} // namespace tessitor
