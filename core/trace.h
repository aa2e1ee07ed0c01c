// The debug trace: one process-wide sink for the diagnostic lines the system
// writes ("CommWatchThread: COM_TIMEOUT\n" and the like). Off by default;
// TESSITOR_TRACE=1 sends it to stderr, TESSITOR_TRACE=/path/file to a file.
#pragma once

#include <cstdio>
#include <string>

namespace tessitor {

class Trace {
public:
    /// True when a sink is open; callers may skip building costly lines.
    static bool Enabled();
    /// Writes the text as it stands (callers supply their own "\n").
    static void Write(const std::string& text);
    /// printf-style convenience; the formats are the system's own.
    static void Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
    /// Re-reads TESSITOR_TRACE (tests switch the sink on and off).
    static void Reconfigure();
    /// Sends the trace to the given stream (not owned); null turns it off.
    static void SetStream(std::FILE* stream);
};

} // namespace tessitor
