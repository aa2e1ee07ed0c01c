#include "sim/simserialserver.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <deque>
#include <stdexcept>
#include <thread>

#include "sim/simpty.h"

namespace tessitor::sim {

namespace {

using Clock = std::chrono::steady_clock;

// The longest line kept; a longer one is refused when its end arrives.
constexpr std::size_t kMaxLine = 8192;
// How far a paced wire may fall behind and then catch up in one burst [s].
constexpr double kPaceBurst = 0.002;

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
    struct Chunk {
        std::string sBytes;
        Clock::time_point tNotBefore;
    };

    explicit Impl(std::shared_ptr<CSimDrive> drive) : pDrive(std::move(drive)) {}

    std::shared_ptr<CSimDrive> pDrive;
    CSimFaults faults;
    std::atomic<unsigned> nBytesPerSecond{0};
    CSimPty pty;

    // Serving-thread state.
    std::string sLine;
    bool bLineTooLong = false;
    bool bHoldEcho = false;
    std::string sHeldEcho;
    std::deque<Chunk> arOut;
    double dCredit = 0;
    Clock::time_point tCredit = Clock::now();

    void Serve();
    void OnByte(char byte);
    void OnLine(const std::string& command);
    void Queue(std::string bytes, Clock::time_point notBefore = {});
    // Writes what the pace allows; returns how long to wait before more may
    // go, in nanoseconds (-1: nothing waits for time).
    long long Flush(bool& wantWritable);
};

void CSimSerialServer::Impl::Queue(std::string bytes, Clock::time_point notBefore)
{
    if (bytes.empty())
        return;
    // Chunks that may go at once join the last one, so each write carries as much as it can.
    if (notBefore == Clock::time_point{} && !arOut.empty() && arOut.back().tNotBefore <= Clock::now())
        arOut.back().sBytes += bytes;
    else
        arOut.push_back({std::move(bytes), notBefore});
}

void CSimSerialServer::Impl::OnByte(char byte)
{
    if (sLine.empty() && !bLineTooLong)
        bHoldEcho = !faults.Empty();
    if (bHoldEcho)
        sHeldEcho += byte;
    else
        Queue(std::string(1, byte));

    if (byte == '\n' && sLine.empty() && !bLineTooLong)
        return; // a line feed after the carriage return of a terminal
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
        Queue(sHeldEcho + static_cast<char>(reply.nErrorNumber) + '?' + reply.cTerminator);
        sHeldEcho.clear();
        return;
    }
    OnLine(command);
}

void CSimSerialServer::Impl::OnLine(const std::string& command)
{
    FaultRule rule = faults.Next(command);
    SimReply reply = rule.eKind == FaultKind::kDriveError ? pDrive->Refuse(command, rule.nErrorNumber)
                                                          : pDrive->Execute(command);
    std::string answer = reply.bError ? std::string(1, static_cast<char>(reply.nErrorNumber)) + '?'
                                      : reply.sValue;
    answer += reply.cTerminator;
    std::string echo = std::move(sHeldEcho);
    sHeldEcho.clear();

    switch (rule.eKind) {
    case FaultKind::kDrop:
        break;
    case FaultKind::kWrongEcho:
        Queue(WrongEcho(echo) + answer);
        break;
    case FaultKind::kGarbage:
        Queue(rule.sGarbage + echo + answer);
        break;
    case FaultKind::kCut:
        Queue((echo + answer).substr(0, static_cast<std::size_t>(rule.nCutBytes)));
        break;
    case FaultKind::kDelay:
        Queue(echo);
        arOut.push_back({answer, Clock::now() + std::chrono::milliseconds(rule.nDelayMs)});
        break;
    default:
        Queue(echo + answer);
        break;
    }
}

long long CSimSerialServer::Impl::Flush(bool& wantWritable)
{
    wantWritable = false;
    while (!arOut.empty()) {
        Chunk& chunk = arOut.front();
        auto now = Clock::now();
        if (chunk.tNotBefore > now)
            return std::chrono::duration_cast<std::chrono::nanoseconds>(chunk.tNotBefore - now).count();
        std::size_t allowed = chunk.sBytes.size();
        unsigned rate = nBytesPerSecond.load();
        if (rate) {
            double elapsed = std::chrono::duration<double>(now - tCredit).count();
            tCredit = now;
            dCredit = std::min(dCredit + elapsed * rate, std::max(1.0, rate * kPaceBurst));
            if (dCredit < 1)
                return static_cast<long long>((1 - dCredit) / rate * 1e9) + 1;
            allowed = std::min(allowed, static_cast<std::size_t>(dCredit));
        }
        ssize_t written = ::write(pty.Master(), chunk.sBytes.data(), allowed);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                wantWritable = true;
                return -1;
            }
            // The line is gone (no reader and no spare slave): forget the output.
            arOut.clear();
            return -1;
        }
        if (rate)
            dCredit -= static_cast<double>(written);
        chunk.sBytes.erase(0, static_cast<std::size_t>(written));
        if (chunk.sBytes.empty())
            arOut.pop_front();
    }
    return -1;
}

void CSimSerialServer::Impl::Serve()
{
    char buffer[4096];
    while (pty.Serving()) {
        bool wantWritable = false;
        long long wait = Flush(wantWritable);
        pollfd fds[2] = {{pty.Master(), static_cast<short>(POLLIN | (wantWritable ? POLLOUT : 0)), 0},
                         {pty.WakeEvent(), POLLIN, 0}};
        timespec timeout{static_cast<time_t>(wait / 1000000000), static_cast<long>(wait % 1000000000)};
        int ready = ::ppoll(fds, 2, wait < 0 ? nullptr : &timeout, nullptr);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (fds[1].revents & POLLIN) {
            pty.ClearWake();
            continue;
        }
        if (fds[0].revents & POLLIN) {
            ssize_t got = ::read(pty.Master(), buffer, sizeof buffer);
            if (got > 0) {
                for (ssize_t i = 0; i < got; ++i)
                    OnByte(buffer[i]);
                continue;
            }
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

CSimFaults& CSimSerialServer::Faults()
{
    return m_pImpl->faults;
}

} // namespace tessitor::sim
