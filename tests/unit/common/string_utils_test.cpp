// String functions, and the wiping of secrets.

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <string>

#include "vpn/include/StringUtils.h"

namespace {

TEST(StringUtils, ToLowerFoldsAsciiLettersOnlyInEveryLocale) {
  const std::string former = setlocale(LC_ALL, nullptr);
  for (const char* locale : {former.c_str(), ""}) {
    setlocale(LC_ALL, locale);
    EXPECT_EQ(CStringUtils::toLower("GW-A.Example.COM:8443"), "gw-a.example.com:8443");
    EXPECT_EQ(CStringUtils::toLower("@[`{AZaz"), "@[`{azaz");
    EXPECT_EQ(CStringUtils::toLower("\xc3\x84rger I\xc0"), "\xc3\x84rger i\xc0");
    EXPECT_EQ(CStringUtils::toLower(std::string("A\0B", 3)), std::string("a\0b", 3));
  }
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

TEST(StringUtils, WipeZeroesInPlaceAlsoWhatALongerTextLeftBehind) {
  for (const std::size_t length : {100U, 5U, 0U}) {
    std::string secret(100, 'x');
    secret.resize(length);
    const char* const buffer = secret.data();
    CStringUtils::wipe(secret);
    EXPECT_TRUE(secret.empty());
    ASSERT_EQ(secret.data(), buffer);
    EXPECT_EQ(std::count(buffer, buffer + 100, '\0'), 100);
  }
}

}  // namespace
