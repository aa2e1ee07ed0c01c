// Family methods over a CAN link. The link sends each command the way its
// shape says (SDO object, binary interpreter or OS command); "LS", "DL"
// lines and "CC" go by their SDO objects as they stand. An image chunk
// ("IM[n]", "IM[n]=hex") has the shape of a binary-interpreter command,
// which carries one 32-bit value, so the chunks go by OS command
// (0x1023/0x1024), whose text has room for them.
#pragma once

#include "applicationeditor/nolbremethods.h"
#include "applicationeditor/talmethods.h"
#include "can/can.h"

namespace tessitor {

/// The CAN transport under a family's methods (TFamily: CTalMethods or CNolBreMethods).
template <class TFamily>
class CCanMethods : public TFamily {
public:
    explicit CCanMethods(CCan& link) : TFamily(link), m_Can(link) {}

protected:
    std::string UploadImageChunk(std::size_t n) override
    {
        COsCommandOnly only(m_Can);
        return this->UploadImageChunkByCommand(n);
    }
    void DownloadImageChunk(std::size_t n, const std::string& hex) override
    {
        COsCommandOnly only(m_Can);
        this->DownloadImageChunkByCommand(n, hex);
    }
    /// The CAN link's own value rule: there is no echo to strip.
    std::string CommandValue(const std::string& command, std::uint32_t timeoutMs) override
    {
        std::string value;
        if (m_Can.SendCommandGetValue(command, value, timeoutMs) != 0)
            throw CCommunication::CExceptionComm(3, &m_Can, kErrSrcSetup);
        return value == ";" ? std::string() : value; // ";": no value, as a serial line's extraction gives
    }

private:
    // Every command by OS command while it lives.
    class COsCommandOnly {
    public:
        explicit COsCommandOnly(CCan& can) : m_rCan(can) { m_rCan.SetOsCommandOnly(true); }
        ~COsCommandOnly() { m_rCan.SetOsCommandOnly(false); }

    private:
        CCan& m_rCan;
    };

    CCan& m_Can;
};

class CTalCANMethods final : public CCanMethods<CTalMethods> {
public:
    using CCanMethods<CTalMethods>::CCanMethods;
};

class CNolBreCANMethods final : public CCanMethods<CNolBreMethods> {
public:
    using CCanMethods<CNolBreMethods>::CCanMethods;
};

} // namespace tessitor
