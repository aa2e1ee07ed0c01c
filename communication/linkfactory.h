// Makes the link a descriptor asks for: CRs232 for "RS_232"/"RS_485",
// CCan for "CAN", CTCP for "TCP"/"TCP_KMAS". The link is not yet connected.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "communication/communication.h"

namespace tessitor {

/// What a link needs beyond its descriptor.
struct LinkOptions {
    std::string sSerialPath;    ///< device path; wins over the port number's mapping
    std::uint16_t wTcpPort = 0; ///< network device port; 0 = settings or the default
    /// Network device host name or address as the user gave it (IPv6 with
    /// or without brackets); empty = the descriptor's IPv4 address.
    std::string sTcpHost;
    /// The command time-out, in ms: connecting to a network device (its
    /// drive list and opening the drive) follows its rules; 0 = 1000.
    std::uint32_t nTimeoutMs = 0;
};

/// A new link for info; throws CExceptionComm (code 9, "Bad Communication
/// Info Parameters") for a type no link serves.
std::unique_ptr<CCommunication> CreateLink(const CCommunicationInfo& info, const LinkOptions& options = {});

} // namespace tessitor
