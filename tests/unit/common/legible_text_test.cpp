// Text from anywhere as people see it.

#include <gtest/gtest.h>

#include "vpn/Common/Logging/LegibleText.h"

namespace {

constexpr std::size_t Ample = 1000;

std::string shown(const std::string& text) { return legible(text, Ample); }

TEST(LegibleText, WhatIsPlainOrWellFormedStaysAsItIs) {
  for (const std::string text :
       {"gw.example.com", "M\u00fcnchen", "\u6771\u4eac", "two\nlines\t"}) {
    EXPECT_EQ(shown(text), text);
  }
}

TEST(LegibleText, WhatTurnsTheDirectionOfWritingIsShownByItsBytes) {
  EXPECT_EQ(shown("a\u202eb"), "a\\xe2\\x80\\xaeb");
  EXPECT_EQ(shown("a\u061cb"), "a\\xd8\\x9cb");
  EXPECT_EQ(shown("\u200e\u200f"), "\\xe2\\x80\\x8e\\xe2\\x80\\x8f");
  EXPECT_EQ(shown("\u2066\u2069"), "\\xe2\\x81\\xa6\\xe2\\x81\\xa9");
}

TEST(LegibleText, WhatIsNotSeenIsShownByItsBytes) {
  EXPECT_EQ(shown("exam\u200bple"), "exam\\xe2\\x80\\x8bple");
  EXPECT_EQ(shown("a\u2060b\u2065"), "a\\xe2\\x81\\xa0b\\xe2\\x81\\xa5");
  EXPECT_EQ(shown("\ufeffa"), "\\xef\\xbb\\xbfa");
  EXPECT_EQ(shown("\U000e0041\U000e007f"), "\\xf3\\xa0\\x81\\x81\\xf3\\xa0\\x81\\xbf");
  EXPECT_EQ(shown("\U000e0080"), "\U000e0080") << "the next block has its uses";
}

TEST(LegibleText, JoinersStayWhereWritingNeedsThem) {
  const std::string persian = "\u0645\u06cc\u200c\u062e\u0648\u0627\u0647\u0645";
  const std::string hindi = "\u0915\u094d\u200d\u0937";
  EXPECT_EQ(shown(persian), persian);
  EXPECT_EQ(shown(hindi), hindi);
}

TEST(LegibleText, JoinersWithoutALetterThatTakesThemAreShownByTheirBytes) {
  EXPECT_EQ(shown("exam\u200cple"), "exam\\xe2\\x80\\x8cple");
  EXPECT_EQ(shown("\u200dgw"), "\\xe2\\x80\\x8dgw");
  EXPECT_EQ(shown("\u00fc\u200d"), "\u00fc\\xe2\\x80\\x8d");
  EXPECT_EQ(shown("\u0645\u200c\u200c\u200c"), "\u0645\u200c\\xe2\\x80\\x8c\\xe2\\x80\\x8c")
      << "one is enough";
}

}  // namespace
