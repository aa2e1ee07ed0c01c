// The virtual network device against clients that misbehave: more
// connections than it serves, idle and stalled ones, handle leaks, a full
// descriptor table; in this process and as `tessitor sim --tcp`.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "communication/netdevice.h"
#include "communication/tcp.h"
#include "sim/simtcpserver.h"
#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"

namespace tessitor {
namespace {

using namespace std::chrono_literals;

int RawConnect(std::uint16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// A frame header: payload length, function ID, third word, little endian.
std::string Header(std::uint32_t length, std::uint32_t functionId, std::uint32_t word3)
{
    std::string bytes;
    for (std::uint32_t v : {length, functionId, word3})
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(v >> shift & 0xFF);
    return bytes;
}

void SendAll(int fd, const std::string& bytes)
{
    ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// True when the device closes the connection within ms (end of stream or reset).
bool ClosedWithin(int fd, int ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    char sink[4096];
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 50) > 0) {
            ssize_t n = ::recv(fd, sink, sizeof sink, 0);
            if (n <= 0)
                return true;
        }
    }
    return false;
}

CCommunicationInfo TcpInfo(const std::string& target)
{
    CCommunicationInfo info;
    info.m_sCommType = "TCP";
    info.abIP = {127, 0, 0, 1};
    info.sDesc = target;
    return info;
}

std::string Value(CCommunication& link, const std::string& command)
{
    std::string value;
    link.SendCommandGetValue(command, value, 2000);
    return value;
}

long RssKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (status >> key) {
        if (key == "VmRSS:") {
            long kib = 0;
            status >> kib;
            return kib;
        }
        status.ignore(1 << 16, '\n');
    }
    return -1;
}

// True when a new client is served within about 20 s (slots and descriptors
// come free as the device drops what it was holding).
bool NewClientServed(std::uint16_t port)
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        CTCP link(TcpInfo("RS232 Port 2"), port);
        if (link.Connect() == 0 && Value(link, "VR") == "Talvina 2.1.0.0")
            return true;
        std::this_thread::sleep_for(200ms);
    }
    return false;
}

std::uint16_t PortOf(const std::string& hostPort)
{
    return static_cast<std::uint16_t>(std::stoi(hostPort.substr(hostPort.rfind(':') + 1)));
}

} // namespace

TEST(SimTcpLimitsTest, ExcessRefusedIdleAndStalledDroppedHandlesCapped)
{
    sim::CSimTcpServer device;
    device.SetLimits({.nMaxClients = 2, .nIdleTimeoutMs = 400, .nStallTimeoutMs = 400, .nMaxHandles = 3});
    device.Start();

    int idle = RawConnect(device.Port());
    int stalled = RawConnect(device.Port());
    SendAll(stalled, Header(1000, 1, 0) + std::string(10, 'x'));
    while (device.ClientCount() < 2)
        std::this_thread::sleep_for(1ms);
    int excess = RawConnect(device.Port());

    EXPECT_TRUE(ClosedWithin(excess, 20000)) << "over the cap";
    EXPECT_EQ(device.RefusedCount(), 1);
    EXPECT_TRUE(ClosedWithin(stalled, 20000)) << "stalled mid-frame";
    EXPECT_TRUE(ClosedWithin(idle, 20000)) << "idle";
    for (int fd : {idle, stalled, excess})
        ::close(fd);

    // Handles are capped per connection; a closed one is free again.
    auto net = std::make_shared<CNetDevice>("127.0.0.1", device.Port());
    ASSERT_TRUE(net->Connect(5000));
    std::vector<CNetDevice::Drive> opened;
    for (int i = 0; i < 3; ++i)
        opened.push_back(net->OpenDrive("RS232 Port 1", 2000));
    CNetDevice::Drive fourth = net->OpenDrive("RS232 Port 2", 2000);
    std::string refusal = CNetDevice::LastError();
    net->CloseDrive(opened[1]);
    CNetDevice::Drive again = net->OpenDrive("RS232 Port 2", 2000);

    EXPECT_EQ(opened[2].nHandle, 3u);
    EXPECT_FALSE(fourth.IsOpen());
    EXPECT_NE(refusal.find("at most 3 drives can be open on one connection"), std::string::npos) << refusal;
    EXPECT_EQ(again.nHandle, 2u) << "the freed handle number is reused";
    std::string value;
    EXPECT_EQ(net->SendCommand(again, "VR", value, 2000), 0);
    EXPECT_EQ(value, "Talvina 2.1.0.0");
}

// Waves of misbehaving connections against `tessitor sim --tcp`, while one
// well-behaved client keeps working on its own connection.
TEST(SimTcpLimitsTest, SoakServesANormalClientWithBoundedMemory)
{
    test::CBackgroundProcess sim(
        {test::TessitorPath(), "sim", "--tcp", "0", "--max-clients", "4", "--idle-timeout", "1"});
    std::uint16_t port = PortOf(sim.FirstLine());
    ASSERT_NE(port, 0);
    CTCP link(TcpInfo("RS232 Port 1"), port);
    ASSERT_EQ(link.Connect(), 0);
    ASSERT_EQ(Value(link, "MO=1"), "");
    long baseline = RssKiB(sim.Pid());

    std::atomic<bool> abusing{true};
    std::atomic<int> served{0};
    std::string failure;
    std::thread normal([&] {
        try {
            while (abusing) {
                Value(link, "PX");
                ++served;
                std::this_thread::sleep_for(10ms);
            }
        } catch (CCommunication::CExceptionComm& e) {
            failure = e.FillMessage();
        }
    });
    long peak = 0;
    std::vector<int> fds; // held to the end: the device must let go of them itself
    for (int wave = 0; wave < 6; ++wave) {
        for (int i = 0; i < 12; ++i) {
            int fd = RawConnect(port);
            if (fd < 0)
                continue;
            if (i % 2 == 0) // a big request, mostly sent, then silence
                SendAll(fd, Header(1 << 20, 3, 1) + std::string(900 << 10, 'x'));
            else if (i % 4 == 1) // a length past the cap
                SendAll(fd, Header(64u << 20, 3, 1));
            fds.push_back(fd); // else idle
        }
        std::this_thread::sleep_for(300ms);
        peak = std::max(peak, RssKiB(sim.Pid()));
    }
    for (int fd : fds)
        ::close(fd);
    abusing = false;
    normal.join();

    EXPECT_EQ(failure, "");
    EXPECT_GT(served.load(), 0);
    EXPECT_LT(peak - baseline, 16 * 1024) << "resident memory grew from " << baseline << " KiB to " << peak;
    EXPECT_TRUE(NewClientServed(port)) << "slots freed by the time-outs serve a new client";
    link.Disconnect();
    EXPECT_EQ(sim.Stop(SIGINT), 0);
}

// At the descriptor limit accept fails; the device backs off instead of
// spinning, and serves again once descriptors are free.
TEST(SimTcpLimitsTest, BacksOffWhenOutOfDescriptors)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizer runtimes open descriptors of their own (symbolizing,
    // type checks); with the table full they report faults of their own.
    GTEST_SKIP() << "descriptor exhaustion is tested in the normal build only";
#endif
    std::string trace = ::testing::TempDir() + "simtcp-backoff-" + std::to_string(::getpid()) + ".trace";
    std::string command = "ulimit -n 24 && TESSITOR_TRACE=" + trace + " exec " + test::TessitorPath()
                          + " sim --tcp 0 --max-clients 100";
    test::CBackgroundProcess sim({"/bin/sh", "-c", command});
    std::uint16_t port = PortOf(sim.FirstLine());
    ASSERT_NE(port, 0);

    std::vector<int> fds;
    for (int i = 0; i < 40; ++i)
        fds.push_back(RawConnect(port));
    std::this_thread::sleep_for(1500ms);
    for (int fd : fds)
        ::close(fd);
    bool served = NewClientServed(port);
    EXPECT_EQ(sim.Stop(SIGINT), 0);

    std::ifstream in(trace);
    int failedAccepts = 0;
    for (std::string line; std::getline(in, line);)
        failedAccepts += line.rfind("SimTcpServer: accept:", 0) == 0;
    std::remove(trace.c_str());
    EXPECT_TRUE(served);
    EXPECT_GT(failedAccepts, 0) << "the descriptor limit was never reached";
    EXPECT_LT(failedAccepts, 40) << "accept was retried without backing off";
}

} // namespace tessitor
