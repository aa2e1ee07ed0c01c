#include "applicationeditor/saveexistapp.h"

#include <climits>
#include <filesystem>
#include <memory>

#include "applicationeditor/appversion.h"
#include "applicationeditor/datfile.h"
#include "applicationeditor/openexistapp.h"
#include "core/strformat.h"
#include "core/ui.h"

namespace tessitor {

CSaveExistApp::CSaveExistApp(CCommunication& link, CProductMethods& methods, Window* pWindow)
    : m_Link(link), m_Methods(methods), m_pWindow(pWindow)
{
}

bool CSaveExistApp::IsValidFileName(const std::string& path)
{
    if (path.empty() || path.back() == '/' || path.find('\0') != std::string::npos)
        return false;
    std::string name = path.substr(path.find_last_of('/') + 1);
    if (name == "." || name == ".." || name.size() > NAME_MAX)
        return false;
    std::error_code ignored;
    return !std::filesystem::is_directory(path, ignored);
}

CSaveExistApp::Result CSaveExistApp::Save(const std::string& path)
{
    bool asked = false;
    return Save([&](std::string& choice) {
        if (asked)
            return false;
        asked = true;
        choice = path;
        return true;
    });
}

CSaveExistApp::Result CSaveExistApp::Save(const FileChooser& choose)
{
    m_nAbort = 0;
    Ui& ui = Ui::Current();
    if (m_Link.GetProcessorType() != "DSP" && !CAppVersion(m_Link.GetVersionText()).IsBinaryCapable()) {
        ui.MessageBox(m_pWindow, kTextNoOldFormat, kCaptionTessitor, MB_OK | MB_ICONSTOP);
        return Result::kOldFormat;
    }

    std::string path;
    for (;;) {
        if (!choose(path))
            return Result::kCancelled;
        if (IsValidFileName(path))
            break;
        ui.MessageBox(m_pWindow, "Application name: " + path + "\n can't be use as a file name\nPlease enter another file name",
                      kCaptionTessitor, MB_OK | MB_ICONWARNING);
        path.clear();
    }

    auto file = std::make_unique<CDatFile>(path);
    if (!file->IsLoaded()) {
        // A new file: written at once, empty, so that a name that cannot be
        // written is found out before anything is uploaded.
        file->RemoveAll();
        file->Update(true);
    }
    if (!file->IsLoaded() || file->IsReadOnly()) {
        // A read-only file was loaded and not changed, so nothing is written to it.
        ui.MessageBox(m_pWindow, StrFormat(kTextCannotWrite, path.c_str()), kCaptionTessitor, MB_OK | MB_ICONSTOP);
        return Result::kReadOnly;
    }

    file->SetVersionString(m_Link.GetVersionText());
    m_Methods.SetAbortFlag(&m_nAbort);
    struct CUnwatch {
        CProductMethods& rMethods;
        ~CUnwatch() { rMethods.SetAbortFlag(nullptr); }
    } unwatch{m_Methods};
    try {
        // A failed upload ends here; the file, being modified, is written
        // with the new version and its earlier parameters.
        file->SetParams(m_Methods.UploadImage(m_pWindow));
        file->SetCommunicationInfo(m_Link.GetInfo());
        file->SetUserProgram(m_Methods.UploadProgram());
    } catch (const CTransferAborted&) {
        return Result::kAborted;
    }

    file->Update(true);
    if (!file->IsLoaded()) {
        ui.MessageBox(m_pWindow, StrFormat(kTextCannotWrite, path.c_str()), kCaptionTessitor, MB_OK | MB_ICONSTOP);
        return Result::kReadOnly;
    }
    return Result::kSaved;
}

} // namespace tessitor
