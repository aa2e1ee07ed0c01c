#include "ui/cli/signalthread.h"

#include <condition_variable>
#include <csignal>
#include <map>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace tessitor::cli {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr int kSignalExitBase = 128;

struct Registry {
    std::mutex mutex;
    int nextId = 0;
    std::map<int, std::function<void()>> cleanups;
    std::map<int, std::function<void()>> stopRequests; // of the CStopRequest objects alive
    bool stopRequested = false;
    std::condition_variable stopEvent;
};

Registry& TheRegistry()
{
    static Registry registry;
    return registry;
}

} // namespace

void CSignalThread::Start()
{
    sigset_t set;
    sigemptyset(&set);
    for (int signal : kSignals)
        sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set] {
        pthread_setname_np(pthread_self(), "SignalThread");
        Registry& registry = TheRegistry();
        int signal = 0;
        for (;;) {
            if (sigwait(&set, &signal) != 0)
                continue;
            std::unique_lock lock(registry.mutex);
            if (registry.stopRequests.empty()) {
                // The lock is never given back: a clean-up being unregistered
                // on another thread waits here until the process has ended.
                lock.release();
                break;
            }
            registry.stopRequested = true;
            for (auto& [id, onStop] : registry.stopRequests)
                if (onStop)
                    onStop();
            registry.stopEvent.notify_all();
        }
        for (auto it = registry.cleanups.rbegin(); it != registry.cleanups.rend(); ++it)
            it->second();
        ::_exit(kSignalExitBase + signal);
    }).detach();
}

CSignalThread::CCleanup::CCleanup(std::function<void()> action)
{
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    m_nId = registry.nextId++;
    registry.cleanups.emplace(m_nId, std::move(action));
}

CSignalThread::CCleanup::~CCleanup()
{
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.cleanups.erase(m_nId);
}

CSignalThread::CStopRequest::CStopRequest(std::function<void()> onStop)
{
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    if (registry.stopRequests.empty())
        registry.stopRequested = false;
    m_nId = registry.nextId++;
    registry.stopRequests.emplace(m_nId, std::move(onStop));
}

CSignalThread::CStopRequest::~CStopRequest()
{
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.stopRequests.erase(m_nId);
}

bool CSignalThread::CStopRequest::Wait(std::chrono::milliseconds timeout)
{
    Registry& registry = TheRegistry();
    std::unique_lock lock(registry.mutex);
    return registry.stopEvent.wait_for(lock, timeout, [&registry] { return registry.stopRequested; });
}

} // namespace tessitor::cli
