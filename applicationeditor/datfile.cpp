#include "applicationeditor/datfile.h"

#include <cstdio>

#include "core/strformat.h"

namespace tessitor {

void CDatFile::SetCommunicationInfo(const CCommunicationInfo& info)
{
    SetCommunicationText(kFieldCommunicationType, info.m_sCommType);
    switch (info.GetKind()) {
    case kKindRs232:
    case kKindTcpKmas: // the serial fields, as files of this type have always held
        SetCommunicationInt("nPort", info.nPort);
        SetCommunicationInt("wBaudRate", static_cast<std::int32_t>(info.wBaudRate));
        SetCommunicationInt("bByteSize", info.bByteSize);
        SetCommunicationInt("bParity", info.bParity);
        SetCommunicationInt("bStopBits", info.bStopBits);
        SetCommunicationInt("bFlowCtrl", info.bFlowCtrl);
        break;
    case kKindCan:
        SetCommunicationInt("mNodeID", info.mNodeID);
        SetCommunicationText("sBoardType", info.sBoardType);
        SetCommunicationInt("mCanNr", info.mCanNr);
        SetCommunicationInt("mBaudRateIndex", info.mBaudRateIndex);
        SetCommunicationInt("w_irq1", info.w_irq1);
        SetCommunicationInt("w_address1", info.w_address1);
        SetCommunicationText("sManufacture", info.sManufacture);
        break;
    case kKindTcp:
        SetCommunicationText("IP", StrFormat("%d.%d.%d.%d", info.abIP[0], info.abIP[1], info.abIP[2], info.abIP[3]));
        SetCommunicationText("sDesc", info.sDesc);
        SetCommunicationInt("type", info.nType);
        break;
    default: // "RS_485" and unknown types store no fields of their own
        break;
    }
}

CCommunicationInfo CDatFile::GetCommunicationInfo() const
{
    CCommunicationInfo info;
    info.m_sCommType = GetCommunicationText(kFieldCommunicationType);
    auto u8 = [this](const char* field) { return static_cast<std::uint8_t>(GetCommunicationInt(field)); };
    switch (info.GetKind()) {
    case kKindRs232:
    case kKindTcpKmas:
        info.nPort = u8("nPort");
        info.wBaudRate = static_cast<std::uint32_t>(GetCommunicationInt("wBaudRate"));
        info.bByteSize = u8("bByteSize");
        info.bParity = u8("bParity");
        info.bStopBits = u8("bStopBits");
        info.bFlowCtrl = u8("bFlowCtrl");
        break;
    case kKindCan:
        info.mNodeID = u8("mNodeID");
        info.sBoardType = GetCommunicationText("sBoardType");
        info.mCanNr = u8("mCanNr");
        info.mBaudRateIndex = u8("mBaudRateIndex");
        info.w_irq1 = u8("w_irq1");
        info.w_address1 = static_cast<std::uint16_t>(GetCommunicationInt("w_address1"));
        info.sManufacture = GetCommunicationText("sManufacture");
        break;
    case kKindTcp: {
        int b[4] = {};
        std::sscanf(GetCommunicationText("IP").c_str(), "%d.%d.%d.%d", &b[0], &b[1], &b[2], &b[3]);
        for (int i = 0; i < 4; ++i)
            info.abIP[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(b[i]);
        info.sDesc = GetCommunicationText("sDesc");
        info.nType = GetCommunicationInt("type");
        break;
    }
    default:
        break;
    }
    return info;
}

int CDatFile::DecodeParams(const std::string& text, std::vector<std::uint8_t>& bytes, std::size_t capacity)
{
    bytes.clear();
    int high = -1;
    for (char c : text) {
        if (c == ';')
            break;
        // Checked before each character: capacity + 1 bytes still fit.
        if (bytes.size() > capacity)
            return 0;
        int d = HexDigit(c);
        if (d < 0)
            return -1;
        if (high < 0) {
            high = d;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high << 4 | d));
            high = -1;
        }
    }
    return 1;
}

std::string CDatFile::EncodeParams(const std::vector<std::uint8_t>& bytes)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (std::uint8_t b : bytes) {
        text += kDigits[b >> 4];
        text += kDigits[b & 0xF];
    }
    return text;
}

} // namespace tessitor
