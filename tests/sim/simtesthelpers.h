// Helpers shared by the virtual drive's tests: a drive on a manual clock,
// a decoder of "BH" replies written from the reply layout alone, a raw
// client of a pseudo-terminal face, and CAN frames in the ID#DATA notation.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "sim/simcanframe.h"
#include "sim/simdrive.h"

namespace tessitor::sim::test {

class CDriveFixture : public ::testing::Test {
protected:
    void MakeDrive(const std::string& product)
    {
        m_pDrive = std::make_unique<CSimDrive>(product);
        m_pDrive->SetClock(m_pClock);
    }
    void SetUp() override { MakeDrive("Talvina"); }

    /// The value of a command the drive must accept.
    std::string V(const std::string& command)
    {
        SimReply reply = m_pDrive->Execute(command);
        EXPECT_FALSE(reply.bError) << command << " refused with " << reply.nErrorNumber;
        return reply.sValue;
    }
    /// The error number of a command the drive must refuse (0 if accepted).
    int E(const std::string& command)
    {
        SimReply reply = m_pDrive->Execute(command);
        EXPECT_TRUE(reply.bError) << command << " accepted with \"" << reply.sValue << "\"";
        return reply.bError ? reply.nErrorNumber : 0;
    }
    /// Runs each command, all of which the drive must accept.
    void Do(std::initializer_list<const char*> commands)
    {
        for (const char* command : commands)
            V(command);
    }
    double N(const std::string& command) { return std::stod(V(command)); }
    unsigned long SR() { return std::stoul(V("SR")); }
    void Wait(double seconds) { m_pClock->Advance(seconds); }
    int RecorderState() { return static_cast<int>(SR() >> 16 & 3); }

    std::shared_ptr<CSimManualClock> m_pClock = std::make_shared<CSimManualClock>();
    std::unique_ptr<CSimDrive> m_pDrive;
};

/// A decoded "BH" reply.
struct Upload {
    bool bOk = false;
    unsigned nType = 0, nDigits = 0, nCount = 0, nFourth = 0;
    float fScale = 0;
    std::vector<double> arSamples;
};

inline Upload DecodeUpload(const std::string& text)
{
    auto hex = [&text](std::size_t pos, std::size_t len) {
        return static_cast<std::uint32_t>(std::stoul(text.substr(pos, len), nullptr, 16));
    };
    Upload u;
    if (text.size() < 20)
        return u;
    u.nType = hex(0, 2);
    u.nDigits = hex(2, 2);
    u.nCount = hex(4, 4);
    u.nFourth = hex(8, 4);
    std::uint32_t bits = hex(12, 8);
    std::memcpy(&u.fScale, &bits, sizeof bits);
    if (text.size() - 20 != static_cast<std::size_t>(u.nCount) * u.nDigits)
        return u;
    for (unsigned i = 0; i < u.nCount; ++i) {
        std::uint32_t raw = hex(20 + i * u.nDigits, u.nDigits);
        float f;
        std::memcpy(&f, &raw, sizeof f);
        if (u.nType == 3)
            u.arSamples.push_back(f);
        else
            u.arSamples.push_back(static_cast<float>(u.nDigits == 4 ? static_cast<std::int16_t>(raw)
                                                                    : static_cast<std::int32_t>(raw)) * u.fScale);
    }
    u.bOk = true;
    return u;
}

/// A client of a pseudo-terminal face that sees raw bytes.
class CRawLine {
public:
    explicit CRawLine(const std::string& path) : m_fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        EXPECT_GE(m_fd, 0) << path;
        termios tio{};
        if (m_fd >= 0 && ::tcgetattr(m_fd, &tio) == 0) {
            ::cfmakeraw(&tio);
            ::tcsetattr(m_fd, TCSANOW, &tio);
        }
    }
    ~CRawLine()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    /// Writes all of b; what the drive echoes meanwhile is kept for the next read,
    /// so a long line cannot stall on a full buffer while the drive's echo waits for us.
    void Send(const std::string& b)
    {
        std::size_t sent = 0;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (sent < b.size() && std::chrono::steady_clock::now() < deadline) {
            pollfd p{m_fd, POLLIN | POLLOUT, 0};
            if (::poll(&p, 1, 100) <= 0)
                continue;
            char c;
            while ((p.revents & POLLIN) && ::read(m_fd, &c, 1) == 1)
                m_pending += c;
            if (p.revents & POLLOUT) {
                ssize_t n = ::write(m_fd, b.data() + sent, b.size() - sent);
                if (n > 0)
                    sent += static_cast<std::size_t>(n);
            }
        }
        ASSERT_EQ(sent, b.size()) << "the line took only part of the bytes";
    }
    /// Bytes until one of more than skip bytes is end, or until timeoutMs passed
    /// (with end '\0' and skip SIZE_MAX: everything that arrives within timeoutMs).
    std::string ReadUntil(char end, std::size_t skip, int timeoutMs = 5000)
    {
        return Read([&](const std::string& got) { return got.back() == end && got.size() > skip; }, timeoutMs);
    }
    /// One SLCAN answer: bytes up to a carriage return or a bell ("" after timeoutMs).
    std::string ReadAnswer(int timeoutMs = 5000)
    {
        return Read([](const std::string& got) { return got.back() == '\r' || got.back() == '\a'; }, timeoutMs);
    }
    std::string Ask(const std::string& command, char end = ';')
    {
        Send(command + "\r");
        return ReadUntil(end, command.size() + 1);
    }

private:
    template <typename Done>
    std::string Read(Done done, int timeoutMs)
    {
        std::string got;
        while (!m_pending.empty()) {
            got += m_pending.front();
            m_pending.erase(0, 1);
            if (done(got))
                return got;
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (auto now = std::chrono::steady_clock::now(); now < deadline; now = std::chrono::steady_clock::now()) {
            pollfd p{m_fd, POLLIN, 0};
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
            if (::poll(&p, 1, static_cast<int>(left.count())) <= 0)
                break;
            char c;
            while (::read(m_fd, &c, 1) == 1) {
                got += c;
                if (done(got))
                    return got;
            }
        }
        return got;
    }

    int m_fd = -1;
    std::string m_pending;
};

/// The frame "ID#DATA" names ("605#4008100000000000", "705#R" a remote request).
inline SimCanFrame CanFrame(const std::string& text)
{
    SimCanFrame frame;
    std::size_t hash = text.find('#');
    frame.nId = static_cast<std::uint32_t>(std::stoul(text.substr(0, hash), nullptr, 16));
    frame.bExtended = hash > 3;
    std::string data = text.substr(hash + 1);
    frame.bRemote = data == "R";
    for (std::size_t i = 0; !frame.bRemote && i + 1 < data.size() && i < 16; i += 2)
        frame.arData[frame.nLength++] = static_cast<std::uint8_t>(std::stoul(data.substr(i, 2), nullptr, 16));
    return frame;
}

} // namespace tessitor::sim::test
