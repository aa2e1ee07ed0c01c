// SIGINT, SIGTERM and SIGHUP end the command cleanly: a thread of its own
// waits for them (nothing runs in a signal handler), runs the clean-ups
// registered (close the open link so its port gets its settings back,
// give the terminal back its modes) and exits with 128 + the signal.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace tessitor::cli {

class CSignalThread {
public:
    /// Blocks the signals in the calling thread and starts the waiting
    /// thread. Call it before any other thread starts, so that every thread
    /// inherits the blocked mask and only the waiting thread takes them.
    static void Start();

    /// A clean-up registered while the object lives; run on the signal
    /// thread, the latest first. Destroying it waits for a running clean-up.
    class CCleanup {
    public:
        explicit CCleanup(std::function<void()> action);
        ~CCleanup();
        CCleanup(const CCleanup&) = delete;
        CCleanup& operator=(const CCleanup&) = delete;

    private:
        int m_nId;
    };

    /// While one lives, the signals end its Wait instead of the program,
    /// and run onStop (on the signal thread; keep it short): for a command
    /// whose normal end is Ctrl-C (watching a bus) or that winds its work
    /// down itself (a recording stops the drive's recorder first).
    class CStopRequest {
    public:
        explicit CStopRequest(std::function<void()> onStop = {});
        ~CStopRequest();
        CStopRequest(const CStopRequest&) = delete;
        CStopRequest& operator=(const CStopRequest&) = delete;
        /// True once a signal has come; waits up to timeout for one.
        bool Wait(std::chrono::milliseconds timeout);

    private:
        int m_nId;
    };
};

} // namespace tessitor::cli
