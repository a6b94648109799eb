#include "cli/Wording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

TEST(Wording, ADurationIsToldInTheLargestUnitThatItHasTwice) {
  EXPECT_EQ(Wording::duration(0), "0 seconds");
  EXPECT_EQ(Wording::duration(1), "1 second");
  EXPECT_EQ(Wording::duration(119), "119 seconds");
  EXPECT_EQ(Wording::duration(120), "2 minutes");
  EXPECT_EQ(Wording::duration(7199), "119 minutes");
  EXPECT_EQ(Wording::duration(7200), "2 hours");
  EXPECT_EQ(Wording::duration(172799), "47 hours");
  EXPECT_EQ(Wording::duration(172800), "2 days");
}

TEST(Wording, TheLocalTimeIsThatOfTheZoneInForceNow) {
  for (const std::string zone : {"+0530", "-0300"}) {
    // POSIX counts westwards.
    setenv("TZ", zone[0] == '+' ? "EAST-5:30" : "WEST3", 1);
    EXPECT_THAT(Wording::localTime(true), testing::EndsWith(" " + zone));
  }
  unsetenv("TZ");
}
