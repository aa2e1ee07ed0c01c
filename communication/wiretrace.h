// The wire trace: with the trace on (TESSITOR_TRACE), every write to and
// read from a link's device becomes one trace line with a monotonic time
// stamp (seconds, CLOCK_MONOTONIC, so lines of several processes merge),
// the device, the direction and the bytes, escaped:
//
//   5123.004571 /dev/pts/3 -> "PX\r"
//   5123.004702 /dev/pts/3 <- "PX\r1234;"
//
// With the trace off a call costs one atomic load.
#pragma once

#include <cstddef>
#include <string>

#include "core/trace.h"

namespace tessitor {

class CWireTrace {
public:
    /// Direction of the bytes, seen from the tool.
    enum Direction { kToDevice, kFromDevice };

    /// Traces length bytes at data that went to or came from device.
    static void Bytes(const std::string& device, Direction direction, const void* data, std::size_t length)
    {
        if (Trace::Enabled())
            Write(device, direction, data, length);
    }

private:
    static void Write(const std::string& device, Direction direction, const void* data, std::size_t length);
};

} // namespace tessitor
