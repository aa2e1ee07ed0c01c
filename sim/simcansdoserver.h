// The SDO server of one virtual drive (CiA 301, default SDO channel):
// expedited and segmented upload and download over the node's object
// dictionary, toggle checks, and aborts for what it refuses; block transfers
// are refused with "command specifier not valid". Fed request data, it
// returns response data: no I/O, no time of its own.
//
//   CSimCanSdoServer server(objects);
//   std::array<std::uint8_t, 8> response;
//   if (server.Answer(request.arData, response, now)) ... send response on 0x580 + node ...
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "sim/simcanobjects.h"

namespace tessitor::sim {

class CSimCanSdoServer {
public:
    using Data = std::array<std::uint8_t, 8>;

    /// Serves objects (not owned; must outlive the server).
    explicit CSimCanSdoServer(CSimCanObjects& objects) : m_Objects(objects) {}

    /// Answers one request; false when nothing is to be sent (the client
    /// aborted). A new initiate request ends any transfer in progress.
    bool Answer(const Data& request, Data& response, CSimCanObjects::Clock::time_point now);
    /// An abort of the transfer request belongs to, with code; ends it.
    Data Abort(const Data& request, std::uint32_t code);
    /// "0xIIII.SS": the object request addresses (for a segment, the
    /// object of the transfer in progress), as faults name it.
    std::string Describe(const Data& request) const;
    /// The segments of the transfer request starts or continues repeat the
    /// toggle bit of its first segment, and the server stops checking the
    /// client's toggle for it: a faulty drive.
    void RepeatToggle() { m_bRepeatToggle = true; }
    /// Ends any transfer (NMT reset).
    void Reset();

private:
    enum class State { kIdle, kUpload, kDownload };

    // Each fills response and returns 0, or returns the abort code.
    std::uint32_t InitiateDownload(const Data& request, Data& response, CSimCanObjects::Clock::time_point now);
    std::uint32_t DownloadSegment(const Data& request, Data& response, CSimCanObjects::Clock::time_point now);
    std::uint32_t InitiateUpload(const Data& request, Data& response, CSimCanObjects::Clock::time_point now);
    std::uint32_t UploadSegment(const Data& request, Data& response);
    // Checks that a segment request belongs to a transfer of state and
    // carries the right toggle; gives the toggle of its response.
    std::uint32_t Segment(State state, const Data& request, std::uint8_t& toggle);
    bool NextToggle(const Data& request, std::uint8_t& toggle);

    CSimCanObjects& m_Objects;
    State m_eState = State::kIdle;
    std::uint16_t m_wIndex = 0;
    std::uint8_t m_bSub = 0;
    std::string m_sData;            ///< upload: what is sent; download: what came so far
    std::size_t m_nOffset = 0;      ///< upload: bytes sent
    std::uint32_t m_nSize = 0;      ///< download: the size the client indicated
    bool m_bSizeKnown = false;
    std::uint8_t m_nToggle = 0;     ///< the toggle the next segment request must carry
    int m_nSegments = 0;            ///< segments answered in this transfer
    // The toggle fault: asked for, in force for this transfer, its repeat
    // still to come, and the toggle of the last segment sent.
    bool m_bRepeatToggle = false;
    bool m_bFaultyToggle = false;
    bool m_bRepeatPending = false;
    std::uint8_t m_nLastToggle = 0;
};

} // namespace tessitor::sim
