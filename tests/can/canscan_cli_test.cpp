// `tessitor can scan` against `tessitor sim --slcan` with two nodes: the
// nodes that answer, and what a user sees when none does or the adapter
// is not there.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>

#include "tests/support/backgroundprocess.h"
#include "tests/support/process.h"

using namespace tessitor::test;

TEST(CanScanCli, ListsTheNodesThatAnswerAndSaysWhenNoneDoes)
{
    CBackgroundProcess bus({TessitorPath(), "sim", "--slcan", "--node", "3,5:Bressa"});
    const std::string path = bus.FirstLine();
    ASSERT_FALSE(path.empty());
    const std::string config = "TESSITOR_CONFIG=/nonexistent-" + std::to_string(::getpid()) + "/tessitor.ini";
    auto scan = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {TessitorPath(), "can", "scan"});
        return RunProcess(args, {config});
    };

    // Time-outs generous for a loaded machine, over a few nodes only.
    ProcessResult found = scan({"--can", "slcan:" + path, "--to", "6", "--node-timeout", "1000"});
    ProcessResult none = scan({"--can", "slcan:" + path, "--from", "6", "--to", "7", "--node-timeout", "100"});
    ProcessResult missing = scan({"--can", "slcan:/nonexistent-adapter"});
    ProcessResult backwards = scan({"--can", "slcan:" + path, "--from", "9", "--to", "2"});

    EXPECT_EQ(found.nStatus, 0) << found.sErr;
    EXPECT_EQ(found.sOut.rfind("Node 3: device type 0x00020192\nNode 5: device type \"Bressa ", 0), 0u) << found.sOut;
    EXPECT_EQ(std::count(found.sOut.begin(), found.sOut.end(), '\n'), 2) << found.sOut;
    EXPECT_EQ(none.nStatus, 1);
    EXPECT_EQ(none.sOut, "");
    EXPECT_EQ(none.sErr, "No node answered between 6 and 7.\n");
    EXPECT_EQ(missing.nStatus, 1);
    EXPECT_NE(missing.sErr.find("Create Communication Device Fault. slcan:/nonexistent-adapter: "), std::string::npos)
        << missing.sErr;
    EXPECT_EQ(backwards.nStatus, 2);
    EXPECT_NE(backwards.sErr.find("--to 2 is below --from 9"), std::string::npos) << backwards.sErr;
}
