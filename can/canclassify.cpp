#include "can/canclassify.h"

#include <cstdlib>

#include "core/strformat.h"

namespace tessitor {
namespace {

struct SdoCommandRow {
    const char* szMnemonic;
    int nKind;
    bool bRecord;
    std::uint16_t wIndex;
    std::uint8_t bSubIndex;
    const char* szData;
};

// Searched from the top, first match wins: the second "VR" and "HS" rows are
// never reached. They stay, in this order, as the drives' tools have them.
constexpr SdoCommandRow kSdoCommands[] = {
    {"CC", kTransferSdoUpload, false, 0x2073, 0, ""},
    {"VR", kTransferSdoUpload, false, 0x1000, 0, ""},
    {"CS", kTransferSdoUpload, false, 0x2071, 0, ""},
    {"LS", kTransferSdoUpload, false, 0x2070, 0, ""},
    {"DL", kTransferSdoDownload, false, 0x2070, 0, ""},
    {"MZ", kTransferSdoUpload, false, 0x2072, 0, ""},
    {"SC", kTransferSdoDownload, false, 0x2071, 0, ""},
    {"VR", kTransferSdoUpload, false, 0x100A, 0, ""},
    {"DF", kTransferSdoDownload, false, 0x2090, 0, ""},
    {"LD", kTransferSdoDownload, false, 0x1011, 1, "load"},
    {"SV", kTransferSdoDownload, false, 0x1010, 1, "save"},
    {"ZX", kTransferSdoDownload, false, 0x2060, 0, ""},
    {"XQ", kTransferSdoDownload, false, 0x2074, 0, ""},
    {"BH", kTransferSdoUpload, true, kRecordObject, 0, ""},
    {"CD", kTransferSdoUpload, false, 0x2080, 0, ""},
    {"HS", kTransferSdoDownload, false, 0x2031, 0, ""},
    {"HS", kTransferSdoUpload, false, 0x2031, 0, ""},
};

bool AllDigits(const std::string& text)
{
    return text.find_first_not_of("0123456789") == std::string::npos;
}

// Step 4: the kind a command gets by its shape.
int KindByShape(const std::string& text)
{
    if (text.size() == 2)
        return kTransferBinary;
    std::string k;
    if (text.size() > 2 && text[2] == '[') {
        std::size_t close = text.find(']');
        if (close != std::string::npos && close <= 2)
            return kTransferOsCommand;
        if (close == text.size() - 1)
            k = text.substr(3, close - 3);
        else if (close != std::string::npos && close + 1 < text.size() && text[close + 1] == '=')
            k = text.substr(close + 2);
        else
            return kTransferOsCommand;
    } else if (text.size() > 2 && text[2] == '=') {
        k = text.substr(3);
    } else {
        return kTransferOsCommand;
    }
    // A sign or a decimal point is not a digit: such values go as text.
    return AllDigits(k) ? kTransferBinary : kTransferOsCommand;
}

} // namespace

CanCommandClass ClassifyCanCommand(const std::string& command, const std::string& processorType)
{
    CanCommandClass result;
    std::string text = Trim(command);
    std::string lookup = text;
    bool subIndexSet = false;

    if (text.find("BH=") != std::string::npos && text.find_first_of("0123456789") == 3) {
        auto mask = static_cast<std::uint32_t>(std::strtoul(text.c_str() + text.find('=') + 1, nullptr, 10));
        int bit = 0;
        while (bit < 32 && !(mask >> bit & 1))
            ++bit;
        result.bSubIndex = static_cast<std::uint8_t>(bit == 32 ? 33 : bit + 1);
        subIndexSet = true;
        lookup = "BH";
    }
    // Tested in this order; the last one found wins.
    for (const char* mnemonic : {"DL", "ZX", "XQ"})
        if (text.find(mnemonic) != std::string::npos)
            lookup = mnemonic;

    bool matched = false;
    for (const SdoCommandRow& row : kSdoCommands) {
        if (lookup != row.szMnemonic)
            continue;
        result.nKind = row.nKind;
        result.bRecord = row.bRecord;
        result.wIndex = row.wIndex;
        result.sData = row.szData;
        if (!subIndexSet)
            result.bSubIndex = row.bSubIndex;
        matched = true;
        break;
    }
    if (!matched)
        result.nKind = KindByShape(text);

    if (result.nKind == kTransferBinary || result.wIndex == kRecordObject)
        return result;
    // Only "BreNol" drives serve the table's objects; every other drive
    // takes those commands through the OS command.
    if (processorType != "BreNol")
        result.nKind = kTransferOsCommand;
    else if (result.nKind == kTransferOsCommand)
        result.nKind = kTransferBinary;
    return result;
}

} // namespace tessitor
