// Saving a drive as an application file: its version, its parameter image
// and its user program uploaded through the link's family methods, and the
// connection settings, stored into the file chosen. A file that exists is
// loaded first, so its groups keep their order and its other groups and
// fields stay; new groups follow in the order "Version", "DownLoad",
// "Communication", "UserProgram". No front end here: the file choice is a
// callback, messages go through Ui::Current(), progress to the Window.
//
//   CSaveExistApp save(*link, *methods, &window);
//   save.Save("drive.dat");        // or Save(chooser), which may ask again
//
// The version is stored before the image is uploaded: when the upload fails
// the file keeps its earlier parameters and gains the new version. That
// failure is thrown (CCommunication::CExceptionComm) after the file is written.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "applicationeditor/productmethods.h"

namespace tessitor {

class Window;

class CSaveExistApp {
public:
    enum class Result {
        kSaved,     ///< the file holds the drive's application
        kCancelled, ///< the file choice was cancelled
        kOldFormat, ///< the drive takes no binary image; the message was shown
        kReadOnly,  ///< the file cannot be written; the READ ONLY message was shown
        kAborted,   ///< stopped through the abort flag (the version is saved already)
    };
    /// Asks for the file: path holds the name to propose ("" after an
    /// invalid one) and receives the choice; false = cancel.
    using FileChooser = std::function<bool(std::string& path)>;

    /// link: the connected, identified drive; methods: its family methods;
    /// pWindow: transfer progress, may be null. None is owned.
    CSaveExistApp(CCommunication& link, CProductMethods& methods, Window* pWindow = nullptr);

    /// Saves into the file choose gives; an invalid name is refused with
    /// its message and choose is asked again with an empty name.
    Result Save(const FileChooser& choose);
    /// Saves into path (asked once: an invalid name ends as kCancelled
    /// after its message).
    Result Save(const std::string& path);

    /// Set to nonzero (from any thread) to stop the uploads at their next check.
    std::atomic<std::int32_t>& AbortFlag() { return m_nAbort; }

    /// False for a name no file can have: empty, a folder, ending in "/",
    /// ".", "..", a NUL byte, or a last part longer than NAME_MAX.
    static bool IsValidFileName(const std::string& path);

private:
    CCommunication& m_Link;
    CProductMethods& m_Methods;
    Window* m_pWindow;
    std::atomic<std::int32_t> m_nAbort{0};
};

/// What the save shows for a file it cannot write ("%s": the path).
inline constexpr char kTextCannotWrite[] =
    "Can't open file to write: %s \nProbably the file name is wrong or file attribute is READ ONLY";
/// The refusal of a drive whose parameters only the old format can hold.
inline constexpr char kTextNoOldFormat[] =
    "This amplifier version nonsupports BINARY upload; saving in the old format is not supported yet.";

} // namespace tessitor
