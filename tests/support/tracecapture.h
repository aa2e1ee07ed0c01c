// The debug trace a piece of test code writes, captured through a
// temporary file, so a test can look for the system's trace lines.
#pragma once

#include <cstdio>
#include <string>

#include "core/trace.h"

namespace tessitor::test {

/// Everything written to the trace while action runs; the trace is off
/// afterwards.
template <class F>
std::string TraceOf(F&& action)
{
    std::FILE* sink = std::tmpfile();
    Trace::SetStream(sink);
    action();
    Trace::SetStream(nullptr);
    std::rewind(sink);
    std::string text;
    char chunk[4096];
    while (std::size_t n = std::fread(chunk, 1, sizeof chunk, sink))
        text.append(chunk, n);
    std::fclose(sink);
    return text;
}

} // namespace tessitor::test
