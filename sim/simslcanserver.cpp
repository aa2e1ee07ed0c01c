#include "sim/simslcanserver.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "sim/simpty.h"

namespace tessitor::sim {

namespace {

using Clock = std::chrono::steady_clock;

// "S0".."S8": the bit rates of the Lawicel protocol, kbit/s.
constexpr unsigned kBitrates[] = {10, 20, 50, 100, 125, 250, 500, 800, 1000};
constexpr unsigned kDefaultBitrate = 1000;
// Answers of an adapter: done, refused.
constexpr char kOk = '\r';
constexpr char kRefused = '\a';
// The longest line an adapter takes: "T", 8 id digits, DLC, 16 data digits, time stamp.
constexpr std::size_t kMaxLine = 32;
// What "V" and "N" report: hardware and software version, serial number.
constexpr char kVersionReply[] = "V1013";
constexpr char kSerialReply[] = "N5131";
// "F" status flags: bit 7 bus error (set while the adapter's bit rate is not the bus's).
constexpr unsigned kStatusBusError = 0x80;
// From power-up to the boot-up message: the drives boot while the client
// finishes opening the adapter, so it reads the message as a frame.
constexpr auto kBootTime = std::chrono::milliseconds(20);
// Time stamps ("Z1") count milliseconds modulo one minute.
constexpr long long kTimestampModulo = 60000;

bool ParseHex(const std::string& text, std::size_t at, std::size_t digits, std::uint32_t& value)
{
    if (at + digits > text.size())
        return false;
    for (std::size_t i = 0; i < digits; ++i)
        if (!std::isxdigit(static_cast<unsigned char>(text[at + i])))
            return false;
    value = static_cast<std::uint32_t>(std::stoul(text.substr(at, digits), nullptr, 16));
    return true;
}

// Reads a "t", "T", "r" or "R" line into frame; false when it is malformed.
bool ParseFrame(const std::string& line, SimCanFrame& frame)
{
    char kind = line[0];
    frame = SimCanFrame{};
    frame.bExtended = kind == 'T' || kind == 'R';
    frame.bRemote = kind == 'r' || kind == 'R';
    std::size_t idDigits = frame.bExtended ? 8 : 3;
    std::uint32_t length = 0;
    if (!ParseHex(line, 1, idDigits, frame.nId) || frame.nId > (frame.bExtended ? 0x1FFFFFFFu : 0x7FFu)
        || !ParseHex(line, 1 + idDigits, 1, length) || length > 8)
        return false;
    frame.nLength = static_cast<std::uint8_t>(length);
    std::size_t at = 2 + idDigits;
    std::size_t dataDigits = frame.bRemote ? 0 : 2 * length;
    if (line.size() != at + dataDigits)
        return false;
    for (std::size_t i = 0; i < dataDigits / 2; ++i) {
        std::uint32_t byte = 0;
        ParseHex(line, at + 2 * i, 2, byte);
        frame.arData[i] = static_cast<std::uint8_t>(byte);
    }
    return true;
}

std::string FrameLine(const SimCanFrame& frame)
{
    char buffer[40];
    char kind = frame.bRemote ? (frame.bExtended ? 'R' : 'r') : (frame.bExtended ? 'T' : 't');
    int at = std::snprintf(buffer, sizeof buffer, frame.bExtended ? "%c%08X%u" : "%c%03X%u", kind,
                           static_cast<unsigned>(frame.nId), static_cast<unsigned>(frame.nLength));
    for (int i = 0; !frame.bRemote && i < frame.nLength; ++i)
        at += std::snprintf(buffer + at, sizeof buffer - static_cast<std::size_t>(at), "%02X", frame.arData[i]);
    return std::string(buffer, static_cast<std::size_t>(at));
}

} // namespace

struct CSimSlcanServer::Impl {
    // Something that happens on the bus at a time: a frame ready to be
    // sent, a frame that reached the nodes, or one that reached the adapter.
    struct Event {
        enum Kind { kReady, kToNodes, kToHost } eKind;
        SimCanFrame frame;
        bool bFromHost;
    };

    std::vector<std::unique_ptr<CSimCanNode>> arNodes;
    CSimPty pty;
    std::atomic<unsigned> nBusKbit{kDefaultBitrate};
    std::atomic<bool> bPace{false};

    // Serving-thread state: the adapter.
    unsigned nAdapterKbit = kDefaultBitrate;
    bool bOpen = false;
    bool bListenOnly = false;
    bool bTimestamps = false;
    bool bPoweredUp = false;
    std::string sLine;
    bool bLineTooLong = false;
    std::string sOut;
    // The bus.
    std::map<std::pair<Clock::time_point, std::uint64_t>, Event> mapEvents;
    std::uint64_t nEvents = 0;
    Clock::time_point tBusFree{};
    Clock::time_point tStart = Clock::now();

    void Serve();
    void OnByte(char byte);
    void OnLine(const std::string& line, Clock::time_point now);
    void Schedule(Clock::time_point when, Event::Kind kind, const SimCanFrame& frame, bool fromHost);
    void Process(Clock::time_point now);
    void Flush();
    bool Heard() const { return nAdapterKbit == nBusKbit.load(); }
};

void CSimSlcanServer::Impl::Schedule(Clock::time_point when, Event::Kind kind, const SimCanFrame& frame, bool fromHost)
{
    mapEvents.emplace(std::make_pair(when, nEvents++), Event{kind, frame, fromHost});
}

void CSimSlcanServer::Impl::OnByte(char byte)
{
    if (byte == '\n')
        return; // a terminal's line feed after the carriage return
    if (byte != '\r') {
        if (sLine.size() < kMaxLine)
            sLine += byte;
        else
            bLineTooLong = true;
        return;
    }
    std::string line = std::move(sLine);
    sLine.clear();
    if (bLineTooLong) {
        bLineTooLong = false;
        sOut += kRefused;
        return;
    }
    OnLine(line, Clock::now());
}

void CSimSlcanServer::Impl::OnLine(const std::string& line, Clock::time_point now)
{
    if (line.empty())
        return; // the blank lines some clients send to flush the adapter
    char command = line[0];
    bool ok = false;
    std::string answer;
    switch (command) {
    case 'S':
        if (line.size() == 2 && line[1] >= '0' && line[1] <= '8' && !bOpen) {
            nAdapterKbit = kBitrates[line[1] - '0'];
            ok = true;
        }
        break;
    case 'O':
    case 'L':
        if (line.size() == 1 && !bOpen) {
            bOpen = true;
            bListenOnly = command == 'L';
            ok = true;
            if (!bPoweredUp) {
                // The drives power up with the bus, so the first client sees their boot-up.
                bPoweredUp = true;
                for (auto& node : arNodes)
                    Schedule(now + kBootTime, Event::kReady, node->BootUp(), false);
            }
        }
        break;
    case 'C':
        if (line.size() == 1 && bOpen) {
            bOpen = false;
            ok = true;
        }
        break;
    case 't':
    case 'T':
    case 'r':
    case 'R': {
        SimCanFrame frame;
        if (bOpen && !bListenOnly && ParseFrame(line, frame)) {
            ok = true;
            Schedule(now, Event::kReady, frame, true);
        }
        break;
    }
    case 'F':
        if (line.size() == 1 && bOpen) {
            char flags[8];
            std::snprintf(flags, sizeof flags, "F%02X", Heard() ? 0u : kStatusBusError);
            answer = flags;
            ok = true;
        }
        break;
    case 'V':
    case 'N':
        if (line.size() == 1) {
            answer = command == 'V' ? kVersionReply : kSerialReply;
            ok = true;
        }
        break;
    case 'Z':
        if (line.size() == 2 && (line[1] == '0' || line[1] == '1') && !bOpen) {
            bTimestamps = line[1] == '1';
            ok = true;
        }
        break;
    case 'M':
    case 'm': {
        // Acceptance code and mask: taken, but every frame still passes, as
        // on the adapters whose controllers filter nothing.
        std::uint32_t ignored = 0;
        ok = line.size() == 9 && ParseHex(line, 1, 8, ignored) && !bOpen;
        break;
    }
    default:
        break;
    }
    sOut += answer;
    sOut += ok ? kOk : kRefused;
}

void CSimSlcanServer::Impl::Process(Clock::time_point now)
{
    if (bPoweredUp)
        for (auto& node : arNodes)
            if (node->NextTick() <= now)
                for (const SimCanOutput& out : node->Tick(now))
                    Schedule(out.tNotBefore, Event::kReady, out.frame, false);
    while (!mapEvents.empty() && mapEvents.begin()->first.first <= now) {
        Clock::time_point when = mapEvents.begin()->first.first;
        Event event = mapEvents.begin()->second;
        mapEvents.erase(mapEvents.begin());
        switch (event.eKind) {
        case Event::kReady: {
            // A frame sent at a bit rate the bus does not run at is lost.
            if (event.bFromHost && !Heard())
                break;
            Clock::time_point start = std::max(when, tBusFree);
            Clock::time_point end = start;
            if (bPace.load()) {
                double seconds = SimCanFrameBits(event.frame) / (nBusKbit.load() * 1000.0);
                end += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
            }
            tBusFree = end;
            Schedule(end, event.bFromHost ? Event::kToNodes : Event::kToHost, event.frame, event.bFromHost);
            break;
        }
        case Event::kToNodes:
            for (auto& node : arNodes)
                for (const SimCanOutput& out : node->Receive(event.frame, when))
                    Schedule(std::max(out.tNotBefore, when), Event::kReady, out.frame, false);
            break;
        case Event::kToHost:
            if (bOpen && Heard()) {
                sOut += FrameLine(event.frame);
                if (bTimestamps) {
                    long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(when - tStart).count();
                    char stamp[8];
                    std::snprintf(stamp, sizeof stamp, "%04llX", ms % kTimestampModulo);
                    sOut += stamp;
                }
                sOut += kOk;
            }
            break;
        }
    }
}

void CSimSlcanServer::Impl::Flush()
{
    while (!sOut.empty()) {
        ssize_t written = ::write(pty.Master(), sOut.data(), sOut.size());
        if (written < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                sOut.clear(); // the line is gone: forget the output
            return;
        }
        sOut.erase(0, static_cast<std::size_t>(written));
    }
}

void CSimSlcanServer::Impl::Serve()
{
    char buffer[4096];
    while (pty.Serving()) {
        Process(Clock::now());
        Flush();
        Clock::time_point next = Clock::time_point::max();
        if (!mapEvents.empty())
            next = mapEvents.begin()->first.first;
        if (bPoweredUp)
            for (auto& node : arNodes)
                next = std::min(next, node->NextTick());
        pollfd fds[2] = {{pty.Master(), static_cast<short>(POLLIN | (sOut.empty() ? 0 : POLLOUT)), 0},
                         {pty.WakeEvent(), POLLIN, 0}};
        timespec timeout{};
        timespec* pTimeout = nullptr;
        if (next != Clock::time_point::max()) {
            auto wait = std::max(Clock::duration::zero(), next - Clock::now());
            auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
            timeout = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
            pTimeout = &timeout;
        }
        int ready = ::ppoll(fds, 2, pTimeout, nullptr);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (fds[1].revents & POLLIN)
            pty.ClearWake();
        if (fds[0].revents & POLLIN) {
            ssize_t got = ::read(pty.Master(), buffer, sizeof buffer);
            for (ssize_t i = 0; i < got; ++i)
                OnByte(buffer[i]);
        } else if (fds[0].revents & (POLLHUP | POLLERR)) {
            // Should not happen while the slave is held open; do not spin.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

CSimSlcanServer::CSimSlcanServer() : m_pImpl(std::make_unique<Impl>())
{
}

CSimSlcanServer::~CSimSlcanServer()
{
    Stop();
}

CSimCanNode& CSimSlcanServer::AddNode(std::shared_ptr<CSimDrive> drive, int nodeId)
{
    Impl& d = *m_pImpl;
    if (d.pty.Running())
        throw std::logic_error("nodes are put on the bus before it is served");
    if (!drive)
        throw std::invalid_argument("a node needs a drive");
    if (Node(nodeId))
        throw std::invalid_argument("node " + std::to_string(nodeId) + " is on the bus twice");
    d.arNodes.push_back(std::make_unique<CSimCanNode>(std::move(drive), nodeId));
    return *d.arNodes.back();
}

CSimCanNode* CSimSlcanServer::Node(int nodeId)
{
    for (auto& node : m_pImpl->arNodes)
        if (node->NodeId() == nodeId)
            return node.get();
    return nullptr;
}

void CSimSlcanServer::Start()
{
    Impl& d = *m_pImpl;
    d.pty.Start("SimSlcanServer", [&d] { d.Serve(); });
}

void CSimSlcanServer::Stop()
{
    m_pImpl->pty.Stop();
}

std::string CSimSlcanServer::SlavePath() const
{
    return m_pImpl->pty.SlavePath();
}

bool CSimSlcanServer::IsBitrate(unsigned kbit)
{
    return std::find(std::begin(kBitrates), std::end(kBitrates), kbit) != std::end(kBitrates);
}

void CSimSlcanServer::SetBitrate(unsigned kbit)
{
    if (!IsBitrate(kbit))
        throw std::invalid_argument("bit rate " + std::to_string(kbit)
                                    + " kbit/s is not one of 10, 20, 50, 100, 125, 250, 500, 800, 1000");
    Impl& d = *m_pImpl;
    if (!d.pty.Running())
        d.nAdapterKbit = kbit; // the adapter starts at the bus's rate
    d.nBusKbit = kbit;
    d.pty.Wake();
}

void CSimSlcanServer::SetPace(bool pace)
{
    m_pImpl->bPace = pace;
    m_pImpl->pty.Wake();
}

void CSimSlcanServer::AddFault(const FaultRule& rule)
{
    for (auto& node : m_pImpl->arNodes)
        node->AddFault(rule);
}

} // namespace tessitor::sim
