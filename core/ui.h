// The message-box interface through which the core asks the user. The core
// never shows anything itself: the front end installs a Ui (terminal prompt,
// GUI dialog, scripted answers in tests) and the core calls MessageBox.
#pragma once

#include <string>

namespace tessitor {

class Window;

/// Button sets, icons and modality, with the Win32 values the system uses.
enum MessageBoxStyle : unsigned {
    MB_OK = 0x0,
    MB_OKCANCEL = 0x1,
    MB_YESNOCANCEL = 0x3,
    MB_YESNO = 0x4,
    MB_ICONSTOP = 0x10,
    MB_ICONERROR = 0x10,
    MB_ICONQUESTION = 0x20,
    MB_ICONWARNING = 0x30,
    MB_ICONINFORMATION = 0x40,
    MB_SYSTEMMODAL = 0x1000,
};

/// The button the user chose.
enum MessageBoxResult : int {
    IDOK = 1,
    IDCANCEL = 2,
    IDYES = 6,
    IDNO = 7,
};

class Ui {
public:
    virtual ~Ui() = default;
    /// Shows text under caption with the buttons of style; blocks until the
    /// user answers and returns the button. parent may be null.
    virtual int MessageBox(Window* parent, const std::string& text, const std::string& caption,
                           unsigned style) = 0;

    /// A link is about to wait for the answer to command from device
    /// (attempt of attempts; 1 of 1 where a transport does not retry).
    /// Called on the waiting thread for every wait, so it must be cheap; the
    /// front end decides whether and when to show it (a terminal shows a
    /// wait that lasts more than about a second). The strings are valid only
    /// during the call. Default: nothing.
    virtual void WaitBegin(const std::string& command, const std::string& device, int attempt, int attempts)
    {
        (void)command, (void)device, (void)attempt, (void)attempts;
    }
    /// The wait announced by the last WaitBegin on this thread has ended.
    virtual void WaitEnd() {}

    /// The Ui the core reports through. Never null: until a front end
    /// installs one, a Ui that writes to stderr and answers OK/No is used.
    static Ui& Current();
    /// Installs ui (not owned; must outlive its use); null restores the default.
    static void Install(Ui* ui);
};

} // namespace tessitor
