#include "core/trace.h"

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <mutex>

namespace tessitor {
namespace {

struct Sink {
    std::mutex mutex;
    std::FILE* stream = nullptr;
    bool ownsStream = false;
    bool configured = false;
    // -1 not yet configured, 0 off, 1 on: lets Enabled() answer without the
    // lock, so lines that are never written cost nothing to skip.
    std::atomic<int> state{-1};

    void Close()
    {
        if (ownsStream && stream)
            std::fclose(stream);
        stream = nullptr;
        ownsStream = false;
        state = 0;
    }
    void ConfigureFromEnvironment()
    {
        Close();
        configured = true;
        const char* value = std::getenv("TESSITOR_TRACE");
        if (!value || !*value || std::string(value) == "0")
            return;
        if (std::string(value) == "1") {
            stream = stderr;
        } else {
            stream = std::fopen(value, "a");
            ownsStream = stream != nullptr;
        }
        state = stream ? 1 : 0;
    }
};

Sink& TheSink()
{
    static Sink sink;
    return sink;
}

} // namespace

bool Trace::Enabled()
{
    Sink& sink = TheSink();
    if (int state = sink.state.load(std::memory_order_acquire); state >= 0)
        return state == 1;
    std::lock_guard lock(sink.mutex);
    if (!sink.configured)
        sink.ConfigureFromEnvironment();
    return sink.stream != nullptr;
}

void Trace::Write(const std::string& text)
{
    Sink& sink = TheSink();
    if (sink.state.load(std::memory_order_acquire) == 0)
        return;
    std::lock_guard lock(sink.mutex);
    if (!sink.configured)
        sink.ConfigureFromEnvironment();
    if (!sink.stream)
        return;
    std::fwrite(text.data(), 1, text.size(), sink.stream);
    std::fflush(sink.stream);
}

void Trace::Printf(const char* format, ...)
{
    if (!Enabled())
        return;
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, args);
    va_end(args);
    Write(text);
}

void Trace::Reconfigure()
{
    Sink& sink = TheSink();
    std::lock_guard lock(sink.mutex);
    sink.ConfigureFromEnvironment();
}

void Trace::SetStream(std::FILE* stream)
{
    Sink& sink = TheSink();
    std::lock_guard lock(sink.mutex);
    sink.Close();
    sink.configured = true;
    sink.stream = stream;
    sink.state = stream ? 1 : 0;
}

} // namespace tessitor
