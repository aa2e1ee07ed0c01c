#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "communication/communication.h"
#include "communication/driveerrortable.h"
#include "core/datadir.h"
#include "core/ui.h"

using namespace tessitor;
using Exc = CCommunication::CExceptionComm;

namespace {

std::string Filled(std::int32_t code, std::int32_t source, std::string message = {})
{
    Exc e(code, nullptr, source, std::move(message));
    return e.FillMessage();
}

class CScriptedUi : public Ui {
public:
    int MessageBox(Window*, const std::string& text, const std::string& caption, unsigned style) override
    {
        ++m_nShown;
        m_sText = text;
        m_sCaption = caption;
        m_nStyle = style;
        while (m_bHold)
            std::this_thread::yield();
        return m_nAnswer;
    }
    std::atomic<int> m_nShown{0};
    std::atomic<bool> m_bHold{false};
    std::string m_sText, m_sCaption;
    unsigned m_nStyle = 0;
    int m_nAnswer = IDYES;
};

} // namespace

TEST(ExceptionComm, MessagesAreFilledFromCodeAndSource)
{
    EXPECT_EQ(Filled(0, kErrSrcSetup), "Undefined Error.");
    EXPECT_EQ(Filled(1, kErrSrcSetup), "Create Communication Device Fault.");
    EXPECT_EQ(Filled(2, kErrSrcSetup), "Communication Setup Info Error.");
    EXPECT_EQ(Filled(3, kErrSrcSetup), "Communication must be Established.");
    EXPECT_EQ(Filled(4, kErrSrcSetup), "");
    EXPECT_EQ(Filled(9, kErrSrcSetup), "Unknown Error");
    EXPECT_EQ(Filled(9, kErrSrcSetup, "kept"), "kept");

    const char* coded[] = {nullptr,
                           "Time Out Waiting for Response from Controller",
                           "Communication Error",
                           "Communication Read Error",
                           "Communication Write Error",
                           "Input or Output Buffers larger then 8196 bytes",
                           "Input or Output Buffers are NULL",
                           "Pointer to Communication Device is NULL",
                           "Unknown Error Code",
                           "Bad Communication Info Parameters",
                           "Bad Echo from Controller",
                           "Bad Data received from Controller",
                           "This Option is Not Implemented"};
    for (int source : {1, 4, 11})
        for (int code = 1; code <= 12; ++code)
            EXPECT_EQ(Filled(code, source), coded[code]) << "code " << code << " source " << source;
    EXPECT_EQ(Filled(-1, kErrSrcTransport), "Unknown Error");
    EXPECT_EQ(Filled(-1, kErrSrcTcpLink, "socket gone"), "socket gone");
    EXPECT_EQ(Filled(42, kErrSrcTransport), "Unknown Error Code");

    for (int source : {2, 3, 6, 7}) {
        EXPECT_EQ(Filled(-1, source), "Unknown Error");
        EXPECT_EQ(Filled(-1, source, "Output buffer is too long!"), "Output buffer is too long!");
    }
    EXPECT_EQ(Filled(-1, kErrSrcTcp), "TCP Critical Error.");
    EXPECT_EQ(Filled(-1, kErrSrcTcp, "TCP/IP Fault."), "TCP/IP Fault.");
    EXPECT_EQ(Filled(5, 8, "as raised"), "as raised") << "other sources leave the message";

    Exc e(1, nullptr, kErrSrcTransport);
    EXPECT_STREQ(e.what(), "Time Out Waiting for Response from Controller");
    EXPECT_EQ(e.m_sMessage, "") << "what() does not fill the message";
}

TEST(ExceptionComm, ReportAsksToDisconnectOrTellsTheTcpLinkIsLost)
{
    CScriptedUi ui;
    Ui::Install(&ui);

    Exc timeout(1, nullptr, kErrSrcTransport);
    EXPECT_EQ(timeout.ReportError(nullptr), IDYES);
    EXPECT_EQ(ui.m_sCaption, "Communication Device Error");
    EXPECT_EQ(ui.m_sText, "Time Out Waiting for Response from Controller\nWould you like to disconnect now ?");
    EXPECT_EQ(ui.m_nStyle, unsigned(MB_SYSTEMMODAL | MB_ICONSTOP | MB_YESNO));

    ui.m_nAnswer = IDOK;
    Exc tcp(-1, nullptr, kErrSrcTcp, "TCP/IP Fault.");
    EXPECT_EQ(tcp.ReportError(nullptr), IDOK);
    EXPECT_EQ(ui.m_sText, "TCP/IP Fault.\nTCP connection was lost.");
    EXPECT_EQ(ui.m_nStyle, unsigned(MB_SYSTEMMODAL | MB_ICONSTOP | MB_OK));
    Ui::Install(nullptr);
}

TEST(ExceptionComm, OnlyOneReportIsOpenAtATime)
{
    CScriptedUi ui;
    ui.m_bHold = true;
    Ui::Install(&ui);
    std::thread first([] { Exc(1, nullptr, kErrSrcTransport).ReportError(nullptr); });
    while (ui.m_nShown == 0)
        std::this_thread::yield();

    EXPECT_EQ(Exc(2, nullptr, kErrSrcTransport).ReportError(nullptr), IDNO);
    EXPECT_EQ(ui.m_nShown, 1) << "the second report shows nothing";

    ui.m_bHold = false;
    first.join();
    ui.m_nAnswer = IDYES;
    EXPECT_EQ(Exc(2, nullptr, kErrSrcTransport).ReportError(nullptr), IDYES) << "the box closed, reports show again";
    EXPECT_EQ(ui.m_nShown, 2);
    Ui::Install(nullptr);
}

TEST(DriveErrorTable, LooksUpNumbersWithinTheTableOnly)
{
    auto table = CDriveErrorTable::Load(DataFilePath("drive_errors.txt"));
    ASSERT_GT(table.Size(), 30);

    EXPECT_EQ(table.Text(0), "Unknown Error");
    EXPECT_EQ(table.Text(-3), "Unknown Error");
    EXPECT_EQ(table.Text(table.Size()), "Unknown Error");
    EXPECT_EQ(table.Text(2), "Bad command");
    EXPECT_EQ(table.Text(8), "") << "a number the table skips has an empty text";
    EXPECT_EQ(CDriveErrorTable::Load("/nonexistent/errors.txt").Text(1), "Unknown Error");
}
