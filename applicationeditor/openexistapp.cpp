#include "applicationeditor/openexistapp.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>

#include "applicationeditor/appversion.h"
#include "applicationeditor/converterprocess.h"
#include "applicationeditor/datfile.h"
#include "applicationeditor/nolbremethods.h"
#include "applicationeditor/versiondb.h"
#include "core/settings.h"
#include "core/strformat.h"
#include "core/trace.h"
#include "core/ui.h"
#include "core/window.h"

namespace tessitor {

namespace {

// The converter's command line for a "dat" file: program, file, report descriptor, drive version.
constexpr char kConvertDatFormat[] = "%s /c \"%s\" /h %08x /tv \"%s\" /auto";
// The pause before waiting for the converter on the "dat" path [ms]; the
// "mdb" path waited 1000 ms. Both are what the converter has always been given.
constexpr int kConvertDatSleepMs = 100;

std::string Extension(const std::string& path)
{
    std::size_t slash = path.find_last_of('/');
    std::size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return {};
    std::string ext = path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
}

// The program download runs in the user-program folder, and goes back where
// it was afterwards. The change is the calling thread's alone: the thread
// first takes its own copy of the folder state (unshare CLONE_FS), so the
// GUI's other threads never see their working folder move.
class CWorkingFolder {
public:
    explicit CWorkingFolder(const std::string& folder)
    {
        if (folder.empty())
            return;
        thread_local bool ownFolderState = false;
        if (!ownFolderState) {
            if (::unshare(CLONE_FS) != 0) {
                Trace::Printf("COpenExistApp: cannot change to the user-program folder %s: %s\n", folder.c_str(),
                              std::strerror(errno));
                return;
            }
            ownFolderState = true;
        }
        char* old = ::getcwd(nullptr, 0);
        if (!old)
            return;
        m_sOld = old;
        ::free(old);
        if (::chdir(folder.c_str()) != 0) {
            Trace::Printf("COpenExistApp: cannot change to the user-program folder %s: %s\n", folder.c_str(),
                          std::strerror(errno));
            m_sOld.clear();
        }
    }
    ~CWorkingFolder()
    {
        if (!m_sOld.empty() && ::chdir(m_sOld.c_str()) != 0)
            Trace::Printf("COpenExistApp: cannot change back to %s\n", m_sOld.c_str());
    }
    CWorkingFolder(const CWorkingFolder&) = delete;
    CWorkingFolder& operator=(const CWorkingFolder&) = delete;

private:
    std::string m_sOld;
};

// The methods check the dialog's abort flag only while one download runs.
class CAbortWatch {
public:
    CAbortWatch(CProductMethods& methods, const std::atomic<std::int32_t>* pAbort) : m_rMethods(methods)
    {
        m_rMethods.SetAbortFlag(pAbort);
    }
    ~CAbortWatch() { m_rMethods.SetAbortFlag(nullptr); }
    CAbortWatch(const CAbortWatch&) = delete;
    CAbortWatch& operator=(const CAbortWatch&) = delete;

private:
    CProductMethods& m_rMethods;
};

} // namespace

COpenExistApp::COpenExistApp(CCommunication& link, CProductMethods* pMethods, Window* pWindow)
    : m_Link(link), m_pMethods(pMethods), m_pWindow(pWindow)
{
    Settings settings = Settings::User();
    m_sProgramFolder = settings.GetString(kToolsSection, kUserProgramFolderKey);
}

void COpenExistApp::SetStatus(const std::string& text)
{
    m_sStatus = text;
    if (m_pWindow)
        m_pWindow->SendMessage(kMsgAppStatus, 0, reinterpret_cast<std::intptr_t>(m_sStatus.c_str()));
}

void COpenExistApp::SetCaption(const char* caption)
{
    m_sCaption = caption;
    if (m_pWindow)
        m_pWindow->SendMessage(kMsgAppCaption, 0, reinterpret_cast<std::intptr_t>(m_sCaption.c_str()));
}

int COpenExistApp::Show(const std::string& text, const std::string& caption, unsigned style)
{
    return Ui::Current().MessageBox(m_pWindow, text, caption, style);
}

COpenExistApp::Result COpenExistApp::Refuse(const std::string& text, const std::string& caption)
{
    Show(text, caption, MB_OK | MB_ICONSTOP);
    return Result::kRefused;
}

COpenExistApp::Result COpenExistApp::Download(const std::string& path)
{
    m_nAbort = 0;
    m_sConvertedPath.clear();
    m_sDriveVersion.clear();
    m_sFileVersion.clear();
    SetCaption(kCaptionBreak);
    // Every way out, a thrown failure too, leaves the button ready for the next download.
    struct CRestore {
        COpenExistApp& rDialog;
        ~CRestore() { rDialog.SetCaption(kCaptionDownload); }
    } restore{*this};

    if (m_pMethods)
        m_sDriveVersion = m_pMethods->SendCommand("VR", kMethodsCommandTimeoutMs);
    else
        m_Link.SendCommandGetValue("VR", m_sDriveVersion, kMethodsCommandTimeoutMs);

    std::string ext = Extension(path);
    if (ext == "dat")
        return DownloadDat(path);
    if (ext == "mdb") {
        Show(kTextNoDatabases, kCaptionTessitor, MB_OK | MB_ICONSTOP);
        return Result::kUnsupported;
    }
    return Result::kNothing;
}

COpenExistApp::Result COpenExistApp::DownloadDat(const std::string& path)
{
    CAppVersion drive(m_sDriveVersion);
    if (!drive.IsBinaryCapable() && m_Link.GetProcessorType() != "DSP")
        return Refuse("This amplifier version nonsupports BINARY download");

    auto file = std::make_unique<CDatFile>(path);
    if (!file->IsLoaded())
        return Refuse(StrFormat("Can't open file to read: %s", path.c_str()));
    int kind = file->GetCommunicationInfo().GetKind();
    if (kind != kKindRs232 && kind != kKindCan && kind != kKindTcp)
        return Refuse("This file can't be Downloaded.");

    m_sFileVersion = file->GetVersionString();
    CAppVersion version(m_sFileVersion);
    if (drive.GetProduct() != version.GetProduct())
        return Refuse(StrFormat("Incompatible products:\nDriver - %s\nFile   - %s", m_sDriveVersion.c_str(),
                                m_sFileVersion.c_str()));
    if (drive.GetNumber(0) != version.GetNumber(0))
        return Refuse(StrFormat("Incompatible versions:\nDriver - %s\nFile   - %s", m_sDriveVersion.c_str(),
                                m_sFileVersion.c_str()));
    if (drive.GetNumber(1) != version.GetNumber(1)) {
        int answer = Show(StrFormat("Difference versions:\nDriver - %s\nFile   - %s\nDo you want to make convert?",
                                    m_sDriveVersion.c_str(), m_sFileVersion.c_str()),
                          kCaptionTessitor, MB_YESNO | MB_ICONQUESTION);
        if (answer != IDYES)
            return Result::kDeclined;
        Result failure = Result::kNotConverted;
        if (!RunConverter(path, kConvertDatSleepMs, failure))
            return failure;
        if (m_sConvertedPath.empty()) {
            // The converter has told the user why; nothing goes to the drive.
            SetStatus("");
            return Result::kNotConverted;
        }
        if (AdvancedConvert(m_sConvertedPath, m_sFileVersion) != 0)
            Show("Advanced convert is fault!", kCaptionConvertError, MB_OK | MB_ICONSTOP);
        file = std::make_unique<CDatFile>(m_sConvertedPath);
    }
    return DownloadApplication(*file);
}

bool COpenExistApp::RunConverter(const std::string& file, int sleepMs, Result& failure)
{
    m_sConvertedPath.clear();
    std::string program = m_sConverter.empty() ? CConverterProcess::DefaultProgram() : m_sConverter;
    CConverterProcess converter;
    int descriptor = converter.OpenReportPipe();
    std::string line = StrFormat(kConvertDatFormat, program.c_str(), file.c_str(), static_cast<unsigned>(descriptor),
                                 m_sDriveVersion.c_str());
    if (descriptor < 0 || !converter.Start(program, line)) {
        Show("Error create process:\n" + line, kCaptionConvertError, MB_OK | MB_ICONSTOP);
        failure = Result::kNotConverted;
        return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(sleepMs));
    if (!converter.WaitReport(m_sConvertedPath, &m_nAbort)) {
        Show(kTextTerminated, kCaptionTessitor, MB_OK | MB_ICONINFORMATION);
        failure = Result::kAborted;
        return false;
    }
    return true;
}

COpenExistApp::Result COpenExistApp::DownloadApplication(const CDatFile& file)
{
    try {
        SetStatus(kStatusProgram);
        std::string program = file.GetUserProgram();
        if (!program.empty() && m_pMethods) {
            CWorkingFolder folder(m_sProgramFolder);
            CAbortWatch watch(*m_pMethods, &m_nAbort);
            m_pMethods->DownloadProgram(program, m_pWindow);
            // This family leaves the compile to the one who downloads.
            if (dynamic_cast<CNolBreMethods*>(m_pMethods))
                m_pMethods->SendCommand("CC", kMethodsCommandTimeoutMs);
        }
        SetStatus(kStatusParameters);
        if (m_pMethods) {
            CAbortWatch watch(*m_pMethods, &m_nAbort);
            m_pMethods->DownloadImage(file.GetParams(), m_pWindow);
        }
    } catch (const CTransferAborted&) {
        Show(kTextTerminated, kCaptionTessitor, MB_OK | MB_ICONINFORMATION);
        return Result::kAborted;
    }
    return Result::kDownloaded;
}

int COpenExistApp::AdvancedConvert(const std::string& convertedPath, const std::string& fileVersion)
{
    (void)fileVersion;
    CDatFile converted(convertedPath);
    CAppVersion drive(m_sDriveVersion), version(converted.GetVersionString());
    if (!converted.IsLoaded() || drive.GetProduct() != version.GetProduct()
        || drive.GetNumber(0) != version.GetNumber(0) || drive.GetNumber(1) != version.GetNumber(1))
        return 1;
    std::shared_ptr<const CVersionDb> db;
    try {
        db = CVersionDb::Default();
    } catch (const std::runtime_error& e) {
        Trace::Printf("COpenExistApp::AdvancedConvert: %s\n", e.what());
        return 1;
    }
    const VersionLayout* layout = db->Find(m_sDriveVersion);
    std::vector<std::uint8_t> image;
    if (!layout || !layout->ImageFromText(converted.GetParams(), image).empty())
        return 1;
    std::size_t offset = 0;
    for (const CControlItem& item : layout->arItems) {
        double value = item.GetValue(image.data() + offset, layout->bWordSwap);
        if (!item.IsWithinLimits(value))
            return 1;
        offset += static_cast<std::size_t>(item.GetSize());
    }
    return 0;
}

} // namespace tessitor
