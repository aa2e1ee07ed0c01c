// The virtual drive on a CAN bus behind its SLCAN pseudo-terminal, spoken
// to line by line as an SLCAN client does.
#include <gtest/gtest.h>

#include <chrono>

#include "sim/simslcanserver.h"
#include "tests/sim/simtesthelpers.h"

using namespace tessitor;
using namespace tessitor::sim;
using namespace tessitor::sim::test;

namespace {

// An SLCAN client that writes and reads frames in the ID#DATA notation.
class CSlcanClient {
public:
    explicit CSlcanClient(const std::string& path) : m_Line(path) {}

    /// The adapter's answer to an adapter command ("O", "S8", ...).
    std::string Command(const std::string& command, int timeoutMs = 5000)
    {
        m_Line.Send(command + "\r");
        return m_Line.ReadAnswer(timeoutMs);
    }
    /// Sends the frame "ID#DATA"; the adapter must take it.
    void Send(const std::string& text)
    {
        SimCanFrame frame = CanFrame(text);
        char line[40];
        int n = std::snprintf(line, sizeof line, "t%03X%u", static_cast<unsigned>(frame.nId), frame.nLength);
        for (int i = 0; i < frame.nLength; ++i)
            n += std::snprintf(line + n, sizeof line - static_cast<std::size_t>(n), "%02X", frame.arData[i]);
        m_Line.Send(std::string(line) + "\r");
        ASSERT_EQ(m_Line.ReadAnswer(), "\r");
    }
    /// The next frame from the bus as "ID#DATA", "" when none came in timeoutMs.
    std::string Next(int timeoutMs = 5000)
    {
        std::string line = m_Line.ReadAnswer(timeoutMs);
        if (line.size() < 6 || line[0] != 't' || line.back() != '\r')
            return line;
        std::size_t length = static_cast<std::size_t>(line[4] - '0');
        return line.substr(1, 3) + "#" + line.substr(5, 2 * length);
    }
    std::string Ask(const std::string& frame, int timeoutMs = 5000)
    {
        Send(frame);
        return Next(timeoutMs);
    }
    CRawLine& Line() { return m_Line; }

private:
    CRawLine m_Line;
};

class SimSlcanTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Bus.AddNode(m_pTalvina, 5);
        m_Bus.AddNode(m_pBressa, 6);
    }
    std::shared_ptr<CSimDrive> m_pTalvina = std::make_shared<CSimDrive>("Talvina");
    std::shared_ptr<CSimDrive> m_pBressa = std::make_shared<CSimDrive>("Bressa");
    CSimSlcanServer m_Bus;
};

} // namespace

TEST_F(SimSlcanTest, AnswersAdapterCommandsAsALawicelAdapterDoes)
{
    m_Bus.Start();
    CSlcanClient c(m_Bus.SlavePath());

    EXPECT_EQ(c.Command("C"), "\a") << "closing a closed channel";
    EXPECT_EQ(c.Command("S9"), "\a");
    EXPECT_EQ(c.Command("t60584000100000000000"), "\a") << "a frame while closed";
    EXPECT_EQ(c.Command("F"), "\a");
    EXPECT_EQ(c.Command("V"), "V1013\r");
    EXPECT_EQ(c.Command("N"), "N5131\r");
    EXPECT_EQ(c.Command("Z1"), "\r");
    EXPECT_EQ(c.Command("S8"), "\r");
    EXPECT_EQ(c.Command("O"), "\r");
    std::string bootUp = c.Line().ReadAnswer();
    EXPECT_EQ(bootUp.substr(0, 7), "t705100");
    EXPECT_EQ(bootUp.size(), 12u) << "a 4-digit time stamp: " << bootUp;
    EXPECT_EQ(c.Next(), "706#00");

    EXPECT_EQ(c.Command("O"), "\a") << "already open";
    EXPECT_EQ(c.Command("S6"), "\a") << "the bit rate is set while closed";
    EXPECT_EQ(c.Command("Z0"), "\a");
    EXPECT_EQ(c.Command("F"), "F00\r");
    for (const char* bad : {"t60", "t6058400010", "t8008400010000000000", "t6059", "tXYZ0", "Q", "O1"})
        EXPECT_EQ(c.Command(bad), "\a") << bad;
    EXPECT_EQ(c.Command(std::string(40, 'A')), "\a") << "an overlong line";
    c.Line().Send("F\r\n");
    EXPECT_EQ(c.Line().ReadAnswer(), "F00\r");
    EXPECT_EQ(c.Command("C"), "\r");
    EXPECT_EQ(c.Command("Z0"), "\r");
    EXPECT_EQ(c.Command("L"), "\r") << "listen only";
    EXPECT_EQ(c.Command("t60584000100000000000"), "\a") << "a listening adapter sends nothing";
    EXPECT_EQ(c.Command("C"), "\r");
    EXPECT_EQ(c.Command("O"), "\r");
    EXPECT_EQ(c.Ask("605#4000100000000000"), "585#4300100092010200") << "no second boot-up, no time stamp";
}

TEST_F(SimSlcanTest, AdapterAtAnotherBitRateHearsNothing)
{
    m_Bus.SetBitrate(500);
    m_Bus.Start();
    CSlcanClient c(m_Bus.SlavePath());
    ASSERT_EQ(c.Command("O"), "\r") << "the adapter starts at the bus's rate";
    EXPECT_EQ(c.Next(), "705#00");
    EXPECT_EQ(c.Next(), "706#00");
    ASSERT_EQ(c.Command("C"), "\r");

    ASSERT_EQ(c.Command("S8"), "\r");
    ASSERT_EQ(c.Command("O"), "\r");
    EXPECT_EQ(c.Ask("605#4000100000000000", 300), "");
    EXPECT_EQ(c.Command("F"), "F80\r") << "bus error";
    ASSERT_EQ(c.Command("C"), "\r");
    ASSERT_EQ(c.Command("S6"), "\r");
    ASSERT_EQ(c.Command("O"), "\r");
    EXPECT_EQ(c.Ask("605#4000100000000000"), "585#4300100092010200");
}

TEST_F(SimSlcanTest, PacedBusIsNeverFasterThanItsBitRate)
{
    m_Bus.SetBitrate(10);
    m_Bus.SetPace(true);
    m_Bus.Start();
    CSlcanClient c(m_Bus.SlavePath());
    ASSERT_EQ(c.Command("O"), "\r");
    c.Next();
    c.Next();

    // Request and answer: 2 x 135 bits at 10 kbit/s. Only the lower bound
    // holds on a loaded machine; how close it comes is measured in bench/.
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(c.Ask("605#4000100000000000"), "585#4300100092010200");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(4 * 2 * 13500));
}
