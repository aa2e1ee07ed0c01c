#include "ui/cli/signalthread.h"

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
        int signal = 0;
        while (sigwait(&set, &signal) != 0) {
        }
        Registry& registry = TheRegistry();
        // The lock is never given back: a clean-up being unregistered on
        // another thread waits here until the process has ended.
        registry.mutex.lock();
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

} // namespace tessitor::cli
