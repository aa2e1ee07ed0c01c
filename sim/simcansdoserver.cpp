#include "sim/simcansdoserver.h"

#include <algorithm>
#include <cstdio>

#include "sim/simcanframe.h"

namespace tessitor::sim {

namespace {

// Bits of SDO byte 0 below the command specifier.
constexpr std::uint8_t kToggleBit = 0x10;
constexpr std::uint8_t kExpeditedBit = 0x02;
constexpr std::uint8_t kSizeBit = 0x01;
constexpr std::uint8_t kLastSegmentBit = 0x01;
constexpr std::size_t kSegmentBytes = 7;

std::uint8_t Specifier(std::uint8_t byte0)
{
    return static_cast<std::uint8_t>(byte0 >> 5);
}

std::uint8_t Command(std::uint8_t specifier)
{
    return static_cast<std::uint8_t>(specifier << 5);
}

bool IsInitiate(std::uint8_t specifier)
{
    return specifier == kSdoCcsInitiateDownload || specifier == kSdoCcsInitiateUpload
           || specifier == kSdoCcsBlockUpload || specifier == kSdoCcsBlockDownload;
}

void PutObject(CSimCanSdoServer::Data& data, std::uint16_t index, std::uint8_t sub)
{
    data[1] = static_cast<std::uint8_t>(index & 0xFF);
    data[2] = static_cast<std::uint8_t>(index >> 8);
    data[3] = sub;
}

void PutU32(CSimCanSdoServer::Data& data, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        data[4 + i] = static_cast<std::uint8_t>(value >> (8 * i) & 0xFF);
}

std::uint16_t IndexOf(const CSimCanSdoServer::Data& data)
{
    return static_cast<std::uint16_t>(data[1] | data[2] << 8);
}

} // namespace

bool CSimCanSdoServer::Answer(const Data& request, Data& response, CSimCanObjects::Clock::time_point now)
{
    response = Data{};
    std::uint8_t specifier = Specifier(request[0]);
    if (IsInitiate(specifier)) {
        m_eState = State::kIdle;
        m_bFaultyToggle = m_bRepeatToggle;
        m_bRepeatPending = m_bRepeatToggle;
        m_bRepeatToggle = false;
        m_nSegments = 0;
        m_nToggle = 0;
    }
    std::uint32_t abort = 0;
    switch (specifier) {
    case kSdoCcsInitiateDownload:
        abort = InitiateDownload(request, response, now);
        break;
    case kSdoCcsDownloadSegment:
        abort = DownloadSegment(request, response, now);
        break;
    case kSdoCcsInitiateUpload:
        abort = InitiateUpload(request, response, now);
        break;
    case kSdoCcsUploadSegment:
        abort = UploadSegment(request, response);
        break;
    case kSdoCsAbort:
        Reset();
        return false;
    default:
        // Block transfers (and the unused specifier 7) are not served.
        abort = kAbortCommand;
        break;
    }
    if (abort)
        response = Abort(request, abort);
    return true;
}

std::uint32_t CSimCanSdoServer::InitiateDownload(const Data& request, Data& response,
                                                 CSimCanObjects::Clock::time_point now)
{
    std::uint16_t index = IndexOf(request);
    std::uint8_t sub = request[3];
    SimCanObjectInfo info;
    if (std::uint32_t abort = m_Objects.Find(index, sub, info))
        return abort;
    if (!info.bWrite)
        return kAbortReadOnly;
    if (request[0] & kExpeditedBit) {
        // These drives take the size from n even when s is clear, as their
        // clients send it so; with neither, a fixed-length object takes its length.
        auto empty = static_cast<std::size_t>(request[0] >> 2 & 3);
        std::size_t size = 4 - empty;
        if (!(request[0] & kSizeBit) && empty == 0 && info.nLength > 0 && info.nLength < 4)
            size = info.nLength;
        std::string data(request.begin() + 4, request.begin() + 4 + static_cast<std::ptrdiff_t>(size));
        if (std::uint32_t abort = m_Objects.Write(index, sub, data, now))
            return abort;
    } else {
        m_bSizeKnown = (request[0] & kSizeBit) != 0;
        m_nSize = static_cast<std::uint32_t>(request[4] | request[5] << 8 | request[6] << 16)
                  | static_cast<std::uint32_t>(request[7]) << 24;
        std::uint32_t limit = info.nLength ? info.nLength : CSimCanObjects::kMaxStringLength;
        if (m_bSizeKnown && m_nSize > limit)
            return kAbortTooLong;
        if (m_bSizeKnown && m_nSize < info.nLength)
            return kAbortTooShort;
        m_eState = State::kDownload;
        m_wIndex = index;
        m_bSub = sub;
        m_sData.clear();
    }
    response[0] = Command(kSdoScsInitiateDownload);
    PutObject(response, index, sub);
    return 0;
}

std::uint32_t CSimCanSdoServer::DownloadSegment(const Data& request, Data& response,
                                                CSimCanObjects::Clock::time_point now)
{
    std::uint8_t toggle = 0;
    if (std::uint32_t abort = Segment(State::kDownload, request, toggle))
        return abort;
    auto empty = static_cast<std::size_t>(request[0] >> 1 & 7);
    m_sData.append(request.begin() + 1, request.begin() + 1 + static_cast<std::ptrdiff_t>(kSegmentBytes - empty));
    if (m_sData.size() > (m_bSizeKnown ? m_nSize : CSimCanObjects::kMaxStringLength))
        return kAbortTooLong;
    if (request[0] & kLastSegmentBit) {
        if (m_bSizeKnown && m_sData.size() != m_nSize)
            return kAbortTooShort;
        if (std::uint32_t abort = m_Objects.Write(m_wIndex, m_bSub, m_sData, now))
            return abort;
        m_eState = State::kIdle;
    }
    response[0] = static_cast<std::uint8_t>(Command(kSdoScsDownloadSegment) | toggle << 4);
    return 0;
}

std::uint32_t CSimCanSdoServer::InitiateUpload(const Data& request, Data& response,
                                               CSimCanObjects::Clock::time_point now)
{
    std::uint16_t index = IndexOf(request);
    std::uint8_t sub = request[3];
    std::string data;
    if (std::uint32_t abort = m_Objects.Read(index, sub, data, now))
        return abort;
    PutObject(response, index, sub);
    if (!data.empty() && data.size() <= 4) {
        response[0] = static_cast<std::uint8_t>(Command(kSdoScsInitiateUpload) | (4 - data.size()) << 2
                                                | kExpeditedBit | kSizeBit);
        std::copy(data.begin(), data.end(), response.begin() + 4);
        return 0;
    }
    response[0] = static_cast<std::uint8_t>(Command(kSdoScsInitiateUpload) | kSizeBit);
    PutU32(response, static_cast<std::uint32_t>(data.size()));
    m_eState = State::kUpload;
    m_wIndex = index;
    m_bSub = sub;
    m_sData = std::move(data);
    m_nOffset = 0;
    return 0;
}

std::uint32_t CSimCanSdoServer::UploadSegment(const Data& request, Data& response)
{
    std::uint8_t toggle = 0;
    if (std::uint32_t abort = Segment(State::kUpload, request, toggle))
        return abort;
    std::size_t count = std::min(kSegmentBytes, m_sData.size() - m_nOffset);
    bool last = m_nOffset + count == m_sData.size();
    response[0] = static_cast<std::uint8_t>(Command(kSdoScsUploadSegment) | toggle << 4 | (kSegmentBytes - count) << 1
                                            | (last ? kLastSegmentBit : 0));
    std::copy_n(m_sData.begin() + static_cast<std::ptrdiff_t>(m_nOffset), count, response.begin() + 1);
    m_nOffset += count;
    if (last)
        m_eState = State::kIdle;
    return 0;
}

std::uint32_t CSimCanSdoServer::Segment(State state, const Data& request, std::uint8_t& toggle)
{
    if (m_eState != state)
        return kAbortCommand;
    return NextToggle(request, toggle) ? 0 : kAbortToggle;
}

bool CSimCanSdoServer::NextToggle(const Data& request, std::uint8_t& toggle)
{
    if (m_bRepeatToggle && !m_bFaultyToggle) {
        // The fault asked for in the middle of a transfer starts here.
        m_bFaultyToggle = m_bRepeatPending = true;
    }
    m_bRepeatToggle = false;
    std::uint8_t requested = (request[0] & kToggleBit) ? 1 : 0;
    if (!m_bFaultyToggle) {
        if (requested != m_nToggle)
            return false;
        toggle = requested;
        m_nToggle ^= 1;
    } else if (m_nSegments == 0) {
        toggle = 0;
    } else if (m_bRepeatPending) {
        toggle = m_nLastToggle;
        m_bRepeatPending = false;
    } else {
        toggle = m_nLastToggle ^ 1;
    }
    m_nLastToggle = toggle;
    ++m_nSegments;
    return true;
}

CSimCanSdoServer::Data CSimCanSdoServer::Abort(const Data& request, std::uint32_t code)
{
    bool initiate = IsInitiate(Specifier(request[0]));
    Data frame{};
    frame[0] = Command(kSdoCsAbort);
    PutObject(frame, initiate ? IndexOf(request) : m_wIndex, initiate ? request[3] : m_bSub);
    PutU32(frame, code);
    Reset();
    return frame;
}

std::string CSimCanSdoServer::Describe(const Data& request) const
{
    bool initiate = IsInitiate(Specifier(request[0]));
    char text[16];
    std::snprintf(text, sizeof text, "0x%04X.%02X", initiate ? IndexOf(request) : m_wIndex,
                  initiate ? request[3] : m_bSub);
    return text;
}

void CSimCanSdoServer::Reset()
{
    m_eState = State::kIdle;
    m_sData.clear();
    m_bFaultyToggle = m_bRepeatPending = false;
}

} // namespace tessitor::sim
