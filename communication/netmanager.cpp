#include "communication/netmanager.h"

#include <algorithm>

namespace tessitor {

CCommunication::CNetManager::CNetManager(Factory factory) : m_Factory(std::move(factory)) {}

CCommunication::CNetManager::~CNetManager()
{
    while (true) {
        CCommunication* link = nullptr;
        {
            std::lock_guard lock(m_csLinks);
            if (m_arLinks.empty())
                break;
            link = m_arLinks.back().link.get();
        }
        DestroyInstance(link);
    }
}

CCommunication* CCommunication::CNetManager::GetInstance(const CCommunicationInfo& info)
{
    std::lock_guard lock(m_csLinks);
    for (Entry& entry : m_arLinks)
        if (entry.link->GetInfo().IsEqual(info)) {
            ++entry.users;
            return entry.link.get();
        }
    std::unique_ptr<CCommunication> link = m_Factory(info);
    if (!link)
        return nullptr;
    for (CListenerComm* listener : m_arListeners)
        link->AddListenerCom(listener);
    m_arLinks.push_back({std::move(link), 1});
    return m_arLinks.back().link.get();
}

void CCommunication::CNetManager::ReleaseInstance(CCommunication* pCom)
{
    {
        std::lock_guard lock(m_csLinks);
        auto it = std::find_if(m_arLinks.begin(), m_arLinks.end(), [&](const Entry& e) { return e.link.get() == pCom; });
        if (it == m_arLinks.end() || --it->users > 0)
            return;
    }
    DestroyInstance(pCom);
}

void CCommunication::CNetManager::DestroyInstance(CCommunication* pCom)
{
    std::unique_ptr<CCommunication> link;
    {
        std::lock_guard lock(m_csLinks);
        auto it = std::find_if(m_arLinks.begin(), m_arLinks.end(), [&](const Entry& e) { return e.link.get() == pCom; });
        if (it == m_arLinks.end())
            return;
        link = std::move(it->link);
        m_arLinks.erase(it);
    }
    // Outside the lock: listeners told of the disconnect may call back.
    if (link->IsConnected())
        link->Disconnect();
}

void CCommunication::CNetManager::AddListener(CListenerComm* pListener)
{
    std::lock_guard lock(m_csLinks);
    if (std::find(m_arListeners.begin(), m_arListeners.end(), pListener) == m_arListeners.end())
        m_arListeners.push_back(pListener);
}

void CCommunication::CNetManager::RemoveListener(CListenerComm* pListener)
{
    std::lock_guard lock(m_csLinks);
    std::erase(m_arListeners, pListener);
}

std::size_t CCommunication::CNetManager::Count() const
{
    std::lock_guard lock(m_csLinks);
    return m_arLinks.size();
}

} // namespace tessitor
