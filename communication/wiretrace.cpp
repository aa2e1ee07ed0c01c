#include "communication/wiretrace.h"

#include <ctime>

#include "core/strformat.h"

namespace tessitor {

void CWireTrace::Write(const std::string& device, Direction direction, const void* data, std::size_t length)
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::string bytes = Escaped(std::string_view(static_cast<const char*>(data), length));
    Trace::Write(StrFormat("%ld.%06ld %s %s \"%s\"\n", static_cast<long>(now.tv_sec), now.tv_nsec / 1000,
                           device.c_str(), direction == kToDevice ? "->" : "<-", bytes.c_str()));
}

} // namespace tessitor
