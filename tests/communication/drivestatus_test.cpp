// The status register in words: each bit where the drive puts it.
#include <gtest/gtest.h>

#include "communication/drivestatus.h"

using namespace tessitor;

TEST(DriveStatusTest, EachBitIsReadWhereTheDrivePutsIt)
{
    CDriveStatus fresh = CDriveStatus::Decode(6); // position mode, motor off, recorder idle
    CDriveStatus busy = CDriveStatus::Decode(0x301D1);
    CDriveStatus waiting = CDriveStatus::Decode(0x10000);

    EXPECT_EQ(fresh.nUnitMode, 3);
    EXPECT_FALSE(fresh.bMotorOn);
    EXPECT_EQ(fresh.Text(), "motor off");
    EXPECT_STREQ(fresh.RecorderText(), "idle");
    EXPECT_TRUE(busy.bFault && busy.bMotorOn && busy.bMotion && busy.bInTarget && busy.bCurrentLimited);
    EXPECT_FALSE(busy.bProgramRunning);
    EXPECT_EQ(busy.Text(), "motor on, fault, moving, in target, current limited");
    EXPECT_STREQ(busy.RecorderText(), "recording");
    EXPECT_STREQ(waiting.RecorderText(), "waiting for trigger");
    EXPECT_STREQ(CDriveStatus::Decode(0x20000).RecorderText(), "complete");
}
