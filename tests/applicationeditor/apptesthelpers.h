// What the application tests share: a fresh temporary folder, whole-file
// reads and writes, a progress window that records its messages, answers
// to the questions the operations ask, and a virtual drive reached over
// the serial face, the network device or a CAN bus.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "communication/linkfactory.h"
#include "communication/rs232.h"
#include "communication/tcp.h"
#include "core/ui.h"
#include "core/window.h"
#include "sim/simserialserver.h"
#include "sim/simslcanserver.h"
#include "sim/simtcpserver.h"

namespace tessitor::test {

class CTempDir {
public:
    CTempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "tessitor-app-XXXXXX").string();
        m_Path = ::mkdtemp(pattern.data()) ? pattern : "";
        EXPECT_FALSE(m_Path.empty());
    }
    ~CTempDir()
    {
        std::error_code ignored;
        std::filesystem::permissions(m_Path, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(m_Path, ignored);
    }
    std::string operator/(const std::string& name) const { return (m_Path / name).string(); }
    const std::filesystem::path& Path() const { return m_Path; }

private:
    std::filesystem::path m_Path;
};

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

/// A progress window that keeps every message it is sent.
class CRecordingWindow : public Window {
public:
    using Message = std::tuple<unsigned, std::uintptr_t, std::intptr_t>;
    void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        m_arMessages.emplace_back(message, wParam, lParam);
    }
    std::intptr_t SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        m_arMessages.emplace_back(message, wParam, lParam);
        return 0;
    }
    std::vector<Message> m_arMessages;
};

/// A Ui that answers every question with m_nAnswer and keeps what was shown;
/// installed while it lives.
class CScriptedUi : public Ui {
public:
    CScriptedUi() { Ui::Install(this); }
    ~CScriptedUi() override { Ui::Install(nullptr); }
    int MessageBox(Window*, const std::string& text, const std::string& caption, unsigned style) override
    {
        m_arShown.push_back(caption + ": " + text);
        unsigned buttons = style & 0xF;
        if (m_OnShow)
            m_OnShow();
        return buttons == MB_YESNO || buttons == MB_YESNOCANCEL ? m_nAnswer : IDOK;
    }
    int m_nAnswer = IDNO;
    std::vector<std::string> m_arShown; ///< "caption: text", in order
    std::function<void()> m_OnShow;     ///< run at each message, before the answer
};

enum class Face { kSerial, kTcp, kCan };

/// A virtual drive reached over one face, and the link to it.
struct DriveLink {
    std::shared_ptr<sim::CSimDrive> pDrive;
    std::unique_ptr<sim::CSimSerialServer> pSerial;
    std::unique_ptr<sim::CSimTcpServer> pDevice;
    std::unique_ptr<sim::CSimSlcanServer> pBus;
    std::unique_ptr<CCommunication> pLink;
};

/// A drive of product (at version, "" = its newest) over face, connected
/// and identified; reported, when given, is what its "VR" answers.
inline DriveLink Connect(const std::string& product, Face face, const std::string& version = "",
                         const std::string& reported = "")
{
    DriveLink d;
    if (face == Face::kTcp) {
        d.pDevice = std::make_unique<sim::CSimTcpServer>(product, version);
        d.pDrive = d.pDevice->Drive("RS232 Port 1");
    } else {
        d.pDrive = std::make_shared<sim::CSimDrive>(product, version);
    }
    if (!reported.empty())
        d.pDrive->SetReportedVersion(reported);
    if (face == Face::kCan) {
        d.pBus = std::make_unique<sim::CSimSlcanServer>();
        d.pBus->AddNode(d.pDrive, 5);
        d.pBus->Start();
        CCommunicationInfo info;
        info.m_sCommType = "CAN";
        info.sManufacture = "SLCAN";
        info.sBoardType = d.pBus->SlavePath();
        info.mNodeID = 5;
        info.mBaudRateIndex = 7;
        d.pLink = CreateLink(info);
    } else if (face == Face::kTcp) {
        d.pDevice->Start();
        CCommunicationInfo info;
        info.m_sCommType = "TCP";
        info.abIP = {127, 0, 0, 1};
        info.sDesc = "RS232 Port 1";
        d.pLink = std::make_unique<CTCP>(info, d.pDevice->Port());
    } else {
        d.pSerial = std::make_unique<sim::CSimSerialServer>(d.pDrive);
        d.pSerial->Start();
        CCommunicationInfo info;
        info.m_sCommType = "RS_232";
        info.nPort = 1;
        auto link = std::make_unique<CRs232>(info);
        link->SetDevicePath(d.pSerial->SlavePath());
        d.pLink = std::move(link);
    }
    EXPECT_EQ(0, d.pLink->Connect());
    d.pLink->Identify();
    return d;
}

} // namespace tessitor::test
