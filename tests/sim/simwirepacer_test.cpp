// The paced line's timing without a terminal: byte times in both
// directions, full and half duplex, and the host's turnaround.
#include <gtest/gtest.h>

#include "sim/simwirepacer.h"

using namespace tessitor::sim;

namespace {

// "SP\r" from the host, read at readAt; the drive echoes (full duplex: each
// byte as it arrives) and answers "100000;" after the carriage return.
// Returns when the last byte of the answer has reached the host.
double Exchange(CSimWirePacer& pacer, double readAt)
{
    bool full = pacer.Duplex() == SimDuplex::kFull;
    double arrival = 0, done = 0;
    for (int i = 0; i < 3; ++i) {
        arrival = pacer.Arrival(readAt);
        if (full)
            done = pacer.Departure(arrival);
    }
    for (int i = 0; i < (full ? 7 : 10); ++i)
        done = pacer.Departure(arrival);
    pacer.Delivered(done);
    return done;
}

} // namespace

TEST(SimWirePacerTest, EveryByteTakesItsTimeBothWaysUnderEitherDuplex)
{
    const double byte = 1.0 / 1920; // 19200 baud
    CSimWirePacer full;
    full.SetRate(1920);
    CSimWirePacer half;
    half.SetRate(1920);
    half.SetDuplex(SimDuplex::kHalf);

    EXPECT_NEAR(Exchange(full, 10.0), 10.0 + 11 * byte, 1e-9) << "3 in, the echo of CR, 7 out";
    EXPECT_NEAR(Exchange(half, 10.0), 10.0 + 13 * byte, 1e-9) << "3 in, then 10 out";

    // A host that answers within the turnaround is taken to have written
    // when the last byte reached it; one that paused starts when it wrote.
    double last = 10.0 + 11 * byte;
    EXPECT_NEAR(Exchange(full, last + 0.001), last + 11 * byte, 1e-9);
    last += 11 * byte;
    EXPECT_NEAR(Exchange(full, last + 1.0), last + 1.0 + 11 * byte, 1e-9);

    // Half duplex: bytes the host sends while the drive talks wait for the line.
    double talking = half.Departure(20.0);
    EXPECT_NEAR(half.Arrival(20.0), talking + byte, 1e-9);

    CSimWirePacer unpaced;
    EXPECT_EQ(unpaced.Arrival(5.0), 5.0);
    EXPECT_EQ(unpaced.Departure(6.0), 6.0);
}
