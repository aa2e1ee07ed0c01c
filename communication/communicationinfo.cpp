#include "communication/communicationinfo.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "core/strformat.h"

namespace tessitor {

const char* const g_szCanBitRates[] = {"10", "20", "50", "100", "125", "250", "500", "1000", "800", "END"};
const char* const g_szParityNames[] = {"None", "Odd", "Even", "Mark", "Space"};

namespace {

constexpr size_t kMaxAdapterText = 31;
constexpr size_t kMaxTargetText = 127;

// Strings travel as one word each: blanks become 0x01 and back.
std::string ToWord(std::string text, size_t maxLength)
{
    if (text.size() > maxLength)
        text.resize(maxLength);
    std::replace(text.begin(), text.end(), ' ', '\x01');
    return text;
}

std::string FromWord(std::string text)
{
    std::replace(text.begin(), text.end(), '\x01', ' ');
    return text;
}

bool ParseLong(const std::string& text, long& value)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    value = std::strtol(text.c_str(), &end, 10);
    return end && *end == '\0';
}

const char* ParityName(unsigned parity)
{
    return parity < 5 ? g_szParityNames[parity] : "";
}

} // namespace

int CCommunicationInfo::GetKind() const
{
    if (m_sCommType == "RS_232")
        return kKindRs232;
    if (m_sCommType == "CAN")
        return kKindCan;
    if (m_sCommType == "TCP_KMAS")
        return kKindTcpKmas;
    if (m_sCommType == "TCP")
        return kKindTcp;
    if (m_sCommType == "RS_485")
        return kKindRs485;
    return kKindUnknown;
}

void CCommunicationInfo::Validate()
{
    if (m_sCommType.empty())
        m_sCommType = "RS_232";
    if (nPort >= 9)
        nPort = 1;
    if (wBaudRate < 4800 || wBaudRate > 115200)
        wBaudRate = 19200;
    if (bParity >= 5)
        bParity = 0;
    bByteSize = 8;
    bStopBits = 0;
    bFlowCtrl = 0;
    if (sManufacture.empty())
        sManufacture = "IXXAT";
    if (sBoardType.empty())
        sBoardType = "iPC-I 386";
    if (mNodeID == 0 || mNodeID >= 128)
        mNodeID = 1;
    if (mCanNr != 0 && mCanNr != 1)
        mCanNr = 0;
    // Index 8 ("800") has a text but is replaced all the same: drives of the
    // family never ran at 800 kbit/s through this field.
    if (mBaudRateIndex >= 8)
        mBaudRateIndex = 6;
    if (w_irq1 < 1 || w_irq1 > 15)
        w_irq1 = 0;
    w_address1 = 0;
    abIP = {};
}

bool CCommunicationInfo::IsEqual(const CCommunicationInfo& other) const
{
    if (m_sCommType.empty() || m_sCommType != other.m_sCommType)
        return false;
    switch (GetKind()) {
    case kKindRs232:
    case kKindRs485:
        return nPort == other.nPort && wBaudRate == other.wBaudRate && bByteSize == other.bByteSize
            && bFlowCtrl == other.bFlowCtrl && bParity == other.bParity && bStopBits == other.bStopBits;
    case kKindCan:
        return sManufacture == other.sManufacture && sBoardType == other.sBoardType && mCanNr == other.mCanNr
            && mNodeID == other.mNodeID && mBaudRateIndex == other.mBaudRateIndex
            && w_address1 == other.w_address1 && w_irq1 == other.w_irq1;
    case kKindTcpKmas:
    case kKindTcp:
        return nType == other.nType && abIP == other.abIP && sDesc == other.sDesc;
    default:
        return false;
    }
}

std::string CCommunicationInfo::GetDisplayText() const
{
    switch (GetKind()) {
    case kKindRs232:
    case kKindRs485:
        return StrFormat("%s; COM%d; %d[bit/sec]; Parity %s", m_sCommType.c_str(), nPort, static_cast<int>(wBaudRate),
                      ParityName(bParity));
    case kKindCan:
        return StrFormat("CAN %d; %s; ID %d; %s[Kbit/sec]", mCanNr, sBoardType.c_str(), mNodeID,
                      mBaudRateIndex <= 8 ? g_szCanBitRates[mBaudRateIndex] : "");
    case kKindTcp:
        return StrFormat("TCP/IP %d.%d.%d.%d %s", abIP[0], abIP[1], abIP[2], abIP[3], sDesc.c_str());
    case kKindTcpKmas:
        return StrFormat("TCP/IP %s CAN NodeID %d;", sDesc.c_str(), mNodeID);
    default:
        return {};
    }
}

std::string CCommunicationInfo::GetShortName() const
{
    switch (GetKind()) {
    case kKindRs232:
        return StrFormat("_COM%d", nPort);
    case kKindCan:
        return StrFormat("_CAN_ID%d", mNodeID);
    case kKindRs485:
        return "_RS485";
    case kKindTcp: {
        int port = 0, bus = 0, node = 0;
        if (nType == 0 && std::sscanf(sDesc.c_str(), "RS232 Port %d", &port) == 1)
            return StrFormat("_rs%d", port);
        if (nType == 1 && std::sscanf(sDesc.c_str(), "CANopen Bus %d NodeID %d", &bus, &node) == 2)
            return StrFormat("_canb%dn%d", bus, node);
        return {};
    }
    default:
        return {};
    }
}

void CCommunicationInfo::SetNameWithShortName(const std::string& name)
{
    std::string suffix = GetShortName();
    if (suffix.empty() || name.find(suffix) != std::string::npos)
        m_sName = name;
    else
        m_sName = StrFormat("%s%s", name.c_str(), suffix.c_str());
}

std::string CCommunicationInfo::ToLine() const
{
    std::string line = StrFormat(
        "%s ; COM: %d ; %u ; %d ; %d ; %d ; %d ; CAN: %d ; %s ; %s ; %d ; %d ; %d ; %d ; %d.%d.%d.%d ; %s ; %d",
        ToWord(m_sCommType, kMaxAdapterText).c_str(), nPort, wBaudRate, bByteSize, bParity, bStopBits, bFlowCtrl,
        mNodeID, ToWord(sManufacture, kMaxAdapterText).c_str(), ToWord(sBoardType, kMaxAdapterText).c_str(), mCanNr,
        mBaudRateIndex, w_irq1, w_address1, abIP[0], abIP[1], abIP[2], abIP[3],
        ToWord(sDesc, kMaxTargetText).c_str(), nType);
    if (guidDevice.Data1 != 0) {
        const auto& d = guidDevice.Data4;
        line += StrFormat("; %08" PRIX32 "-%04hX-%04hX-%02hhX%02hhX-%02hhX%02hhX%02hhX%02hhX%02hhX%02hhX",
                       guidDevice.Data1, guidDevice.Data2, guidDevice.Data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6],
                       d[7]);
    }
    return line;
}

std::string CCommunicationInfo::TextFieldError() const
{
    const struct {
        const char* pName;
        const std::string& sText;
        size_t nMax;
    } fields[] = {{"the communication type", m_sCommType, kMaxAdapterText},
                  {"the adapter maker", sManufacture, kMaxAdapterText},
                  {"the adapter board", sBoardType, kMaxAdapterText},
                  {"the target text", sDesc, kMaxTargetText}};
    for (const auto& field : fields) {
        if (field.sText.size() > field.nMax)
            return StrFormat("%s is longer than %zu characters", field.pName, field.nMax);
        for (char c : field.sText) {
            // Blanks travel as 0x01, ";" separates the fields, the line ends
            // at a line break and is read trimmed: none of these may be text.
            const auto b = static_cast<unsigned char>(c);
            if (b < 0x20 || b == 0x7F || c == ';')
                return StrFormat("%s holds %s, which the one-line form cannot carry", field.pName,
                                 c == ';' ? "\";\"" : StrFormat("the byte 0x%02X", b).c_str());
        }
    }
    return {};
}

bool CCommunicationInfo::FromLine(const std::string& line, std::string* why)
{
    auto malformed = [why](std::string text) {
        if (why)
            *why = std::move(text);
        return false;
    };
    // The fields are separated by " ; " and each string is one word (blanks
    // travel as 0x01), so splitting at ';' reads exactly what ToLine wrote,
    // an empty target text included.
    std::vector<std::string> pieces;
    size_t start = 0;
    for (;;) {
        size_t semicolon = line.find(';', start);
        pieces.push_back(Trim(line.substr(start, semicolon - start)));
        if (semicolon == std::string::npos)
            break;
        start = semicolon + 1;
    }
    if (pieces.size() < 17 || pieces[0].empty())
        return malformed("it does not have the 17 fields of the one-line form");
    auto stripPrefix = [](std::string& piece, const char* prefix) {
        std::string p(prefix);
        if (piece.compare(0, p.size(), p) != 0)
            return false;
        piece = Trim(piece.substr(p.size()));
        return true;
    };
    if (!stripPrefix(pieces[1], "COM:") || !stripPrefix(pieces[7], "CAN:"))
        return malformed("its \"COM:\" or \"CAN:\" field is missing");

    CCommunicationInfo read = *this;
    read.m_sCommType = FromWord(pieces[0]);
    if (read.m_sCommType == "SerialSinglePeer")
        read.m_sCommType = "RS_232";
    static constexpr int kNumeric[] = {1, 2, 3, 4, 5, 6, 7, 10, 11, 12, 13, 16};
    long values[17] = {};
    for (int index : kNumeric)
        if (!ParseLong(pieces[static_cast<size_t>(index)], values[index]))
            return malformed(StrFormat("field %d is not a number", index + 1));
    unsigned ip[4];
    char tail = 0;
    if (std::sscanf(pieces[14].c_str(), "%u.%u.%u.%u%c", &ip[0], &ip[1], &ip[2], &ip[3], &tail) != 4)
        return malformed("its IPv4 address is not four numbers");
    read.nPort = static_cast<std::uint8_t>(values[1]);
    read.wBaudRate = static_cast<std::uint32_t>(values[2]);
    read.bByteSize = static_cast<std::uint8_t>(values[3]);
    read.bParity = static_cast<std::uint8_t>(values[4]);
    read.bStopBits = static_cast<std::uint8_t>(values[5]);
    read.bFlowCtrl = static_cast<std::uint8_t>(values[6]);
    read.mNodeID = static_cast<std::uint8_t>(values[7]);
    read.sManufacture = FromWord(pieces[8]);
    read.sBoardType = FromWord(pieces[9]);
    read.mCanNr = static_cast<std::uint8_t>(values[10]);
    read.mBaudRateIndex = static_cast<std::uint8_t>(values[11]);
    read.w_irq1 = static_cast<std::uint8_t>(values[12]);
    read.w_address1 = static_cast<std::uint16_t>(values[13]);
    for (int i = 0; i < 4; ++i)
        read.abIP[static_cast<size_t>(i)] = static_cast<std::uint8_t>(ip[i]);
    read.sDesc = FromWord(pieces[15]);
    read.nType = static_cast<std::int32_t>(values[16]);
    read.guidDevice = {};
    if (line.find("IXXAT_VCI3") != std::string::npos && pieces.size() > 17) {
        Guid g;
        auto& d = g.Data4;
        if (std::sscanf(pieces[17].c_str(), "%8" SCNx32 "-%4hx-%4hx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx", &g.Data1,
                        &g.Data2, &g.Data3, &d[0], &d[1], &d[2], &d[3], &d[4], &d[5], &d[6], &d[7])
            != 11)
            return malformed("its adapter device identifier is malformed");
        read.guidDevice = g;
    }
    if (std::string error = read.TextFieldError(); !error.empty())
        return malformed(error);
    *this = read;
    return true;
}

void CCommunicationInfo::FromKeyedLine(const std::string& line)
{
    // A value is the text between the ':' that follows its key and the next
    // ';'. Keys that end in ':' carry that colon themselves.
    auto value = [&line](const std::string& key, std::string& out) {
        size_t at = line.find(key);
        if (at == std::string::npos)
            return false;
        size_t from = at + key.size();
        if (key.back() == ':')
            from -= 1;
        size_t semicolon = line.find(';', from);
        size_t colon = line.find(':', from);
        size_t begin = (colon != std::string::npos && colon < semicolon) ? colon + 1 : at + key.size();
        out = line.substr(begin, semicolon == std::string::npos ? std::string::npos : semicolon - begin);
        return true;
    };
    auto number = [](const std::string& text) { return std::atol(text.c_str()); };

    size_t colon = line.find(':');
    if (colon != std::string::npos) {
        size_t semicolon = line.find(';', colon);
        m_sCommType = line.substr(colon + 1, semicolon == std::string::npos ? std::string::npos : semicolon - colon - 1);
    }
    std::string text;
    if (GetKind() == kKindCan) {
        if (value("Baud_Rate:", text)) {
            mBaudRateIndex = 0;
            for (std::uint8_t i = 0; std::string(g_szCanBitRates[i]) != "END"; ++i)
                if (text == g_szCanBitRates[i]) {
                    mBaudRateIndex = i;
                    break;
                }
        }
        if (value("Manufacturer:", text))
            sManufacture = text;
        if (value("Channel:", text))
            mCanNr = static_cast<std::uint8_t>(number(text));
        if (value("CAN_ID:", text))
            mNodeID = static_cast<std::uint8_t>(number(text));
    } else if (GetKind() == kKindRs232) {
        if (value(":COM", text))
            nPort = static_cast<std::uint8_t>(number(text));
        if (value("Baud_Rate:", text))
            wBaudRate = static_cast<std::uint32_t>(number(text));
        if (value("Parity:", text))
            for (std::uint8_t i = 0; i < 5; ++i)
                if (text == g_szParityNames[i])
                    bParity = i;
    }
}

} // namespace tessitor
