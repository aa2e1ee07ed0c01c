// The virtual drive's serial face over a real pseudo-terminal, byte by byte
// as a terminal sees it.
#include <gtest/gtest.h>

#include "sim/simserialserver.h"
#include "tests/sim/simtesthelpers.h"

using namespace tessitor::sim;
using namespace tessitor::sim::test;

namespace {

class SimSerialTest : public ::testing::Test {
protected:
    void Serve(const std::string& product = "Talvina")
    {
        m_pServer = std::make_unique<CSimSerialServer>(std::make_shared<CSimDrive>(product));
        m_pServer->Start();
    }
    void SetUp() override { Serve(); }

    std::unique_ptr<CSimSerialServer> m_pServer;
};

} // namespace

TEST_F(SimSerialTest, EchoesEachByteAsItArrivesThenAnswersAndOutlivesItsClients)
{
    auto line = std::make_unique<CRawLine>(m_pServer->SlavePath());

    line->Send("V");
    EXPECT_EQ(line->ReadUntil('V', 0), "V") << "echoed before the line is complete";
    line->Send("R\r");
    EXPECT_EQ(line->ReadUntil(';', 1), "R\rTalvina 2.1.0.0;");
    EXPECT_EQ(line->Ask("MO=1"), "MO=1\r;");
    EXPECT_EQ(line->Ask("KP[9]"), std::string("KP[9]\r\x03?;"));
    EXPECT_EQ(line->Ask("EC"), "EC\r3;");
    EXPECT_EQ(line->Ask("\\COMMUNICATION"), "\\COMMUNICATION\r;");
    line->Send("DLMO=1\\");
    EXPECT_EQ(line->ReadUntil(';', 0), "DLMO=1\\;") << "a download line ends at its backslash, no CR";
    EXPECT_EQ(line->Ask("LS"), "LS\rMO=1;");
    line->Send(std::string(8300, 'A') + "\r");
    std::string tooLong = line->ReadUntil(';', 8301, 60000); // 8300 echoes, one write each: slow under sanitizers and load
    ASSERT_GE(tooLong.size(), 3u);
    EXPECT_EQ(tooLong.substr(tooLong.size() - 3), std::string("\x0A?;")) << "error 10, expression too long";

    // A client may close the line and another open it; Stop returns while one holds it.
    line.reset();
    line = std::make_unique<CRawLine>(m_pServer->SlavePath());
    EXPECT_EQ(line->Ask("MO"), "MO\r1;");
    m_pServer->SetPace(300);
    line->Send("VR\r");
    m_pServer->Stop();
    m_pServer->Stop();
}

TEST_F(SimSerialTest, HalfDuplexAnswersOnlyAfterTheWholeCommand)
{
    m_pServer->SetDuplex(SimDuplex::kHalf);
    CRawLine line(m_pServer->SlavePath());

    line.Send("V");
    EXPECT_EQ(line.ReadUntil('\0', SIZE_MAX, 200), "") << "no echo while the command comes in";
    line.Send("R\r");
    EXPECT_EQ(line.ReadUntil(';', 2), "VR\rTalvina 2.1.0.0;");
    EXPECT_EQ(line.Ask("KP[9]"), std::string("KP[9]\r\x03?;"));
}

TEST_F(SimSerialTest, OlderFamilyEndsListingsWithBackspace)
{
    Serve("Nolvet");
    CRawLine line(m_pServer->SlavePath());

    line.Send("DLMO=1\\");
    EXPECT_EQ(line.ReadUntil('\x08', 0), "DLMO=1\\\x08");
    EXPECT_EQ(line.Ask("LS", '\x08'), "LS\rMO=1\x08");
    EXPECT_EQ(line.Ask("CC", '\x08'), "CC\r1\x08");
    line.Send("DLA;B\\");
    EXPECT_EQ(line.ReadUntil('\x08', 0), "DLA;B\\\x0E?\x08") << "a refusal ends as the command's reply would";
    EXPECT_EQ(line.Ask("VR"), "VR\rNolvet 1.3.0.0;");
}

TEST_F(SimSerialTest, InjectedFaultsChangeOnlyTheirReplies)
{
    CRawLine line(m_pServer->SlavePath());
    for (const char* fault : {"drop:/SR", "wrong-echo:/VR", "cut:/KP:4", "garbage:/SP:xx", "error:/MO=:25",
                              "delay:/PX:2000"})
        m_pServer->Faults().Add(CSimFaults::Parse(fault));

    line.Send("SR\r");
    EXPECT_EQ(line.ReadUntil('\0', SIZE_MAX, 300), "") << "no echo, no reply";
    EXPECT_EQ(line.Ask("VR"), "vR\rTalvina 2.1.0.0;");
    line.Send("KP[1]\r");
    EXPECT_EQ(line.ReadUntil('\0', SIZE_MAX, 300), "KP[1");
    EXPECT_EQ(line.Ask("SP"), "xxSP\r100000;");
    EXPECT_EQ(line.Ask("MO=1"), std::string("MO=1\r\x19?;"));
    EXPECT_EQ(line.Ask("MO"), "MO\r0;") << "the refused command did nothing";
    EXPECT_EQ(line.Ask("EC"), "EC\r25;");
    line.Send("PX\r");
    EXPECT_EQ(line.ReadUntil('\r', 0), "PX\r") << "the echo comes at once";
    EXPECT_EQ(line.ReadUntil('\0', SIZE_MAX, 300), "") << "the reply is held back";
    EXPECT_EQ(line.ReadUntil(';', 0), "0;");
}
