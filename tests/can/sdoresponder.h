// A CiA 301 SDO server of one node for tests, free of I/O: objects by index
// and sub-index, expedited and segmented both ways, unknown objects aborted
// with 0x06020000. The SLCAN and SocketCAN tests put it behind a bus.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "can/sdoprotocol.h"

namespace tessitor::test {

class CSdoResponder {
public:
    explicit CSdoResponder(std::map<std::uint32_t, std::string> objects = {}) : m_mapObjects(std::move(objects)) {}

    static std::uint32_t Key(std::uint16_t index, std::uint8_t sub) { return static_cast<std::uint32_t>(index) << 8 | sub; }

    std::string Object(std::uint16_t index, std::uint8_t sub)
    {
        std::lock_guard lock(m_csObjects);
        return m_mapObjects[Key(index, sub)];
    }

    /// The response to request, or none for a frame a server ignores.
    std::optional<sdo::Frame> Answer(const sdo::Frame& f)
    {
        std::lock_guard lock(m_csObjects);
        sdo::Frame out{};
        std::copy(f.begin() + 1, f.begin() + 4, out.begin() + 1);
        switch (sdo::Specifier(f[0])) {
        case sdo::kCcsInitUpload:
            m_nKey = Key(sdo::Index(f), sdo::SubIndex(f));
            if (!m_mapObjects.count(m_nKey))
                return Abort(out, sdo::kAbortNoObject);
            m_sUpload = m_mapObjects[m_nKey];
            out[0] = 0x41; // segmented, size indicated
            out[4] = static_cast<std::uint8_t>(m_sUpload.size());
            out[5] = static_cast<std::uint8_t>(m_sUpload.size() >> 8);
            return out;
        case sdo::kCcsUploadSegment: {
            std::size_t n = std::min<std::size_t>(sdo::kBytesPerSegment, m_sUpload.size());
            out = sdo::Frame{};
            out[0] = static_cast<std::uint8_t>((f[0] & 0x10) | (7 - n) << 1 | (n == m_sUpload.size() ? 1 : 0));
            std::copy(m_sUpload.begin(), m_sUpload.begin() + static_cast<long>(n), out.begin() + 1);
            m_sUpload.erase(0, n);
            return out;
        }
        case sdo::kCcsInitDownload:
            m_nKey = Key(sdo::Index(f), sdo::SubIndex(f));
            m_sDownload.clear();
            if (sdo::Expedited(f[0]))
                m_mapObjects[m_nKey] = std::string(f.begin() + 4, f.begin() + 8 - sdo::InitUnused(f[0]));
            out[0] = 0x60;
            return out;
        case sdo::kCcsDownloadSegment:
            m_sDownload.append(f.begin() + 1, f.begin() + 8 - sdo::SegmentUnused(f[0]));
            if (sdo::LastSegment(f[0]))
                m_mapObjects[m_nKey] = m_sDownload;
            return sdo::Frame{static_cast<std::uint8_t>(0x20 | (f[0] & 0x10))};
        default:
            return std::nullopt;
        }
    }

private:
    static sdo::Frame Abort(sdo::Frame out, std::uint32_t code)
    {
        out[0] = sdo::kAbortCommand;
        for (int i = 0; i < 4; ++i)
            out[4 + i] = static_cast<std::uint8_t>(code >> (8 * i));
        return out;
    }

    std::mutex m_csObjects;
    std::map<std::uint32_t, std::string> m_mapObjects;
    std::uint32_t m_nKey = 0;
    std::string m_sUpload, m_sDownload;
};

} // namespace tessitor::test
