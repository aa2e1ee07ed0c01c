// A scripted drive on a pseudo-terminal for tests: the client opens Path()
// as its serial device; each line the client sends (up to CR, or up to the
// backslash of a "DL" line) is handed to the handler, whose return value is
// written back as it stands (the handler supplies the echo). Beside it, the
// recorder's side of an upload: a sample store and a progress window.
#pragma once

#include <termios.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "communication/communication.h"
#include "core/ui.h"
#include "core/window.h"

namespace tessitor::test {

/// A sample store that keeps each chunk it accepts and refuses, as not
/// decodable, the first nRefuse chunks it is handed.
struct CChunkRecorder : CSampleStore {
    int nRefuse = 0;
    std::vector<std::string> arChunks;
    bool AppendChunk(const std::string& chunk) override
    {
        if (nRefuse > 0) {
            --nRefuse;
            return false;
        }
        arChunks.push_back(chunk);
        return true;
    }
};

/// A front end that notes each wait it is told of ("wait PX /dev/pts/3
/// 1/3", then "end") and each message shown ("caption: text"), installed
/// while it lives; questions get OK (No for a yes/no question).
struct CWaitRecorder : Ui {
    std::vector<std::string> arWaits;
    std::vector<std::string> arMessages;
    CWaitRecorder() { Ui::Install(this); }
    ~CWaitRecorder() override { Ui::Install(nullptr); }
    int MessageBox(Window*, const std::string& text, const std::string& caption, unsigned style) override
    {
        arMessages.push_back(caption + ": " + text);
        return (style & 0xF) == MB_YESNO ? IDNO : IDOK;
    }
    void WaitBegin(const std::string& command, const std::string& device, int attempt, int attempts) override
    {
        arWaits.push_back("wait " + command + " " + device + " " + std::to_string(attempt) + "/"
                          + std::to_string(attempts));
    }
    void WaitEnd() override { arWaits.push_back("end"); }
};

/// A listener that sends "SR" while the link is destroyed, noting whether
/// it found the link connected and what the drive answered.
struct CLastWordListener : CCommunication::CListenerComm {
    bool bConnected = false;
    std::string sValue;
    void OnCommunicationDestroy(CCommunication* pCom) override
    {
        bConnected = pCom->IsConnected();
        pCom->SendCommandGetValue("SR", sValue, 1000);
    }
    void OnCommunicationDisconnect(CCommunication*) override {}
};

/// A window that counts the messages posted to it and keeps them with
/// their wParam.
struct CPostCounter : Window {
    std::atomic<int> nPosted{0};
    unsigned nLastMessage = 0;
    std::vector<std::pair<unsigned, std::uintptr_t>> arPosted;
    void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t) override
    {
        nLastMessage = message;
        arPosted.emplace_back(message, wParam);
        ++nPosted;
    }
    std::intptr_t SendMessage(unsigned, std::uintptr_t, std::intptr_t) override { return 0; }
};

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
    /// The line settings of the client's side now.
    termios Line() const;
    /// Sets them, as a program that used the port before might leave them.
    void SetLine(const termios& line);
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
