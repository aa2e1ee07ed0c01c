// tessitor sdo upload|download: read and write a CAN node's object
// dictionary directly through SDO transfers.
#include <algorithm>
#include <cstdlib>

#include "can/can.h"
#include "core/strformat.h"
#include "core/window.h"
#include "ui/cli/clicontext.h"
#include "ui/cli/statusline.h"

namespace tessitor::cli {
namespace {

struct SdoOptions {
    std::vector<std::string> arObjects; // INDEX SUB pairs
    std::vector<std::string> arDownload; // INDEX SUB DATA
    bool bHex = false;
};

// A number as the user writes it: 0x1008 or 4104.
unsigned long ParseNumber(const std::string& text, unsigned long highest, const char* what)
{
    char* end = nullptr;
    unsigned long value = std::strtoul(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || value > highest)
        throw UsageError(StrFormat("bad %s '%s': 0..0x%lX in hex (0x...) or decimal", what, text.c_str(), highest));
    return value;
}

std::string ToHex(const std::string& bytes)
{
    std::string text;
    for (unsigned char c : bytes)
        text += StrFormat("%02X", c);
    return text;
}

std::string FromHex(const std::string& text)
{
    std::string digits;
    for (char c : text)
        if (c != ' ' && c != ':')
            digits += c;
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw UsageError("bad hex data '" + text + "': pairs of hex digits are expected, e.g. 0A1B2C");
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<char>(std::strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
    return bytes;
}

// Shows a segmented download's progress on a terminal; silent otherwise.
class CDownloadProgress : public Window {
public:
    void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        SendMessage(message, wParam, lParam);
    }
    std::intptr_t SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        if (message == kMsgSdoStart) {
            m_nTotal = wParam;
            m_nPerSegment = static_cast<std::uintptr_t>(lParam);
        } else if (message == kMsgSdoProgress) {
            m_nDone = std::min(m_nTotal, m_nDone + m_nPerSegment);
        }
        if (m_nTotal)
            m_Line.Show(StrFormat("written %zu of %zu bytes", static_cast<size_t>(m_nDone), static_cast<size_t>(m_nTotal)));
        return 0;
    }

private:
    CStatusLine m_Line;
    std::uintptr_t m_nTotal = 0;
    std::uintptr_t m_nPerSegment = 0;
    std::uintptr_t m_nDone = 0;
};

CCan& CanLink(CCommunication& link)
{
    auto* can = dynamic_cast<CCan*>(&link);
    if (!can)
        throw UsageError("sdo needs a CAN link: --can slcan:PATH|socketcan:IFACE --node N, or a CAN --conn/--last");
    return *can;
}

} // namespace

void RegisterSdoCommand(CLI::App& app, CCliContext& context)
{
    auto options = std::make_shared<SdoOptions>();
    CLI::App* sdo = app.add_subcommand("sdo", "Read and write a CAN node's objects (CANopen SDO)");
    sdo->require_subcommand(1);
    sdo->footer("An SDO abort prints its text (\"SDO Abort:\" and the reason) on stderr, exit status 1.");

    CLI::App* upload = sdo->add_subcommand("upload", "Read objects and print each value on its own line");
    upload->add_option("OBJECT", options->arObjects, "INDEX SUB pairs, in hex (0x1008) or decimal")
        ->required()
        ->type_name("INDEX SUB");
    upload->add_flag("--hex", options->bHex, "Print the bytes in hex instead of as text");
    upload->footer("A value prints as the object holds it (on a terminal with its control bytes escaped);\n"
                   "--hex suits objects that hold numbers.\n\n"
                   "Examples:\n"
                   "  tessitor --can slcan:/dev/ttyACM0 --node 5 sdo upload 0x1008 0\n"
                   "  tessitor --can socketcan:can0 --node 5 sdo upload --hex 0x1000 0 0x1018 1");

    CLI::App* download = sdo->add_subcommand("download", "Write DATA to one object");
    download->add_option("OBJECT", options->arDownload, "INDEX SUB DATA: DATA is text, or hex bytes with --hex")
        ->required()
        ->expected(3)
        ->type_name("INDEX SUB DATA");
    download->add_flag("--hex", options->bHex, "DATA is hex bytes (0A1B2C)");
    download->footer("Examples:\n"
                     "  tessitor --can slcan:/dev/ttyACM0 --node 5 sdo download 0x1010 1 save\n"
                     "  tessitor --can socketcan:can0 --node 5 sdo download --hex 0x6040 0 0F00");

    context.SetAction(upload, [&context, options] {
        const auto& objects = options->arObjects;
        if (objects.size() % 2 != 0)
            throw UsageError("sdo upload takes INDEX SUB pairs; the last index has no sub-index");
        std::vector<std::pair<std::uint16_t, std::uint8_t>> targets;
        for (std::size_t i = 0; i < objects.size(); i += 2)
            targets.emplace_back(static_cast<std::uint16_t>(ParseNumber(objects[i], 0xFFFF, "index")),
                                 static_cast<std::uint8_t>(ParseNumber(objects[i + 1], 0xFF, "sub-index")));
        CCan& can = CanLink(context.Connect(false));
        for (auto [index, sub] : targets) {
            std::string data;
            can.SdoUpload(index, sub, data, context.m_Options.TimeoutMs());
            // Text as the object holds it; on a terminal its control bytes are shown escaped.
            PrintValue(options->bHex ? ToHex(data) : data);
        }
        context.Disconnect();
        return 0;
    }, CommandUse::kConnection);

    context.SetAction(download, [&context, options] {
        const auto& args = options->arDownload;
        auto index = static_cast<std::uint16_t>(ParseNumber(args[0], 0xFFFF, "index"));
        auto sub = static_cast<std::uint8_t>(ParseNumber(args[1], 0xFF, "sub-index"));
        std::string data = options->bHex ? FromHex(args[2]) : args[2];
        if (data.empty())
            throw UsageError("sdo download has nothing to write");
        CDownloadProgress progress;
        CanLink(context.Connect(false)).SdoDownload(index, sub, data, context.m_Options.TimeoutMs(), &progress);
        context.Disconnect();
        return 0;
    }, CommandUse::kConnection);
}

} // namespace tessitor::cli
