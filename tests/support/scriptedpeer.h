// A scripted drive on a pseudo-terminal for tests: the client opens Path()
// as its serial device; each line the client sends (up to CR, or up to the
// backslash of a "DL" line) is handed to the handler, whose return value is
// written back as it stands (the handler supplies the echo).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tessitor::test {

class CScriptedPeer {
public:
    using Handler = std::function<std::string(const std::string& line)>;

    CScriptedPeer();
    ~CScriptedPeer();

    /// The slave device path the client opens.
    std::string Path() const;
    /// Sets how lines are answered (default: echo, then ";").
    void SetHandler(Handler handler);
    /// Writes bytes to the client now, unasked.
    void SendRaw(const std::string& bytes);
    /// Every line received so far, terminator included.
    std::vector<std::string> Lines() const;
    /// How many received lines equal line.
    int Count(const std::string& line) const;

    /// A drive's answer: the echo of line, then value and ";".
    static std::string Answer(const std::string& line, const std::string& value);
    /// A drive's refusal: echo, the error byte, "?;".
    static std::string Refusal(const std::string& line, unsigned char error);

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

} // namespace tessitor::test
