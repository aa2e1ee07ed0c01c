#include "sim/simtcpserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <cstring>
#include <system_error>
#include <thread>

#include "core/trace.h"

namespace tessitor::sim {
namespace {

// The protocol's numbers, as docs/network-device-protocol.md gives them.
// The device keeps its own copy and its own frame code, apart from the
// client's, so that a protocol bug in the client cannot hide behind the
// same bug here.
constexpr std::size_t kHeaderBytes = 12;
constexpr std::uint32_t kNetMaxPayloadBytes = 1u << 20;
constexpr std::size_t kNetMaxNameBytes = 127;
constexpr std::uint32_t kNetProtocolVersion = 2;
constexpr std::uint32_t kNumberBytes = 4; // the request number opening every payload
enum : std::uint32_t {
    kNetFnListDrives = 1,
    kNetFnOpenDrive = 2,
    kNetFnCommand = 3,
    kNetFnRawReply = 4,
    kNetFnUpload = 5,
    kNetFnCloseDrive = 6,
};
enum : std::uint32_t {
    kNetStatusOk = 0,
    kNetStatusDriveError = 0x100,
    kNetStatusNoSuchDrive = 0x200,
    kNetStatusBadHandle = 0x201,
    kNetStatusBadRequest = 0x202,
    kNetStatusUnknownFunction = 0x203,
};
enum : std::uint32_t { kNetDriveSerial = 0, kNetDriveCanopen = 1 };
constexpr std::size_t kMaxCommandChars = 8190; // the drive's line limit less CR
constexpr std::uint32_t kWrongFunctionOffset = 0x100;
// Reply statuses 1..12 are the coded results of the client's transaction.
constexpr std::uint32_t kStatusTimeout = 1;
constexpr std::uint32_t kStatusBadEcho = 10;
// Longest back-off after a failed accept (descriptor or thread limit) [ms].
constexpr int kMaxAcceptBackoffMs = 1000;
// How often the accept thread joins the threads of finished connections [ms].
constexpr int kReapIntervalMs = 1000;
// A request buffer grown beyond this is given back after its request.
constexpr std::size_t kKeptPayloadBytes = 64 * 1024;

void PutU32(std::string& out, std::uint32_t v)
{
    for (int shift = 0; shift < 32; shift += 8)
        out += static_cast<char>((v >> shift) & 0xFF);
}

std::uint32_t GetU32(const std::string& in, std::size_t at)
{
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = (v << 8) | static_cast<unsigned char>(in[at + static_cast<std::size_t>(i)]);
    return v;
}

// A reply frame: header, then the number of the request it answers, then body.
std::string Frame(std::uint32_t functionId, std::uint32_t status, std::uint32_t number, const std::string& body)
{
    std::string frame;
    PutU32(frame, static_cast<std::uint32_t>(kNumberBytes + body.size()));
    PutU32(frame, functionId);
    PutU32(frame, status);
    PutU32(frame, number);
    return frame + body;
}

std::uint32_t DriveKind(const std::string& name)
{
    return name.rfind("CANopen", 0) == 0 ? kNetDriveCanopen : kNetDriveSerial;
}

// What the device sends back for one request.
struct Answer {
    std::uint32_t nStatus = kNetStatusOk;
    std::string sPayload;
    FaultKind eFrameFault = FaultKind::kNone;
};

} // namespace

struct CSimTcpServer::Impl {
    struct Entry {
        std::string sName;
        std::shared_ptr<CSimDrive> pDrive;
    };
    struct Client {
        int fd = -1;
        std::thread thread;
        std::atomic<bool> bDone{false};
    };
    using Deadline = std::chrono::steady_clock::time_point;

    std::vector<Entry> drives;
    CSimFaults faults;
    int listenFd = -1;
    int wake[2] = {-1, -1};
    std::string host;
    std::uint16_t port = 0;
    std::atomic<int> clientCount{0};
    std::atomic<int> acceptedCount{0};
    std::atomic<int> refusedCount{0};
    SimTcpLimits limits;
    std::thread acceptThread;
    std::mutex clientsLock;
    std::list<std::unique_ptr<Client>> clients;
    std::mutex stopLock;
    std::condition_variable stopEvent;
    bool stopping = false;

    // Sleeps ms, or less when the device stops; false when it stops.
    bool Pause(int ms)
    {
        std::unique_lock lock(stopLock);
        return !stopEvent.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping; });
    }

    bool Stopping()
    {
        std::lock_guard lock(stopLock);
        return stopping;
    }

    // Waits until fd is ready for events or the deadline passes; false on
    // time-out, error or stop. A default deadline waits without end.
    bool WaitFor(int fd, short events, Deadline deadline)
    {
        for (;;) {
            int timeoutMs = -1;
            if (deadline != Deadline{}) {
                auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
                if (left.count() <= 0)
                    return false;
                timeoutMs = static_cast<int>(std::min<long long>(left.count(), 1 << 30));
            }
            pollfd fds[2] = {{fd, events, 0}, {wake[0], POLLIN, 0}};
            int ready = ::poll(fds, 2, timeoutMs);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready < 0 || (fds[1].revents & POLLIN))
                return false;
            if (ready > 0)
                return true;
        }
    }

    static Deadline After(int ms)
    {
        return ms > 0 ? std::chrono::steady_clock::now() + std::chrono::milliseconds(ms) : Deadline{};
    }

    // Reads exactly length bytes onto the end of data; false on close,
    // error, stop or the deadline. The buffer grows with what arrives, never
    // by what a header announces.
    bool ReadExactly(int fd, std::string& data, std::size_t length, Deadline deadline)
    {
        char chunk[16384];
        while (length > 0) {
            if (!WaitFor(fd, POLLIN, deadline))
                return false;
            ssize_t n = ::recv(fd, chunk, std::min(length, sizeof chunk), 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            data.append(chunk, static_cast<std::size_t>(n));
            length -= static_cast<std::size_t>(n);
        }
        return true;
    }

    // Reads one request; false when the connection is to end (closed,
    // broken, idle or stalled past its time-out, or a length past the cap).
    bool ReadRequest(int fd, std::string& header, std::string& payload)
    {
        header.clear();
        payload.clear();
        // The first byte may be long in coming (an idle client); the rest
        // of the frame follows it at once from any client that is well.
        if (!ReadExactly(fd, header, 1, After(limits.nIdleTimeoutMs)))
            return false;
        Deadline frame = After(limits.nStallTimeoutMs);
        if (!ReadExactly(fd, header, kHeaderBytes - 1, frame))
            return false;
        std::uint32_t length = GetU32(header, 0);
        if (length > kNetMaxPayloadBytes)
            return false; // cannot find the next frame again
        return ReadExactly(fd, payload, length, frame);
    }

    // Writes all bytes; false on error, on stop, or when the client reads
    // nothing for the stall time-out.
    bool WriteAll(int fd, const std::string& bytes)
    {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) {
                sent += static_cast<std::size_t>(n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
                return false;
            if (!WaitFor(fd, POLLOUT, After(limits.nStallTimeoutMs)))
                return false;
        }
        return true;
    }

    // The device waited the request's time-out for the drive in vain.
    Answer TimedOut(std::uint32_t timeoutMs, std::string partial = {})
    {
        Pause(static_cast<int>(timeoutMs));
        return {kStatusTimeout, std::move(partial), FaultKind::kNone};
    }

    // Applies a late answer: true when the drive answered within the time-out.
    bool InTime(const FaultRule& rule, std::uint32_t timeoutMs)
    {
        if (rule.eKind != FaultKind::kDelay)
            return true;
        if (static_cast<std::uint32_t>(rule.nDelayMs) >= timeoutMs)
            return false;
        Pause(rule.nDelayMs);
        return true;
    }

    static bool IsFrameFault(FaultKind kind)
    {
        return kind == FaultKind::kWrongFunctionId || kind == FaultKind::kHalfHeader
            || kind == FaultKind::kDropConnection || kind == FaultKind::kUnaskedFrame;
    }

    // One command, its value or its refusal.
    Answer Command(CSimDrive& drive, const std::string& command, std::uint32_t timeoutMs)
    {
        FaultRule rule = faults.Next(command);
        Answer answer;
        switch (rule.eKind) {
        case FaultKind::kDrop:
        case FaultKind::kCut: // the terminator never comes
            return TimedOut(timeoutMs);
        case FaultKind::kWrongEcho:
        case FaultKind::kGarbage:
            drive.Execute(command);
            answer.nStatus = kStatusBadEcho;
            answer.sPayload = "Bad Echo from Controller";
            return answer;
        case FaultKind::kDriveError:
            drive.Refuse(command, rule.nErrorNumber); // "EC" reports it, as on the serial face
            answer.nStatus = kNetStatusDriveError | (static_cast<std::uint32_t>(rule.nErrorNumber) & 0xFF);
            return answer;
        default:
            break;
        }
        if (!InTime(rule, timeoutMs))
            return TimedOut(timeoutMs);
        SimReply reply = drive.Execute(command);
        if (reply.bError)
            answer.nStatus = kNetStatusDriveError | (static_cast<std::uint32_t>(reply.nErrorNumber) & 0xFF);
        else
            answer.sPayload = reply.sValue;
        if (IsFrameFault(rule.eKind))
            answer.eFrameFault = rule.eKind;
        return answer;
    }

    // One command, and the bytes the drive sent back up to the terminator.
    Answer Raw(CSimDrive& drive, const std::string& wire, char terminator, std::uint32_t timeoutMs)
    {
        std::string command = wire;
        if (!command.empty() && command.back() == '\r')
            command.pop_back();
        FaultRule rule = faults.Next(command);
        if (rule.eKind == FaultKind::kDrop || !InTime(rule, timeoutMs))
            return TimedOut(timeoutMs);

        SimReply reply = rule.eKind == FaultKind::kDriveError ? drive.Refuse(command, rule.nErrorNumber)
                                                               : drive.Execute(command);
        std::string bytes = wire;
        if (rule.eKind == FaultKind::kWrongEcho && !bytes.empty())
            bytes[0] = bytes[0] == 'X' ? 'Y' : 'X';
        if (reply.bError)
            bytes += std::string(1, static_cast<char>(reply.nErrorNumber)) + "?" + reply.cTerminator;
        else
            bytes += reply.sValue + reply.cTerminator;
        if (rule.eKind == FaultKind::kGarbage)
            bytes = rule.sGarbage + bytes;
        if (rule.eKind == FaultKind::kCut)
            bytes.resize(std::min<std::size_t>(bytes.size(), static_cast<std::size_t>(std::max(0, rule.nCutBytes))));

        // A device returns what came up to the first terminator after the
        // echo; without one it waits out the time-out.
        std::size_t end = bytes.find(terminator, std::min(wire.size(), bytes.size()));
        if (end == std::string::npos)
            return TimedOut(timeoutMs, bytes);
        Answer answer;
        answer.sPayload = bytes.substr(0, end + 1);
        if (IsFrameFault(rule.eKind))
            answer.eFrameFault = rule.eKind;
        return answer;
    }

    Answer Handle(std::uint32_t functionId, std::uint32_t handle, const std::string& payload,
                  std::map<std::uint32_t, std::size_t>& handles)
    {
        Answer answer;
        auto refuse = [&answer](std::uint32_t status, std::string text) {
            answer.nStatus = status;
            answer.sPayload = std::move(text);
            return answer;
        };
        CSimDrive* drive = nullptr;
        if (functionId == kNetFnCommand || functionId == kNetFnRawReply || functionId == kNetFnUpload
            || functionId == kNetFnCloseDrive) {
            auto it = handles.find(handle);
            if (it == handles.end())
                return refuse(kNetStatusBadHandle, "handle " + std::to_string(handle) + " is not open");
            drive = drives[it->second].pDrive.get();
        }

        switch (functionId) {
        case kNetFnListDrives:
            PutU32(answer.sPayload, kNetProtocolVersion);
            PutU32(answer.sPayload, static_cast<std::uint32_t>(drives.size()));
            for (const Entry& entry : drives) {
                PutU32(answer.sPayload, DriveKind(entry.sName));
                PutU32(answer.sPayload, static_cast<std::uint32_t>(entry.sName.size()));
                answer.sPayload += entry.sName;
            }
            return answer;
        case kNetFnOpenDrive:
            for (std::size_t i = 0; i < drives.size(); ++i) {
                if (drives[i].sName == payload) {
                    if (handles.size() >= static_cast<std::size_t>(limits.nMaxHandles))
                        return refuse(kNetStatusBadRequest, "at most " + std::to_string(limits.nMaxHandles)
                                                                + " drives can be open on one connection");
                    // The smallest free number, so handles are reused and stay small.
                    std::uint32_t number = 1;
                    while (handles.count(number))
                        ++number;
                    handles[number] = i;
                    PutU32(answer.sPayload, number);
                    return answer;
                }
            }
            return refuse(kNetStatusNoSuchDrive, "no drive named '" + payload + "'");
        case kNetFnCloseDrive:
            handles.erase(handle);
            return answer;
        case kNetFnCommand:
            if (payload.size() < 5 || payload.size() - 4 > kMaxCommandChars)
                return refuse(kNetStatusBadRequest, "a command of 1 to 8190 characters is expected");
            return Command(*drive, payload.substr(4), GetU32(payload, 0));
        case kNetFnRawReply: {
            if (payload.size() < 9 || payload.size() - 8 > kMaxCommandChars + 1)
                return refuse(kNetStatusBadRequest, "a command line of 1 to 8191 bytes is expected");
            std::uint32_t terminator = GetU32(payload, 4);
            if (terminator > 0xFF)
                return refuse(kNetStatusBadRequest, "the terminator is one byte");
            return Raw(*drive, payload.substr(8), static_cast<char>(terminator), GetU32(payload, 0));
        }
        case kNetFnUpload: {
            if (payload.size() != 16)
                return refuse(kNetStatusBadRequest, "time-out, mask, first and last sample are expected");
            std::uint32_t timeoutMs = GetU32(payload, 0);
            drive->Execute("RP[8]=" + std::to_string(GetU32(payload, 8)));
            drive->Execute("RP[9]=" + std::to_string(GetU32(payload, 12)));
            return Command(*drive, "BH=" + std::to_string(GetU32(payload, 4)), timeoutMs);
        }
        default:
            return refuse(kNetStatusUnknownFunction, "function " + std::to_string(functionId) + " is not known");
        }
    }

    // False when the connection is to end here.
    bool Send(int fd, std::uint32_t functionId, std::uint32_t number, const Answer& answer)
    {
        const std::string frame = Frame(functionId, answer.nStatus, number, answer.sPayload);
        switch (answer.eFrameFault) {
        case FaultKind::kWrongFunctionId:
            return WriteAll(fd, Frame(functionId + kWrongFunctionOffset, answer.nStatus, number, answer.sPayload));
        case FaultKind::kUnaskedFrame:
            // An answer to the request before this one, as a device that
            // answered twice or late would send, then the real one.
            return WriteAll(fd, Frame(functionId, kNetStatusOk, number - 1, "unasked") + frame);
        case FaultKind::kHalfHeader: {
            // Half a header, then silence until the client gives up.
            WriteAll(fd, frame.substr(0, kHeaderBytes / 2));
            std::string sink;
            while (ReadExactly(fd, sink, 1, After(limits.nIdleTimeoutMs)))
                sink.clear();
            return false;
        }
        case FaultKind::kDropConnection:
            WriteAll(fd, frame.substr(0, kHeaderBytes + (frame.size() - kHeaderBytes) / 2));
            return false;
        default:
            return WriteAll(fd, frame);
        }
    }

    void Serve(Client& client)
    {
        pthread_setname_np(pthread_self(), "SimTcpClient");
        try {
            std::map<std::uint32_t, std::size_t> handles;
            std::string header;
            std::string payload;
            while (ReadRequest(client.fd, header, payload)) {
                std::uint32_t functionId = GetU32(header, 4);
                std::uint32_t word3 = GetU32(header, 8);
                // A request without its number can be answered, but by no
                // reply the client will take as its own.
                const bool numbered = payload.size() >= kNumberBytes;
                const std::uint32_t number = numbered ? GetU32(payload, 0) : 0;
                payload.erase(0, numbered ? kNumberBytes : payload.size());
                Answer answer = numbered ? Handle(functionId, word3, payload, handles)
                                         : Answer{kNetStatusBadRequest, "a request begins with its number"};
                if (!Send(client.fd, functionId, number, answer))
                    break;
                if (payload.capacity() > kKeptPayloadBytes)
                    std::string().swap(payload);
            }
        } catch (const std::exception& e) {
            // Whatever one client brings about ends its connection, never the device.
            Trace::Printf("SimTcpServer: connection dropped: %s\n", e.what());
        }
        ::shutdown(client.fd, SHUT_RDWR);
        ::close(client.fd);
        --clientCount;
        client.bDone = true;
    }

    void ReapFinished()
    {
        std::lock_guard lock(clientsLock);
        for (auto it = clients.begin(); it != clients.end();) {
            if ((*it)->bDone) {
                (*it)->thread.join();
                it = clients.erase(it);
            } else {
                ++it;
            }
        }
    }

    // Takes one waiting connection; false when accept failed for want of
    // descriptors, memory or threads, and the loop should back off.
    bool AcceptOne()
    {
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED
                || errno == EPROTO || errno == EPERM)
                return true; // the peer gave up, or nothing is waiting after all
            Trace::Printf("SimTcpServer: accept: %s\n", std::strerror(errno));
            return false;
        }
        ++acceptedCount;
        if (clientCount.load() >= limits.nMaxClients) {
            // Closed at once: the client reads the end of the connection
            // rather than waiting for a device that will never answer.
            Trace::Printf("SimTcpServer: %d connections are served; one more refused\n", limits.nMaxClients);
            ++refusedCount;
            ::close(fd);
            return true;
        }
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        auto client = std::make_unique<Client>();
        client->fd = fd;
        Client& ref = *client;
        std::lock_guard lock(clientsLock);
        ++clientCount;
        try {
            ref.thread = std::thread([this, &ref] { Serve(ref); });
        } catch (const std::system_error& e) {
            Trace::Printf("SimTcpServer: no thread for a connection: %s\n", e.what());
            --clientCount;
            ++refusedCount;
            ::close(fd);
            return false;
        }
        clients.push_back(std::move(client));
        return true;
    }

    void AcceptLoop()
    {
        pthread_setname_np(pthread_self(), "SimTcpAccept");
        int backoffMs = 0;
        for (;;) {
            ReapFinished();
            pollfd fds[2] = {{listenFd, POLLIN, 0}, {wake[0], POLLIN, 0}};
            // While backing off only the stop is watched, so a full
            // descriptor table is not hammered with accepts that must fail.
            int ready = ::poll(backoffMs ? fds + 1 : fds, backoffMs ? 1 : 2, backoffMs ? backoffMs : kReapIntervalMs);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready < 0 || (fds[1].revents & POLLIN))
                return;
            if (backoffMs || (fds[0].revents & POLLIN)) {
                if (AcceptOne())
                    backoffMs = 0;
                else
                    backoffMs = std::min(kMaxAcceptBackoffMs, backoffMs ? 2 * backoffMs : 10);
            }
        }
    }
};

CSimTcpServer::CSimTcpServer(const std::string& product, const std::string& version) : m_pImpl(std::make_unique<Impl>())
{
    for (const char* name : {"RS232 Port 1", "RS232 Port 2", "CANopen Bus 1 NodeID 5"})
        AddDrive(name, version.empty() ? std::make_shared<CSimDrive>(product)
                                       : std::make_shared<CSimDrive>(product, version));
}

CSimTcpServer::~CSimTcpServer()
{
    Stop();
}

void CSimTcpServer::AddDrive(const std::string& name, std::shared_ptr<CSimDrive> drive)
{
    if (m_pImpl->listenFd >= 0)
        throw std::logic_error("drives are added before the virtual network device starts");
    if (name.empty() || name.size() > kNetMaxNameBytes)
        throw std::invalid_argument("a drive name has 1 to 127 characters: '" + name + "'");
    m_pImpl->drives.push_back({name, std::move(drive)});
}

std::shared_ptr<CSimDrive> CSimTcpServer::Drive(const std::string& name) const
{
    for (const auto& entry : m_pImpl->drives)
        if (entry.sName == name)
            return entry.pDrive;
    return nullptr;
}

std::vector<std::string> CSimTcpServer::DriveNames() const
{
    std::vector<std::string> names;
    for (const auto& entry : m_pImpl->drives)
        names.push_back(entry.sName);
    return names;
}

void CSimTcpServer::Start(const std::string& host, std::uint16_t port)
{
    Impl& p = *m_pImpl;
    if (p.listenFd >= 0)
        throw std::logic_error("the virtual network device is already serving");

    // Numeric IPv4 or IPv6 addresses and names alike; the first address found is served.
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (::getaddrinfo(host.c_str(), service.c_str(), &hints, &found) != 0 || !found)
        throw std::system_error(EINVAL, std::generic_category(), "cannot resolve '" + host + "'");
    sockaddr_storage address{};
    socklen_t size = found->ai_addrlen;
    std::memcpy(&address, found->ai_addr, size);
    ::freeaddrinfo(found);

    int fd = ::socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), "socket");
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(fd, 64) != 0
        || ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        int error = errno;
        ::close(fd);
        throw std::system_error(error, std::generic_category(),
                                "cannot listen on " + host + ":" + std::to_string(port));
    }
    if (::pipe2(p.wake, O_CLOEXEC) != 0) {
        int error = errno;
        ::close(fd);
        throw std::system_error(error, std::generic_category(), "pipe");
    }
    char numeric[NI_MAXHOST] = {};
    char servedPort[NI_MAXSERV] = {};
    ::getnameinfo(reinterpret_cast<sockaddr*>(&address), size, numeric, sizeof numeric, servedPort,
                  sizeof servedPort, NI_NUMERICHOST | NI_NUMERICSERV);
    p.host = numeric;
    p.port = static_cast<std::uint16_t>(std::stoi(servedPort));
    p.listenFd = fd;
    {
        std::lock_guard lock(p.stopLock);
        p.stopping = false;
    }
    p.acceptThread = std::thread([&p] { p.AcceptLoop(); });
}

void CSimTcpServer::Stop()
{
    Impl& p = *m_pImpl;
    if (p.listenFd < 0)
        return;
    {
        std::lock_guard lock(p.stopLock);
        p.stopping = true;
    }
    p.stopEvent.notify_all();
    char poke = 1;
    [[maybe_unused]] ssize_t ignored = ::write(p.wake[1], &poke, 1);
    p.acceptThread.join();
    {
        std::lock_guard lock(p.clientsLock);
        for (auto& client : p.clients)
            client->thread.join();
        p.clients.clear();
    }
    ::close(p.listenFd);
    ::close(p.wake[0]);
    ::close(p.wake[1]);
    p.listenFd = -1;
    p.wake[0] = p.wake[1] = -1;
}

std::string CSimTcpServer::Host() const
{
    return m_pImpl->host;
}

std::uint16_t CSimTcpServer::Port() const
{
    return m_pImpl->port;
}

int CSimTcpServer::ClientCount() const
{
    return m_pImpl->clientCount;
}

int CSimTcpServer::AcceptedCount() const
{
    return m_pImpl->acceptedCount;
}

int CSimTcpServer::RefusedCount() const
{
    return m_pImpl->refusedCount;
}

void CSimTcpServer::SetLimits(const SimTcpLimits& limits)
{
    if (m_pImpl->listenFd >= 0)
        throw std::logic_error("limits are set before the virtual network device starts");
    m_pImpl->limits = limits;
}

const SimTcpLimits& CSimTcpServer::Limits() const
{
    return m_pImpl->limits;
}

CSimFaults& CSimTcpServer::Faults()
{
    return m_pImpl->faults;
}

} // namespace tessitor::sim
