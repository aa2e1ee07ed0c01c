#include "communication/linkfactory.h"

#include "can/can.h"
#include "communication/rs232.h"
#include "communication/tcp.h"

namespace tessitor {

std::unique_ptr<CCommunication> CreateLink(const CCommunicationInfo& info, const LinkOptions& options)
{
    switch (info.GetKind()) {
    case kKindRs232:
    case kKindRs485: {
        auto link = std::make_unique<CRs232>(info);
        if (!options.sSerialPath.empty())
            link->SetDevicePath(options.sSerialPath);
        return link;
    }
    case kKindCan:
        return std::make_unique<CCan>(info);
    case kKindTcp:
    case kKindTcpKmas: {
        auto link = std::make_unique<CTCP>(info, options.wTcpPort);
        link->SetHost(options.sTcpHost);
        if (options.nTimeoutMs != 0)
            link->SetConnectTimeout(options.nTimeoutMs);
        return link;
    }
    default:
        throw CCommunication::CExceptionComm(COM_BAD_INFO, nullptr, kErrSrcTransport);
    }
}

} // namespace tessitor
