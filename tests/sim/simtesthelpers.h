// Helpers shared by the virtual drive's tests: a drive on a manual clock,
// and a decoder of "BH" replies written from the reply layout alone.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

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

} // namespace tessitor::sim::test
