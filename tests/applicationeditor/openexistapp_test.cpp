// Saving a drive into an application file and downloading it back, against
// the virtual drive: the version checks with their texts, the convert
// question and the real converter, the abort flag, the file rules of the
// save; the converter's command-line splitting and its conversion rules.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <future>
#include <thread>

#include "applicationeditor/appconverter.h"
#include "applicationeditor/converterprocess.h"
#include "applicationeditor/datfile.h"
#include "applicationeditor/openexistapp.h"
#include "applicationeditor/saveexistapp.h"
#include "tests/applicationeditor/apptesthelpers.h"
#include "tests/support/process.h"

namespace tessitor {
namespace {

using test::Connect;
using test::CScriptedUi;
using test::CTempDir;
using test::DriveLink;
using test::Face;
using Result = COpenExistApp::Result;

std::string Converter()
{
    std::string tessitor = test::TessitorPath();
    return tessitor.substr(0, tessitor.find_last_of('/') + 1) + kConverterProgram;
}

// Saves the drive into path; the result of the save.
CSaveExistApp::Result SaveDrive(DriveLink& d, const std::string& path)
{
    auto methods = CreateProductMethods(*d.pLink);
    return CSaveExistApp(*d.pLink, *methods).Save(path);
}

struct Downloaded {
    Result eResult;
    std::string sConverted;
    std::vector<std::string> arStatus; // status texts, then captions, as the window saw them
};

Downloaded DownloadInto(DriveLink& d, const std::string& path, Window* pWindow = nullptr,
                        std::atomic<std::int32_t>** ppAbort = nullptr)
{
    auto methods = CreateProductMethods(*d.pLink);
    COpenExistApp dialog(*d.pLink, methods.get(), pWindow);
    dialog.SetConverterProgram(Converter());
    if (ppAbort)
        *ppAbort = &dialog.AbortFlag();
    Result result = dialog.Download(path);
    EXPECT_EQ(kCaptionDownload, dialog.GetButtonCaption());
    return {result, dialog.GetConvertedPath(), {}};
}

std::string Image(DriveLink& d)
{
    return d.pDrive->Execute("IM").sValue;
}

// The window of the dialog: its status texts and captions as they came.
class CStatusWindow : public test::CRecordingWindow {
public:
    std::intptr_t SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        if (message == kMsgAppStatus || message == kMsgAppCaption)
            m_arTexts.emplace_back(reinterpret_cast<const char*>(lParam));
        if (m_OnMessage)
            m_OnMessage(message);
        return CRecordingWindow::SendMessage(message, wParam, lParam);
    }
    std::vector<std::string> m_arTexts;
    std::function<void(unsigned)> m_OnMessage;
};

TEST(OpenExistApp, VersionChecksRefuseWithTheSystemsTextsAndLeaveTheDriveAlone)
{
    CTempDir dir;
    CScriptedUi ui;
    DriveLink talvina = Connect("Talvina", Face::kSerial);
    ASSERT_EQ(CSaveExistApp::Result::kSaved, SaveDrive(talvina, dir / "talvina.dat"));
    DriveLink corvessa = Connect("Corvessa", Face::kSerial);
    ASSERT_EQ(CSaveExistApp::Result::kSaved, SaveDrive(corvessa, dir / "corvessa.dat"));
    {
        CDatFile patch(dir / "patch.dat");
        CDatFile talvinaFile(dir / "talvina.dat");
        for (const auto& g : talvinaFile.Groups())
            for (const auto& f : g->Fields())
                patch.SetValue(g->GetName(), f->m_sName, f->m_sValue);
        patch.SetVersionString("Talvina 2.1.9.9");
        patch.SetUserProgram("");
    }
    {
        CDatFile rs485(dir / "rs485.dat");
        rs485.SetValue("Version", "LOAD_VERSION_STRING", "Talvina 2.1.0.0");
        rs485.SetValue("Communication", "CommunicationType", "RS_485");
    }
    DriveLink oldDsp = Connect("Talvina", Face::kSerial, "", "Talvina 1.0.3.4");
    DriveLink oldStp = Connect("Vosk", Face::kSerial, "", "Vosk 1.0.3.4");
    std::string before = Image(talvina);
    talvina.pDrive->Execute("KP[3]=50");
    std::string changed = Image(talvina);

    Result products = DownloadInto(talvina, dir / "corvessa.dat").eResult;
    Result dspOld = DownloadInto(oldDsp, dir / "talvina.dat").eResult;
    Result stpOld = DownloadInto(oldStp, dir / "talvina.dat").eResult;
    Result rs485 = DownloadInto(talvina, dir / "rs485.dat").eResult;
    Result database = DownloadInto(talvina, dir / "old.MDB").eResult;
    Result other = DownloadInto(talvina, dir / "notes.txt").eResult;
    std::string untouched = Image(talvina);
    CStatusWindow window;
    Result patch = DownloadInto(talvina, dir / "patch.dat", &window).eResult;

    EXPECT_EQ(Result::kRefused, products);
    EXPECT_EQ(Result::kRefused, dspOld);
    EXPECT_EQ(Result::kRefused, stpOld);
    EXPECT_EQ(Result::kRefused, rs485);
    EXPECT_EQ(Result::kUnsupported, database);
    EXPECT_EQ(Result::kNothing, other);
    EXPECT_EQ(changed, untouched);
    ASSERT_EQ(5u, ui.m_arShown.size());
    EXPECT_EQ("Tessitor: Incompatible products:\nDriver - Talvina 2.1.0.0\nFile   - Corvessa 2.1.3.0", ui.m_arShown[0]);
    // A "DSP" drive passes the binary check whatever its version; the first numbers then differ.
    EXPECT_EQ("Tessitor: Incompatible versions:\nDriver - Talvina 1.0.3.4\nFile   - Talvina 2.1.0.0", ui.m_arShown[1]);
    EXPECT_EQ("Tessitor: This amplifier version nonsupports BINARY download", ui.m_arShown[2]);
    EXPECT_EQ("Tessitor: This file can't be Downloaded.", ui.m_arShown[3]);
    EXPECT_EQ(std::string("Tessitor: ") + kTextNoDatabases, ui.m_arShown[4]);
    // Third and fourth numbers never matter: no question, and a file without a program leaves the drive's.
    EXPECT_EQ(Result::kDownloaded, patch);
    EXPECT_EQ(before, Image(talvina));
    EXPECT_EQ(5u, ui.m_arShown.size());
    EXPECT_EQ((std::vector<std::string>{kCaptionBreak, kStatusProgram, kStatusParameters, kCaptionDownload}),
              window.m_arTexts);
}

TEST(OpenExistApp, ConverterThatCannotStartAndABreakAreReported)
{
    CTempDir dir;
    CScriptedUi ui;
    DriveLink newer = Connect("Talvina", Face::kSerial, "2.1.0.0");
    ASSERT_EQ(CSaveExistApp::Result::kSaved, SaveDrive(newer, dir / "drive.dat"));
    DriveLink older = Connect("Talvina", Face::kSerial, "2.0.0.0");
    auto methods = CreateProductMethods(*older.pLink);
    ui.m_nAnswer = IDYES;
    std::string fresh = Image(older);

    COpenExistApp missing(*older.pLink, methods.get());
    missing.SetConverterProgram(dir / "no-such-converter");
    Result notStarted = missing.Download(dir / "drive.dat");
    // Break while the program goes down: the parameters never follow.
    CStatusWindow window;
    auto newerMethods = CreateProductMethods(*newer.pLink);
    COpenExistApp broken(*newer.pLink, newerMethods.get(), &window);
    window.m_OnMessage = [&](unsigned message) {
        if (message == kMsgAppStatus && window.m_arTexts.back() == kStatusProgram)
            broken.AbortFlag() = 1;
    };
    newer.pDrive->Execute("KP[3]=77");
    Result aborted = broken.Download(dir / "drive.dat");

    EXPECT_EQ(Result::kNotConverted, notStarted);
    EXPECT_EQ(fresh, Image(older));
    ASSERT_EQ(3u, ui.m_arShown.size());
    EXPECT_EQ("Convert Error: Error create process:\n" + dir / "no-such-converter" + " /c \"" + dir / "drive.dat"
                  + "\" /h ",
              ui.m_arShown[1].substr(0, ui.m_arShown[1].find(" /h ") + 4));
    EXPECT_EQ(Result::kAborted, aborted);
    EXPECT_EQ(std::string("Tessitor: ") + kTextTerminated, ui.m_arShown[2]);
    EXPECT_EQ("77", newer.pDrive->Execute("KP[3]").sValue.substr(0, 2));
}

// The program goes down inside the user-program folder; a thread that is
// not downloading, asked while the program is on its way, is not moved.
TEST(OpenExistApp, ProgramGoesDownInTheUserProgramFolderOfTheDownloadingThreadAlone)
{
    CTempDir dir;
    CScriptedUi ui;
    DriveLink d = Connect("Talvina", Face::kSerial);
    ASSERT_EQ(CSaveExistApp::Result::kSaved, SaveDrive(d, dir / "drive.dat"));
    CDatFile(dir / "drive.dat").SetUserProgram("MO=1");
    std::filesystem::create_directory(dir / "programs");
    auto cwd = [] { return std::filesystem::current_path().string(); };
    const std::string start = cwd();

    std::promise<void> ask;
    std::promise<std::string> answer;
    std::future<std::string> otherDuring = answer.get_future();
    std::thread other([&] {
        ask.get_future().wait();
        answer.set_value(cwd());
    });
    auto methods = CreateProductMethods(*d.pLink);
    CStatusWindow window;
    COpenExistApp dialog(*d.pLink, methods.get(), &window);
    dialog.SetUserProgramFolder(dir / "programs");
    std::string during, otherSaw;
    window.m_OnMessage = [&](unsigned message) {
        if (message == kMsgTransferStart && during.empty()) {
            during = cwd();
            ask.set_value();
            otherSaw = otherDuring.get();
        }
    };
    Result result = dialog.Download(dir / "drive.dat");
    other.join();

    EXPECT_EQ(Result::kDownloaded, result);
    EXPECT_EQ(std::filesystem::canonical(dir / "programs").string(), during);
    EXPECT_EQ(start, otherSaw);
    EXPECT_EQ(start, cwd()) << "back where it was";
    EXPECT_EQ("MO=1", d.pDrive->Execute("LS").sValue);
}

TEST(SaveExistApp, KeepsWhatAFileHoldsRefusesReadOnlyFilesAndBadNames)
{
    CTempDir dir;
    // Connected first: a BreNol drive's identification warns through the Ui.
    DriveLink d = Connect("Nolvet", Face::kSerial, "1.3.0.0"); // binary capable, word-swapped
    DriveLink old = Connect("Bressa", Face::kSerial, "1.0.4.2");
    CScriptedUi ui;
    std::string existing = dir / "existing.dat", readOnly = dir / "ro.dat";
    test::WriteFile(existing, "<Notes>\r\n\t<Who>me<end_Who>\r\n<end_Notes>\r\n<UserProgram>\r\n\t<Program>old"
                              "<end_Program>\r\n\t<Author>me<end_Author>\r\n<end_UserProgram>\r\n");
    test::WriteFile(readOnly, "<Version>\r\n\t<LOAD_VERSION_STRING>x<end_LOAD_VERSION_STRING>\r\n<end_Version>\r\n");
    ::chmod(readOnly.c_str(), 0444);
    auto methods = CreateProductMethods(*d.pLink);
    std::vector<std::string> proposed;

    CSaveExistApp save(*d.pLink, *methods);
    auto over = save.Save(existing);
    auto refused = save.Save(readOnly);
    auto chosen = save.Save([&](std::string& path) {
        proposed.push_back(path);
        path = proposed.size() == 1 ? dir.Path().string() : dir / "second.dat";
        return true;
    });
    auto oldMethods = CreateProductMethods(*old.pLink);
    auto oldFormat = CSaveExistApp(*old.pLink, *oldMethods).Save(dir / "old.dat");

    EXPECT_EQ(CSaveExistApp::Result::kSaved, over);
    CDatFile file(existing);
    std::vector<std::string> groups;
    for (const auto& g : file.Groups())
        groups.push_back(g->GetName());
    EXPECT_EQ((std::vector<std::string>{"Notes", "UserProgram", "Version", "DownLoad", "Communication"}), groups);
    EXPECT_EQ("me", file.GetValue("UserProgram", "Author"));
    EXPECT_EQ("Nolvet 1.3.0.0", file.GetVersionString());
    EXPECT_EQ(CSaveExistApp::Result::kReadOnly, refused);
    EXPECT_EQ("<Version>\r\n\t<LOAD_VERSION_STRING>x<end_LOAD_VERSION_STRING>\r\n<end_Version>\r\n",
              test::ReadFile(readOnly));
    EXPECT_EQ(CSaveExistApp::Result::kSaved, chosen);
    EXPECT_EQ((std::vector<std::string>{"", ""}), proposed);
    EXPECT_EQ(CSaveExistApp::Result::kOldFormat, oldFormat);
    EXPECT_FALSE(std::filesystem::exists(dir / "old.dat"));
    ASSERT_EQ(3u, ui.m_arShown.size());
    EXPECT_EQ("Tessitor: Can't open file to write: " + readOnly
                  + " \nProbably the file name is wrong or file attribute is READ ONLY",
              ui.m_arShown[0]);
    EXPECT_EQ("Tessitor: Application name: " + dir.Path().string()
                  + "\n can't be use as a file name\nPlease enter another file name",
              ui.m_arShown[1]);
}

TEST(ConverterProcess, SplitsCommandLinesAsTheOriginalParserDid)
{
    using V = std::vector<std::string>;
    auto split = [](const std::string& line, const std::string& program = {}) {
        return CConverterProcess::SplitCommandLine(line, program);
    };

    EXPECT_EQ((V{"conv", "/c", "a b.dat", "/h", "0000000a", "/tv", "Talvina 2.0.0.0", "/auto"}),
              split("conv /c \"a b.dat\" /h 0000000a /tv \"Talvina 2.0.0.0\" /auto"));
    EXPECT_EQ((V{"/opt/my tools/conv", "/c", "x"}), split("/opt/my tools/conv /c x", "/opt/my tools/conv"));
    EXPECT_EQ((V{"C:\\a b\\c", "x"}), split("\"C:\\a b\\c\" x"));
    EXPECT_EQ((V{"p", "a\\\\b", "a\"b", "a\\\\b c", "say \"hi\"", ""}),
              split("p a\\\\b a\\\"b \"a\\\\b c\" \"say \"\"hi\"\"\" \"\""));
}

TEST(AppConverter, CarriesValuesOverAndResetsOrHoldsThoseOutsideTheNewLimits)
{
    CTempDir dir;
    test::WriteFile(dir / "versions.txt", "list A\nversion X 1.1.0.0\nwordswap 0\n"
                                          "KP 1 4 2 0 100 10 rws gain\nKI - 0 1 0 1000 5 rws corner\n"
                                          "OL - 0 1 0 9 1 rws gone\nend\n"
                                          "list B\nversion X 1.2.0.0\nwordswap 1\n"
                                          "KI - 0 1 0 100 7 rws corner\nKP 1 4 2 0 50 20 rws gain\n"
                                          "NW - 1 1 0 9 3 rws new\nend\n");
    auto db = std::make_shared<CVersionDb>(CVersionDb::Load(dir / "versions.txt"));
    CDatFile source(dir / "a.dat");
    source.SetVersionString("X 1.1.0.0");
    source.SetParams("0000C842" "F401" "0200"); // KP[1] 100.0, KI 500, OL 2
    source.SetValue("Extra", "Field", "kept");
    CDatFile reset(dir / "r.dat"), held(dir / "h.dat");

    auto resetReport = CAppConverter(db).Convert(source, "X 1.2.0.0", reset);
    auto heldReport = CAppConverter(db).Convert(source, "X 1.2.0.0", held, true);

    // Word-swapped target: KI 7 (reset) or 100 (held), KP[1] 20.0 or 50.0 with its halves exchanged, NW 3.
    EXPECT_EQ("0700" "A0410000" "0300", reset.GetParams());
    EXPECT_EQ("6400" "48420000" "0300", held.GetParams());
    EXPECT_EQ("X 1.2.0.0", reset.GetVersionString());
    EXPECT_EQ("kept", reset.GetValue("Extra", "Field"));
    EXPECT_EQ((std::vector<std::string>{"NW = 3 (new, its default)"}), resetReport.arAdded);
    EXPECT_EQ((std::vector<std::string>{"OL = 2 (dropped)"}), resetReport.arDropped);
    ASSERT_EQ(2u, resetReport.arChanged.size());
    EXPECT_EQ("KI: 500 is outside 0..100, set to its default 7", resetReport.arChanged[0]);
    EXPECT_EQ("KP[1]: 100.000 is outside 0..50, set to the limit 50.000", heldReport.arChanged[1]);
    EXPECT_EQ(CAppConverter::OutputPath("/d/a.b/drive.dat", "X 1.2.0.0"), "/d/a.b/drive-1.2.0.0.dat");
    EXPECT_THROW(CAppConverter(db).Convert(source, "Y 1.2.0.0", reset), std::runtime_error);
}

} // namespace
} // namespace tessitor
