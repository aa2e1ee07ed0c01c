// The virtual drive's serial face over a real pseudo-terminal: first byte
// by byte as a terminal sees it, then through the client's own serial link.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>

#include "communication/linkfactory.h"
#include "sim/simserialserver.h"
#include "tests/sim/simtesthelpers.h"

using namespace tessitor;
using namespace tessitor::sim;
using namespace tessitor::sim::test;
using Clock = std::chrono::steady_clock;

namespace {

// A client that sees raw bytes.
class CRawLine {
public:
    explicit CRawLine(const std::string& path)
    {
        m_fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        termios tio{};
        if (m_fd >= 0 && ::tcgetattr(m_fd, &tio) == 0) {
            ::cfmakeraw(&tio);
            ::tcsetattr(m_fd, TCSANOW, &tio);
        }
    }
    ~CRawLine()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    bool IsOpen() const { return m_fd >= 0; }
    void Send(const std::string& bytes) { ASSERT_EQ(::write(m_fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())); }
    /// Bytes until one of more than skip bytes is end, or until timeoutMs passed.
    std::string ReadUntil(char end, std::size_t skip, int timeoutMs = 3000)
    {
        std::string got;
        auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (Clock::now() < deadline) {
            pollfd p{m_fd, POLLIN, 0};
            int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
            if (::poll(&p, 1, std::max(left, 0)) <= 0)
                break;
            char c;
            while (::read(m_fd, &c, 1) == 1) {
                got += c;
                if (c == end && got.size() > skip)
                    return got;
            }
        }
        return got;
    }
    /// Everything that arrives within ms.
    std::string ReadFor(int ms) { return ReadUntil('\0', SIZE_MAX, ms); }
    std::string Ask(const std::string& command, char end = ';')
    {
        Send(command + "\r");
        return ReadUntil(end, command.size() + 1);
    }

private:
    int m_fd = -1;
};

class SimSerialTest : public ::testing::Test {
protected:
    void Serve(const std::string& product = "Talvina")
    {
        m_pDrive = std::make_shared<CSimDrive>(product);
        m_pServer = std::make_unique<CSimSerialServer>(m_pDrive);
        m_pServer->Start();
    }
    void SetUp() override { Serve(); }

    std::unique_ptr<CCommunication> Link()
    {
        CCommunicationInfo info;
        info.m_sCommType = "RS_232";
        info.wBaudRate = 115200;
        LinkOptions options;
        options.sSerialPath = m_pServer->SlavePath();
        auto link = CreateLink(info, options);
        EXPECT_EQ(link->Connect(), 0);
        return link;
    }

    std::shared_ptr<CSimDrive> m_pDrive;
    std::unique_ptr<CSimSerialServer> m_pServer;
};

} // namespace

TEST_F(SimSerialTest, EchoesEachByteAsItArrivesThenAnswers)
{
    CRawLine line(m_pServer->SlavePath());
    ASSERT_TRUE(line.IsOpen());

    line.Send("V");
    EXPECT_EQ(line.ReadUntil('V', 0), "V") << "echoed before the line is complete";
    line.Send("R\r");
    EXPECT_EQ(line.ReadUntil(';', 1), "R\rTalvina 2.1.0.0;");
    EXPECT_EQ(line.Ask("MO=1"), "MO=1\r;");
    EXPECT_EQ(line.Ask("KP[9]"), std::string("KP[9]\r\x03?;"));
    EXPECT_EQ(line.Ask("EC"), "EC\r3;");
    EXPECT_EQ(line.Ask("\\COMMUNICATION"), "\\COMMUNICATION\r;");
    line.Send("DLMO=1\\");
    EXPECT_EQ(line.ReadUntil(';', 0), "DLMO=1\\;") << "a download line ends at its backslash, no CR";
    EXPECT_EQ(line.Ask("LS"), "LS\rMO=1;");
    line.Send(std::string(8300, 'A') + "\r");
    std::string tooLong = line.ReadUntil(';', 8301);
    ASSERT_GE(tooLong.size(), 3u);
    EXPECT_EQ(tooLong.substr(tooLong.size() - 3), std::string("\x0A?;")) << "error 10, expression too long";
}

TEST_F(SimSerialTest, OlderFamilyEndsListingsWithBackspace)
{
    Serve("Nolvet");
    CRawLine line(m_pServer->SlavePath());

    line.Send("DLMO=1\\");
    EXPECT_EQ(line.ReadUntil('\x08', 0), "DLMO=1\\\x08");
    EXPECT_EQ(line.Ask("LS", '\x08'), "LS\rMO=1\x08");
    EXPECT_EQ(line.Ask("CC", '\x08'), "CC\r1\x08");
    EXPECT_EQ(line.Ask("VR"), "VR\rNolvet 1.3.0.0;");
}

TEST_F(SimSerialTest, ClientMayCloseAndReopenTheLine)
{
    {
        CRawLine first(m_pServer->SlavePath());
        EXPECT_EQ(first.Ask("SP=2000"), "SP=2000\r;");
    }
    CRawLine second(m_pServer->SlavePath());
    EXPECT_EQ(second.Ask("SP"), "SP\r2000;");
}

TEST_F(SimSerialTest, InjectedFaultsChangeOnlyTheirReplies)
{
    CRawLine line(m_pServer->SlavePath());
    m_pServer->Faults().Add(FaultRule{FaultKind::kDrop, 0, "SR"});
    m_pServer->Faults().Add(CSimFaults::Parse("wrong-echo:/VR"));
    m_pServer->Faults().Add(CSimFaults::Parse("cut:/KP:4"));
    m_pServer->Faults().Add(CSimFaults::Parse("garbage:/SP:xx"));
    m_pServer->Faults().Add(CSimFaults::Parse("error:/MO=:25"));

    line.Send("SR\r");
    EXPECT_EQ(line.ReadFor(300), "") << "no echo, no reply";
    EXPECT_EQ(line.Ask("VR"), "vR\rTalvina 2.1.0.0;");
    line.Send("KP[1]\r");
    EXPECT_EQ(line.ReadFor(300), "KP[1");
    EXPECT_EQ(line.Ask("SP"), "xxSP\r100000;");
    EXPECT_EQ(line.Ask("MO=1"), std::string("MO=1\r\x19?;"));
    EXPECT_EQ(line.Ask("MO"), "MO\r0;") << "the refused command did nothing";
    EXPECT_EQ(line.Ask("EC"), "EC\r25;");

    m_pServer->Faults().Clear();
    m_pServer->Faults().Add(CSimFaults::Parse("delay:/PX:400"));
    auto start = Clock::now();
    line.Send("PX\r");
    EXPECT_EQ(line.ReadUntil('\r', 0), "PX\r") << "the echo comes at once";
    EXPECT_EQ(line.ReadUntil(';', 0), "0;");
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(390));
}

TEST_F(SimSerialTest, PacedWireIsNoFasterThanItsBaudRate)
{
    m_pServer->SetPace(9600);
    CRawLine line(m_pServer->SlavePath());
    std::string command = "PX" + std::string(190, ' ');

    auto start = Clock::now();
    std::string reply = line.Ask(command);
    auto elapsed = Clock::now() - start;

    EXPECT_EQ(reply, command + "\r0;");
    // 195 bytes at 960 bytes a second.
    EXPECT_GE(elapsed, std::chrono::milliseconds(190));
}

TEST_F(SimSerialTest, LinkIdentifiesReadsAndReportsDriveErrors)
{
    auto link = Link();

    link->Identify();
    EXPECT_EQ(link->GetVersionText(), "Talvina 2.1.0.0");
    EXPECT_EQ(link->GetProcessorType(), "DSP");
    EXPECT_EQ(link->CheckLink(), 1);
    std::string value;
    link->SendCommandGetValue("KP[2]", value, 2000);
    EXPECT_EQ(value, "0.33");
    try {
        link->SendCommandGetValue("KP[4]", value, 2000);
        ADD_FAILURE() << "a refused command must throw";
    } catch (CCommunication::CExceptionComm& e) {
        EXPECT_EQ(e.FillMessage(), "Error (3) :  'KP[4]' : Bad index !");
    }
    link->Disconnect();
}

TEST_F(SimSerialTest, RecordingIsUploadedInWindowsThroughTheLink)
{
    auto link = Link();
    std::string value;
    for (const char* command : {"RR=0", "RC=3", "RG=2", "RL=250", "MO=1", "JV=8000", "BG", "RR=2"})
        link->SendCommandGetValue(command, value, 2000);
    for (int poll = 0; poll < 100; ++poll) {
        link->SendCommandGetValue("SR", value, 2000);
        if ((std::stoul(value) >> 16 & 3) == 2)
            break;
        usleep(20000);
    }
    ASSERT_EQ(std::stoul(value) >> 16 & 3, 2u);

    std::vector<double> samples;
    for (int first = 0; first < 250; first += 100) {
        int last = std::min(first + 99, 249);
        link->SendCommandGetValue("RP[8]=" + std::to_string(first), value, 2000);
        link->SendCommandGetValue("RP[9]=" + std::to_string(last), value, 2000);
        link->SendCommandGetValue("BH=2", value, 5000);
        Upload u = DecodeUpload(value);
        ASSERT_TRUE(u.bOk) << value.substr(0, 40);
        EXPECT_EQ(u.nCount, static_cast<unsigned>(last - first + 1));
        samples.insert(samples.end(), u.arSamples.begin(), u.arSamples.end());
    }
    ASSERT_EQ(samples.size(), 250u);
    EXPECT_NEAR(samples.back(), 8000, 400) << "the velocity of the running jog";
    link->Disconnect();
}

TEST_F(SimSerialTest, LinkSurvivesALostReplyAndReportsBadWire)
{
    auto link = Link();
    std::string value;
    m_pServer->Faults().Add(CSimFaults::Parse("drop:/SP:once"));
    link->SendCommandGetValue("SP", value, 300);
    EXPECT_EQ(value, "100000") << "the second attempt is answered";

    m_pServer->Faults().Add(CSimFaults::Parse("wrong-echo:/VR"));
    try {
        link->SendCommandGetValue("VR", value, 300);
        ADD_FAILURE() << "a wrong echo must throw";
    } catch (CCommunication::CExceptionComm& e) {
        EXPECT_EQ(e.m_nErrorCode, 10);
    }
    m_pServer->Faults().Add(CSimFaults::Parse("cut:/PX:3"));
    try {
        link->SendCommandGetValue("PX", value, 300);
        ADD_FAILURE() << "a cut reply must throw";
    } catch (CCommunication::CExceptionComm& e) {
        EXPECT_EQ(e.m_nErrorCode, 1);
    }
    link->Disconnect();
}

TEST_F(SimSerialTest, StopReturnsWhileAClientHoldsTheLine)
{
    CRawLine line(m_pServer->SlavePath());
    m_pServer->SetPace(300);
    line.Send("VR\r");
    m_pServer->Stop();
    m_pServer->Stop();
    SUCCEED();
}
