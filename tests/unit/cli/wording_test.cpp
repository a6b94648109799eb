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

TEST(Wording, ALineOfMoreThan80ColumnsIsBrokenAtBlanks) {
  const std::string ten = "123456789 ";
  const std::string word(90, 'x');
  for (const auto& [text, wrapped] :
       {std::pair<std::string, std::string>{"\n  short\n", "\n  short\n"},
        {"  " + ten + ten + ten + ten + ten + ten + ten + "12345678\n",
         "  " + ten + ten + ten + ten + ten + ten + ten + "12345678\n"},
        {ten + ten + ten + ten + ten + ten + ten + " 23456789 12",
         ten + ten + ten + ten + ten + ten + ten + " 23456789\n  12\n"},
        {"  a " + word + " b", "  a\n    " + word + "\n    b\n"},
        {word, word + "\n"}}) {
    EXPECT_EQ(Wording::wrapped(text), wrapped);
  }
}

TEST(Wording, AHostIsTakenWithoutItsFinalDotAndAnIpv6AddressInBrackets) {
  for (const auto& [typed, host] : {std::pair{"gw.example.", "gw.example"},
                                    {"gw.example.:8443", "gw.example:8443"},
                                    {"gw:8443", "gw:8443"},
                                    {".", "."},
                                    {"2001:db8::7", "[2001:db8::7]"},
                                    {"fe80::7%eth0", "[fe80::7%25eth0]"}}) {
    EXPECT_EQ(Wording::asHost(typed), host);
  }
}

TEST(Wording, TheLocalTimeIsThatOfTheZoneInForceNow) {
  for (const std::string zone : {"+0530", "-0300"}) {
    // POSIX counts westwards.
    setenv("TZ", zone[0] == '+' ? "EAST-5:30" : "WEST3", 1);
    EXPECT_THAT(Wording::localTime(true), testing::EndsWith(" " + zone));
  }
  unsetenv("TZ");
}
