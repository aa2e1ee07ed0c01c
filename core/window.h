// The window interface workers report to. Workers post numbered messages
// (kMsgRecProgress and friends, defined by each subsystem) with two
// parameters; a front end turns them into a progress bar or a view update.
#pragma once

#include <cstdint>

namespace tessitor {

class Window {
public:
    virtual ~Window() = default;
    /// Queues the message and returns at once; may be called from any thread.
    virtual void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) = 0;
    /// Delivers the message and returns the window's answer.
    virtual std::intptr_t SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) = 0;
};

} // namespace tessitor
