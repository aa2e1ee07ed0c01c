#include <gtest/gtest.h>

#include "communication/netmanager.h"

using namespace tessitor;

namespace {

// A link with no device: the manager's counting needs no wire.
class CNullLink : public CCommunication {
public:
    CNullLink(const CCommunicationInfo& info, std::vector<std::string>& log) : CCommunication(info), m_Log(log) {}
    // Runs before the base destructor tells the listeners.
    ~CNullLink() override { m_Log.push_back("deleted " + m_Info.GetShortName()); }
    int Connect() override
    {
        SetConnected(true);
        return 0;
    }
    void Disconnect() override
    {
        CCommunication::Disconnect();
        SetConnected(false);
    }

protected:
    int Exchange(const std::string&, std::string&, std::uint32_t, std::int32_t) override { return COM_OK; }

private:
    std::vector<std::string>& m_Log;
};

class CLogListener : public CCommunication::CListenerComm {
public:
    explicit CLogListener(std::vector<std::string>& log) : m_Log(log) {}
    void OnCommunicationDestroy(CCommunication* pCom) override
    {
        m_Log.push_back("destroy " + pCom->GetInfo().GetShortName());
    }
    void OnCommunicationDisconnect(CCommunication* pCom) override
    {
        m_Log.push_back("disconnect " + pCom->GetInfo().GetShortName());
    }

private:
    std::vector<std::string>& m_Log;
};

CCommunicationInfo Port(std::uint8_t port)
{
    CCommunicationInfo info;
    info.nPort = port;
    return info;
}

} // namespace

TEST(NetManager, SharesOneLinkPerDescriptorAndCountsItsUsers)
{
    std::vector<std::string> log;
    CLogListener listener(log);
    CCommunication::CNetManager manager(
        [&log](const CCommunicationInfo& info) { return std::make_unique<CNullLink>(info, log); });
    manager.AddListener(&listener);

    CCommunication* first = manager.GetInstance(Port(1));
    CCommunication* again = manager.GetInstance(Port(1));
    CCommunication* other = manager.GetInstance(Port(2));
    EXPECT_EQ(first, again);
    EXPECT_NE(first, other);
    EXPECT_EQ(manager.Count(), 2u);

    first->Connect();
    manager.ReleaseInstance(first);
    EXPECT_EQ(manager.Count(), 2u) << "one user still holds it";
    manager.ReleaseInstance(first);
    EXPECT_EQ(manager.Count(), 1u);
    EXPECT_EQ(log, (std::vector<std::string>{"disconnect _COM1", "deleted _COM1", "destroy _COM1"}));
}

TEST(NetManager, DestroysWhatItStillHoldsWhenItEnds)
{
    std::vector<std::string> log;
    CLogListener listener(log);
    {
        CCommunication::CNetManager manager(
            [&log](const CCommunicationInfo& info) { return std::make_unique<CNullLink>(info, log); });
        manager.AddListener(&listener);
        manager.GetInstance(Port(3))->Connect();
        manager.GetInstance(Port(4));
    }
    EXPECT_EQ(log, (std::vector<std::string>{"deleted _COM4", "destroy _COM4", "disconnect _COM3", "deleted _COM3",
                                             "destroy _COM3"}));
}

