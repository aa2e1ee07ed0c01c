// Shared links: one link object per descriptor, handed out to every user
// of the same drive and counted; the manager destroys what it still holds
// when it ends.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "communication/communication.h"

namespace tessitor {

class CCommunication::CNetManager {
public:
    using Factory = std::function<std::unique_ptr<CCommunication>(const CCommunicationInfo&)>;

    explicit CNetManager(Factory factory);
    /// Destroys every link still held (DestroyInstance), telling listeners.
    ~CNetManager();

    /// The link equal to info (CCommunicationInfo::IsEqual), made through the
    /// factory when there is none; each call counts one more user. The
    /// manager owns the link.
    CCommunication* GetInstance(const CCommunicationInfo& info);
    /// One user less; the link is destroyed when the last one releases it.
    void ReleaseInstance(CCommunication* pCom);
    /// Disconnects and destroys the link at once, whatever its count.
    void DestroyInstance(CCommunication* pCom);
    /// Listeners added to every link the manager makes from now on.
    void AddListener(CListenerComm* pListener);
    void RemoveListener(CListenerComm* pListener);
    std::size_t Count() const;

private:
    struct Entry {
        std::unique_ptr<CCommunication> link;
        int users = 0;
    };
    Factory m_Factory;
    mutable std::mutex m_csLinks;
    std::vector<CListenerComm*> m_arListeners;
    std::vector<Entry> m_arLinks;
};

} // namespace tessitor
