#include "cli/Wording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

namespace {

TEST(Wording, WordsAreJoinedByWhatStandsBetweenThem) {
  EXPECT_EQ(Wording::joined({}), "");
  EXPECT_EQ(Wording::joined({"one"}), "one");
  EXPECT_EQ(Wording::joined({"one", "two", "three"}), "one, two, three");
  EXPECT_EQ(Wording::joined({"one", "two"}, " "), "one two");
}

TEST(Wording, OneIsSingularAndNothingIsPlural) {
  EXPECT_EQ(Wording::counted(1, "probe"), "1 probe");
  EXPECT_EQ(Wording::counted(0, "probe"), "0 probes");
  EXPECT_EQ(Wording::counted(2, "probe"), "2 probes");
  EXPECT_EQ(Wording::counted(1, "entry", "entries"), "1 entry");
  EXPECT_EQ(Wording::counted(2, "entry", "entries"), "2 entries");
}

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

TEST(Wording, APointOfTimeIsToldInUtc) {
  std::tm parts{};
  parts.tm_year = 126;
  parts.tm_mon = 10;
  parts.tm_mday = 21;
  parts.tm_hour = 9;
  EXPECT_EQ(Wording::utc(parts), "2026-11-21T09:00:00Z");
}

TEST(Wording, TheLocalTimeIsThatOfTheZoneInForceNow) {
  for (const std::string zone : {"+0530", "-0300"}) {
    // POSIX counts westwards.
    setenv("TZ", zone[0] == '+' ? "EAST-5:30" : "WEST3", 1);
    EXPECT_THAT(Wording::localTime(true), testing::EndsWith(" " + zone));
    EXPECT_THAT(Wording::localTime(),
                testing::MatchesRegex("[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+"));
  }
  unsetenv("TZ");
}

}  // namespace
