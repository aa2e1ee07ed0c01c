// Opening a stored application and downloading it into the connected drive:
// the drive's version against the file's (product, first and second
// number), the convert question and the converter, then the user program
// and the parameter image through the link's family methods. No front end
// here: questions and messages go through Ui::Current() with the system's
// texts and captions, the status text, the action button's caption and the
// transfers' progress through the Window given.
//
//   COpenExistApp dialog(*link, methods.get(), &window);
//   // another thread may set dialog.AbortFlag() to 1: the "&Break" button
//   COpenExistApp::Result result = dialog.Download("drive.dat");
//
// Communication failures are thrown (CCommunication::CExceptionComm) after
// the caption is back at "&Download"; every refusal has been shown.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "applicationeditor/productmethods.h"

namespace tessitor {

class CDatFile;
class Window;

/// The dialog's status text changed: lParam is the text (const char*,
/// valid during the call), wParam 0.
constexpr unsigned kMsgAppStatus = 0x404;
/// The action button's caption changed ("&Download", "&Break"): lParam as above.
constexpr unsigned kMsgAppCaption = 0x405;

/// The texts and captions of the open and save operations.
inline constexpr char kCaptionDownload[] = "&Download";
inline constexpr char kCaptionBreak[] = "&Break";
inline constexpr char kCaptionConvertError[] = "Convert Error";
inline constexpr char kCaptionTessitor[] = "Tessitor";
inline constexpr char kStatusProgram[] = "Program downloading...";
inline constexpr char kStatusParameters[] = "Parameters downloading...";
inline constexpr char kTextTerminated[] = "Proccess download application was terminated by User...";
/// The file choice of a front end: its title and its filter, as the
/// platform's file dialogs write filters ("text|pattern|...||").
inline constexpr char kOpenDialogTitle[] = "Open Existing Application";
inline constexpr char kOpenDialogFilter[] =
    "Binary Files (*.dat)|*.dat|ApplicationDB Files (*.mdb)|*.mdb|All Files (*.*)|*.*||";
/// The refusal of an application database: that path is not built yet.
inline constexpr char kTextNoDatabases[] = "Application databases (*.mdb) are not supported yet.";

class COpenExistApp {
public:
    /// How a download ended.
    enum class Result {
        kDownloaded,  ///< program and parameters are in the drive
        kRefused,     ///< a version check or the file refused it; the message was shown
        kDeclined,    ///< the user answered No to the convert question
        kAborted,     ///< stopped through the abort flag; the message was shown
        kNotConverted, ///< the converter failed or produced nothing; the drive is untouched
        kUnsupported, ///< an application database (".mdb"); the message was shown
        kNothing,     ///< an extension that is neither "dat" nor "mdb": nothing was done
    };

    /// link: the connected, identified drive. pMethods: its family methods,
    /// may be null (the download steps are then skipped). pWindow: status,
    /// caption and progress, may be null. None is owned.
    COpenExistApp(CCommunication& link, CProductMethods* pMethods, Window* pWindow = nullptr);
    virtual ~COpenExistApp() = default;
    COpenExistApp(const COpenExistApp&) = delete;
    COpenExistApp& operator=(const COpenExistApp&) = delete;

    /// The action button while idle: checks path against the drive and
    /// downloads it. Ui and Window are called on the calling thread.
    Result Download(const std::string& path);

    /// Set to nonzero (from any thread) to stop a download or a conversion
    /// at its next check; Download clears it when it starts.
    std::atomic<std::int32_t>& AbortFlag() { return m_nAbort; }
    /// The converter program (default CConverterProcess::DefaultProgram()).
    void SetConverterProgram(std::string program) { m_sConverter = std::move(program); }
    /// The folder the program download runs in ("" = stay where we are;
    /// default: the settings' [Tools] UserProgramFolder).
    void SetUserProgramFolder(std::string folder) { m_sProgramFolder = std::move(folder); }

    const std::string& GetDriveVersion() const { return m_sDriveVersion; }
    const std::string& GetFileVersion() const { return m_sFileVersion; }
    /// The file the converter produced in the last download ("" when none).
    const std::string& GetConvertedPath() const { return m_sConvertedPath; }
    const std::string& GetStatusText() const { return m_sStatus; }
    const std::string& GetButtonCaption() const { return m_sCaption; }

protected:
    /// The advanced conversion, asked for after the converter with the
    /// converted path and the version of the file as chosen; nonzero means
    /// failure ("Advanced convert is fault!"). This one checks that the
    /// converted file names the drive's version and that its image fits the
    /// drive's layout with every value inside the drive's limits.
    virtual int AdvancedConvert(const std::string& convertedPath, const std::string& fileVersion);

private:
    Result DownloadDat(const std::string& path);
    /// Runs the converter on file towards the drive's version and waits for
    /// its report; false (failure says how it ended, the message shown)
    /// when it could not start or was aborted.
    bool RunConverter(const std::string& file, int sleepMs, Result& failure);
    Result DownloadApplication(const CDatFile& file);
    void SetStatus(const std::string& text);
    void SetCaption(const char* caption);
    int Show(const std::string& text, const std::string& caption, unsigned style);
    Result Refuse(const std::string& text, const std::string& caption = kCaptionTessitor);

    CCommunication& m_Link;
    CProductMethods* m_pMethods;
    Window* m_pWindow;
    std::atomic<std::int32_t> m_nAbort{0};
    std::string m_sConverter;
    std::string m_sProgramFolder;
    std::string m_sDriveVersion;
    std::string m_sFileVersion;
    std::string m_sConvertedPath;
    std::string m_sStatus;
    std::string m_sCaption = kCaptionDownload;
};

/// Settings key (section kToolsSection) of the user-program folder.
inline constexpr char kUserProgramFolderKey[] = "UserProgramFolder";

} // namespace tessitor
