// Fuzzes the readers of text that comes from files, command lines and the
// wire: the descriptor's one-line and keyed forms, the value extraction and
// the drive error check.
#include <cstdint>
#include <string>

#include "communication/communicationinfo.h"
#include "communication/communication.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    tessitor::CCommunicationInfo info;
    if (info.FromLine(text)) {
        // What was read must be written back readable, and read back equal.
        tessitor::CCommunicationInfo back;
        if (!back.FromLine(info.ToLine()) || back.ToLine() != info.ToLine() || !info.TextFieldError().empty())
            __builtin_trap();
        (void)info.GetDisplayText();
        info.SetNameWithShortName("fuzz");
    }
    info.FromKeyedLine(text);
    size_t split = text.find('\r');
    std::string command = text.substr(0, split);
    (void)tessitor::CCommunication::ExtractValue(command, text);
    return 0;
}
