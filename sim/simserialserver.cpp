#include "sim/simserialserver.h"

#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <deque>
#include <stdexcept>
#include <thread>
#include <utility>

#include "sim/simpty.h"

namespace tessitor::sim {

namespace {

using Clock = std::chrono::steady_clock;

// The longest line kept; a longer one is refused when its end arrives.
constexpr std::size_t kMaxLine = 8192;

bool StartsDownload(const std::string& line)
{
    return line.size() >= 2 && std::toupper(static_cast<unsigned char>(line[0])) == 'D'
           && std::toupper(static_cast<unsigned char>(line[1])) == 'L';
}

// The echo a faulty drive sends: the first letter in the other case, or a
// stray character in front when there is no letter.
std::string WrongEcho(const std::string& echo)
{
    std::string changed = echo;
    for (char& c : changed)
        if (std::isalpha(static_cast<unsigned char>(c))) {
            c = std::isupper(static_cast<unsigned char>(c)) ? static_cast<char>(std::tolower(c))
                                                            : static_cast<char>(std::toupper(c));
            return changed;
        }
    return "#" + changed;
}

} // namespace

struct CSimSerialServer::Impl {
    // A byte from the host: when the serving thread read it, and (once it is
    // next in line) when it reaches the drive.
    struct InByte {
        char cByte;
        double dReadAt;
        double dArrival = -1;
    };
    // A byte to the host and when it has reached the host.
    struct OutByte {
        char cByte;
        double dDone;
    };

    explicit Impl(std::shared_ptr<CSimDrive> drive) : pDrive(std::move(drive)) {}

    std::shared_ptr<CSimDrive> pDrive;
    CSimFaults faults;
    std::atomic<unsigned> nBytesPerSecond{0};
    std::atomic<SimDuplex> eDuplex{SimDuplex::kFull};
    CSimPty pty;
    const Clock::time_point tOrigin = Clock::now();

    // Serving-thread state.
    CSimWirePacer pacer;
    std::string sLine;
    bool bLineTooLong = false;
    bool bHoldEcho = false;
    std::string sHeldEcho;
    std::deque<InByte> arIn;
    std::deque<OutByte> arOut;

    double Now() const { return std::chrono::duration<double>(Clock::now() - tOrigin).count(); }
    void Serve();
    // Hands the bytes that have reached the drive to it; returns when the
    // next one arrives (or a huge time when none waits).
    double TakeInput(double now);
    void OnByte(char byte, double at);
    void OnLine(const std::string& command, double at);
    void Queue(const std::string& bytes, double notBefore);
    // Writes the bytes that have reached the host; returns when the next one
    // does (or a huge time when none waits).
    double Flush(double now, bool& wantWritable);
};

namespace {
constexpr double kNever = 1e300;
}

void CSimSerialServer::Impl::Queue(const std::string& bytes, double notBefore)
{
    for (char byte : bytes)
        arOut.push_back({byte, pacer.Departure(notBefore)});
}

double CSimSerialServer::Impl::TakeInput(double now)
{
    while (!arIn.empty()) {
        InByte& next = arIn.front();
        if (next.dArrival < 0)
            next.dArrival = pacer.Arrival(next.dReadAt);
        if (next.dArrival > now)
            return next.dArrival;
        InByte byte = next;
        arIn.pop_front();
        OnByte(byte.cByte, byte.dArrival);
    }
    return kNever;
}

void CSimSerialServer::Impl::OnByte(char byte, double at)
{
    // Faults may change the echo, and a half-duplex drive says nothing
    // before the whole command is in: both hold the echo back.
    if (sLine.empty() && !bLineTooLong)
        bHoldEcho = !faults.Empty() || pacer.Duplex() == SimDuplex::kHalf;
    if (bHoldEcho)
        sHeldEcho += byte;
    else
        Queue(std::string(1, byte), at);

    if (byte == '\n' && sLine.empty() && !bLineTooLong) {
        Queue(std::exchange(sHeldEcho, {}), at);
        return; // a line feed after the carriage return of a terminal
    }
    bool complete = byte == '\r' || (byte == '\\' && StartsDownload(sLine));
    if (!complete) {
        if (sLine.size() < kMaxLine)
            sLine += byte;
        else
            bLineTooLong = true;
        return;
    }
    std::string command = byte == '\\' ? sLine + '\\' : sLine;
    bool tooLong = bLineTooLong;
    sLine.clear();
    bLineTooLong = false;
    if (tooLong) {
        SimReply reply = pDrive->Refuse(command, 10);
        Queue(std::exchange(sHeldEcho, {}) + static_cast<char>(reply.nErrorNumber) + '?' + reply.cTerminator, at);
        return;
    }
    OnLine(command, at);
}

void CSimSerialServer::Impl::OnLine(const std::string& command, double at)
{
    FaultRule rule = faults.Next(command);
    SimReply reply = rule.eKind == FaultKind::kDriveError ? pDrive->Refuse(command, rule.nErrorNumber)
                                                          : pDrive->Execute(command);
    std::string answer = reply.bError ? std::string(1, static_cast<char>(reply.nErrorNumber)) + '?'
                                      : reply.sValue;
    answer += reply.cTerminator;
    std::string echo = std::exchange(sHeldEcho, {});

    switch (rule.eKind) {
    case FaultKind::kDrop:
        break;
    case FaultKind::kWrongEcho:
        Queue(WrongEcho(echo) + answer, at);
        break;
    case FaultKind::kGarbage:
        Queue(rule.sGarbage + echo + answer, at);
        break;
    case FaultKind::kCut:
        Queue((echo + answer).substr(0, static_cast<std::size_t>(rule.nCutBytes)), at);
        break;
    case FaultKind::kDelay:
        Queue(echo, at);
        Queue(answer, at + rule.nDelayMs / 1000.0);
        break;
    default:
        Queue(echo + answer, at);
        break;
    }
}

double CSimSerialServer::Impl::Flush(double now, bool& wantWritable)
{
    wantWritable = false;
    while (!arOut.empty()) {
        if (arOut.front().dDone > now)
            return arOut.front().dDone;
        // Every byte that has reached the host goes in one write.
        char buffer[4096];
        std::size_t count = 0;
        while (count < arOut.size() && count < sizeof buffer && arOut[count].dDone <= now) {
            buffer[count] = arOut[count].cByte;
            ++count;
        }
        ssize_t written = ::write(pty.Master(), buffer, count);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                wantWritable = true;
                return kNever;
            }
            // The line is gone (no reader and no spare slave): forget the output.
            arOut.clear();
            return kNever;
        }
        pacer.Delivered(arOut[static_cast<std::size_t>(written) - 1].dDone);
        arOut.erase(arOut.begin(), arOut.begin() + written);
    }
    return kNever;
}

void CSimSerialServer::Impl::Serve()
{
    // Bytes are due at exact times; the default 50 us of timer slack would
    // be half a byte at 115200 baud.
    ::prctl(PR_SET_TIMERSLACK, 1000UL);
    char buffer[4096];
    while (pty.Serving()) {
        unsigned rate = nBytesPerSecond.load();
        if (rate != pacer.Rate() || eDuplex.load() != pacer.Duplex()) {
            pacer.SetRate(rate);
            pacer.SetDuplex(eDuplex.load());
            pacer.Reset();
        }
        double now = Now();
        double due = TakeInput(now);
        bool wantWritable = false;
        due = std::min(due, Flush(now, wantWritable));
        pollfd fds[2] = {{pty.Master(), static_cast<short>(POLLIN | (wantWritable ? POLLOUT : 0)), 0},
                         {pty.WakeEvent(), POLLIN, 0}};
        timespec timeout{};
        if (due < kNever) {
            double wait = std::max(0.0, due - Now());
            timeout.tv_sec = static_cast<time_t>(wait);
            timeout.tv_nsec = static_cast<long>((wait - static_cast<double>(timeout.tv_sec)) * 1e9);
        }
        int ready = ::ppoll(fds, 2, due < kNever ? &timeout : nullptr, nullptr);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if ((fds[1].revents & POLLIN) && pty.ClearWake()) {
            // The last client has gone: what it did not read is lost, as on a real line.
            arOut.clear();
            pacer.Reset();
        }
        if (fds[0].revents & POLLIN) {
            ssize_t got = ::read(pty.Master(), buffer, sizeof buffer);
            double readAt = Now();
            for (ssize_t i = 0; i < got; ++i)
                arIn.push_back({buffer[i], readAt});
            if (got > 0)
                continue;
        }
        if (fds[0].revents & (POLLHUP | POLLERR)) {
            // Should not happen while the server holds the slave open; do not spin.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

CSimSerialServer::CSimSerialServer(std::shared_ptr<CSimDrive> drive) : m_pImpl(std::make_unique<Impl>(std::move(drive)))
{
    if (!m_pImpl->pDrive)
        throw std::invalid_argument("CSimSerialServer needs a drive");
}

CSimSerialServer::~CSimSerialServer()
{
    Stop();
}

void CSimSerialServer::Start()
{
    Impl& d = *m_pImpl;
    d.pty.Start("SimSerialServer", [&d] { d.Serve(); });
}

void CSimSerialServer::Stop()
{
    m_pImpl->pty.Stop();
}

std::string CSimSerialServer::SlavePath() const
{
    return m_pImpl->pty.SlavePath();
}

void CSimSerialServer::SetPace(unsigned baud)
{
    m_pImpl->nBytesPerSecond = baud / 10;
    m_pImpl->pty.Wake();
}

void CSimSerialServer::SetDuplex(SimDuplex duplex)
{
    m_pImpl->eDuplex = duplex;
    m_pImpl->pty.Wake();
}

CSimFaults& CSimSerialServer::Faults()
{
    return m_pImpl->faults;
}

} // namespace tessitor::sim
