// String functions, and the wiping of secrets.

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <string>

#include "vpn/include/StringUtils.h"

namespace {

TEST(StringUtils, ToLowerFoldsAsciiLettersOnly) {
  EXPECT_EQ(CStringUtils::toLower("GW-A.Example.COM:8443"), "gw-a.example.com:8443");
  EXPECT_EQ(CStringUtils::toLower("@[`{AZaz"), "@[`{azaz");
  EXPECT_EQ(CStringUtils::toLower("\xc3\x84rger"), "\xc3\x84rger");
  EXPECT_EQ(CStringUtils::toLower(std::string("A\0B", 3)), std::string("a\0b", 3));
  EXPECT_EQ(CStringUtils::toLower(""), "");
}

TEST(StringUtils, ToLowerDoesNotDependOnTheLocale) {
  const std::string former = setlocale(LC_ALL, nullptr);
  setlocale(LC_ALL, "");
  EXPECT_EQ(CStringUtils::toLower("I\xc0"), "i\xc0");
  setlocale(LC_ALL, former.c_str());
}

TEST(StringUtils, PrintableEscapesWhatIsNotPlainAscii) {
  EXPECT_EQ(CStringUtils::printable("plain text~"), "plain text~");
  EXPECT_EQ(CStringUtils::printable("a\x1b[31m\n\t\x7f"), "a\\x1b[31m\\x0a\\x09\\x7f");
  EXPECT_EQ(CStringUtils::printable("\xc3\xa4\\"), "\\xc3\\xa4\\x5c");
  EXPECT_EQ(CStringUtils::printable(std::string("\0", 1)), "\\x00");
}

TEST(StringUtils, PrintableCutsWhatIsTooLong) {
  EXPECT_EQ(CStringUtils::printable("abcd", 4), "abcd");
  EXPECT_EQ(CStringUtils::printable("abcde", 4), "abcd...");
  EXPECT_EQ(CStringUtils::printable("a", 0), "...");
  EXPECT_EQ(CStringUtils::printable(std::string(1000, 'x')).size(), 203U);
}

bool isZero(const std::string& text, const char* buffer, std::size_t size) {
  return text.data() == buffer && std::all_of(buffer, buffer + size, [](char c) { return c == 0; });
}

TEST(StringUtils, WipeZeroesEveryCharacterInPlace) {
  std::string secret(100, 'x');
  const char* const buffer = secret.data();
  CStringUtils::wipe(secret);
  EXPECT_TRUE(secret.empty());
  EXPECT_TRUE(isZero(secret, buffer, 100));
}

TEST(StringUtils, WipeZeroesWhatALongerTextLeftBehind) {
  std::string secret(100, 'x');
  secret = "short";
  const char* const buffer = secret.data();
  ASSERT_GE(secret.capacity(), 100U);
  CStringUtils::wipe(secret);
  EXPECT_TRUE(isZero(secret, buffer, 100));
}

TEST(StringUtils, WipeOfAnEmptyStringLeavesItEmpty) {
  std::string empty;
  CStringUtils::wipe(empty);
  EXPECT_TRUE(empty.empty());
}

}  // namespace
