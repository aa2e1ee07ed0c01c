// Helpers shared by the virtual drive's tests: a drive on a manual clock,
// and a decoder of "BH" replies written from the reply layout alone.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
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
    double N(const std::string& command) { return std::stod(V(command)); }
    void Wait(double seconds) { m_pClock->Advance(seconds); }
    int RecorderState() { return (std::stoi(V("SR")) >> 16) & 3; }

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

inline unsigned HexField(const std::string& text, std::size_t pos, std::size_t len)
{
    return static_cast<unsigned>(std::stoul(text.substr(pos, len), nullptr, 16));
}

inline Upload DecodeUpload(const std::string& text)
{
    Upload u;
    if (text.size() < 20)
        return u;
    u.nType = HexField(text, 0, 2);
    u.nDigits = HexField(text, 2, 2);
    u.nCount = HexField(text, 4, 4);
    u.nFourth = HexField(text, 8, 4);
    std::uint32_t bits = HexField(text, 12, 8);
    std::memcpy(&u.fScale, &bits, sizeof bits);
    if (text.size() - 20 != static_cast<std::size_t>(u.nCount) * u.nDigits)
        return u;
    for (unsigned i = 0; i < u.nCount; ++i) {
        std::uint32_t raw = HexField(text, 20 + i * u.nDigits, u.nDigits);
        if (u.nType == 3) {
            float f;
            std::memcpy(&f, &raw, sizeof f);
            u.arSamples.push_back(f);
        } else if (u.nDigits == 4) {
            u.arSamples.push_back(static_cast<float>(static_cast<std::int16_t>(raw)) * u.fScale);
        } else {
            u.arSamples.push_back(static_cast<float>(static_cast<std::int32_t>(raw)) * u.fScale);
        }
    }
    u.bOk = true;
    return u;
}

} // namespace tessitor::sim::test
