// Text from anywhere as people see it.

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <memory>
#include <string>

#include "vpn/Common/Trust/LegibleText.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr std::size_t Ample = 1000;

std::string shown(const std::string& text) { return legible(text, Ample); }

TEST(LegibleText, WhatIsPlainOrWellFormedStaysAsItIs) {
  for (const std::string text :
       {"gw.example.com", "M\u00fcnchen", "\u6771\u4eac", "two\nlines\t", "\u0600\u06dd\ufffd"}) {
    EXPECT_EQ(shown(text), text);
  }
}

TEST(LegibleText, WhatNobodySeesIsShownByItsBytes) {
  for (const std::string text :
       {// controls, separators
        "\x1b", "\x7f", "\u0085", "\u2028", "\u2029",
        // direction of writing
        "\u061c", "\u200e", "\u200f", "\u202a", "\u202e", "\u2066", "\u2069",
        // ignored: soft hyphen, fillers, spaces without width, selectors of variants, tags
        "\u00ad", "\u034f", "\u115f", "\u1160", "\u17b4", "\u180e", "\u200b", "\u2060", "\u2065",
        "\u3164", "\ufe0f", "\ufeff", "\uffa0", "\U0001d173", "\U000e0041", "\U000e0080",
        "\U000e0100", "\U000e0fff",
        // marks between lines, assigned or not
        "\ufff0", "\ufff8", "\ufff9", "\ufffa", "\ufffb",
        // no characters
        "\ufdd0", "\ufdef", "\ufffe", "\uffff", "\U0001ffff", "\U0010fffe"}) {
    std::string bytes;
    for (const char c : text) {
      bytes += CStringUtils::printable(std::string(1, c));
    }
    EXPECT_EQ(shown("a" + text + "b"), "a" + bytes + "b");
  }
}

TEST(LegibleText, AWordForAShellIsReadAsWhatItIsAndCanBeSeen) {
  for (const auto& [text, word] :
       std::map<std::string, std::string>{{"", "''"},
                                          {"/etc/ahs-1.xml", "/etc/ahs-1.xml"},
                                          {"a b", "'a b'"},
                                          {"$(id)`id`;&|<>*?!#~\\", "'$(id)`id`;&|<>*?!#~\\'"},
                                          {"it's", "'it'\\''s'"},
                                          {"\u00fc", "'\u00fc'"},
                                          {"a\nb", "$'a\\x0ab'"},
                                          {"it's\u202e\\", "$'it\\x27s\\xe2\\x80\\xae\\x5c'"}}) {
    EXPECT_EQ(forShell(text), word);
    const std::string command = "bash -c 'eval \"printf %s $1\"' bash \"$WORD\"";
    ASSERT_EQ(setenv("WORD", word.c_str(), 1), 0);
    const std::unique_ptr<FILE, int (*)(FILE*)> shell(popen(command.c_str(), "r"), pclose);
    char read[64] = "";
    const std::size_t length = fread(read, 1, sizeof read, shell.get());
    EXPECT_EQ(std::string(read, length), text);
  }
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
