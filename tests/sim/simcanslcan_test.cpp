// The virtual drive on a CAN bus behind its SLCAN pseudo-terminal, spoken
// to line by line as an SLCAN client does; in-process and as `tessitor sim
// --slcan`.
#include <gtest/gtest.h>

#include <chrono>
#include <map>

#include "sim/simslcanserver.h"
#include "tests/sim/simtesthelpers.h"
#include "tests/support/process.h"

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
    /// Sends "ID#DATA" (several joined by blanks go in one write); the adapter must take each.
    void Send(const std::string& frames)
    {
        std::string lines;
        int count = 0;
        for (std::size_t at = 0; at < frames.size(); ++count) {
            std::size_t blank = std::min(frames.find(' ', at), frames.size());
            SimCanFrame frame = CanFrame(frames.substr(at, blank - at));
            char line[40];
            int n = std::snprintf(line, sizeof line, "t%03X%u", static_cast<unsigned>(frame.nId), frame.nLength);
            for (int i = 0; i < frame.nLength; ++i)
                n += std::snprintf(line + n, sizeof line - static_cast<std::size_t>(n), "%02X", frame.arData[i]);
            lines += std::string(line) + "\r";
            at = blank + 1;
        }
        m_Line.Send(lines);
        for (int i = 0; i < count; ++i)
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
    /// Starts the bus and opens the adapter at 1000 kbit/s; the boot-ups are read.
    std::unique_ptr<CSlcanClient> Open()
    {
        m_Bus.Start();
        auto client = std::make_unique<CSlcanClient>(m_Bus.SlavePath());
        EXPECT_EQ(client->Command("S8"), "\r");
        EXPECT_EQ(client->Command("O"), "\r");
        EXPECT_EQ(client->Next(), "705#00");
        EXPECT_EQ(client->Next(), "706#00");
        return client;
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

TEST_F(SimSlcanTest, TwoNodesOnOneBusNeverMixTheirAnswers)
{
    auto c = Open();
    std::map<std::string, std::string> text;
    auto collect = [&](int count) {
        for (int i = 0; i < count; ++i) {
            std::string frame = c->Next();
            ASSERT_GE(frame.size(), 6u) << frame;
            std::string id = frame.substr(0, 3);
            SimCanFrame f = CanFrame(frame);
            if (id == "585" || id == "586")
                text[id].append(f.arData.begin() + 1, f.arData.begin() + 8 - (f.arData[0] >> 1 & 7));
            else
                text[id] += frame.substr(4);
        }
    };

    c->Send("605#400A100000000000 606#400A100000000000");
    collect(2);
    text.clear();
    c->Send("606#6000000000000000 605#6000000000000000");
    collect(2);
    c->Send("605#7000000000000000 606#7000000000000000");
    collect(2);
    c->Send("605#6000000000000000 305#53520000 306#53520000");
    collect(3);

    EXPECT_EQ(text["585"], "Talvina 2.1.0.0");
    EXPECT_EQ(text["586"], "Bressa 1.0.4.2");
    EXPECT_EQ(text["285"], "5352000006000000");
    EXPECT_EQ(text["286"], "5352000006000000");
    c->Send("607#4000100000000000");
    EXPECT_EQ(c->Next(300), "") << "no node 7 on this bus";
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

TEST(SimSlcanCliTest, WrongUsageExitsTwo)
{
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"sim", "--slcan", "--node", "0"}, {"sim", "--slcan", "--node", "5,5"},
          {"sim", "--slcan", "--node", "5:Nonesuch"}, {"sim", "--slcan", "--bitrate", "300"},
          {"sim", "--slcan", "--pace", "500"}, {"sim", "--serial", "--node", "5"}, {"sim", "--serial", "--slcan"},
          {"sim", "--slcan", "--fault", "abort:/0x1008:zz"}, {"sim", "--slcan", "--node", "5,6", "--flash", "f"}}) {
        std::vector<std::string> command{tessitor::test::TessitorPath()};
        command.insert(command.end(), args.begin(), args.end());
        tessitor::test::ProcessResult r = tessitor::test::RunProcess(command);
        EXPECT_EQ(r.nStatus, 2) << args[2] << " " << args.back() << ": " << r.sErr;
        EXPECT_FALSE(r.sErr.empty());
        EXPECT_EQ(r.sOut, "");
    }
}
