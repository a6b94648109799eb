// The grammar of addresses: what is taken apart, and that what is no address leaves nothing behind.

#include "vpn/Common/Utility/URL.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(Url, TheEmptyAddressHasNoSchemeAndNoHost) {
  for (const std::string text : {"", " ", "\t\r\n  "}) {
    const URL url(text);
    EXPECT_EQ(url.getProtocol(), URLPROTOCOL_NONE);
    EXPECT_EQ(url.getHost(), "");
    EXPECT_EQ(url.getHostFragment(), "");
    EXPECT_EQ(url.getHostAndPort(false), "");
    EXPECT_NE(URL::findError(text), "");
  }
}

TEST(Url, AHostStandsAlone) {
  const URL url("vpn.example.com");
  EXPECT_EQ(url.getProtocol(), URLPROTOCOL_NONE);
  EXPECT_EQ(url.getHost(), "vpn.example.com");
  EXPECT_EQ(url.getPort(), "");
  EXPECT_EQ(url.getLocation(), "");
  EXPECT_EQ(URL::findError("vpn.example.com"), "");
}

TEST(Url, AllPartsAreTakenApart) {
  const URL url("HTTPS://Vpn-1.Example.com:8443/group?x=1#y");
  EXPECT_EQ(url.getProtocol(), URLPROTOCOL_HTTPS);
  EXPECT_EQ(url.getHost(), "Vpn-1.Example.com");
  EXPECT_EQ(url.getPort(), "8443");
  EXPECT_EQ(url.getLocation(), "/group?x=1#y");
}

TEST(Url, SchemesAreReadInAnyLetterCase) {
  EXPECT_EQ(URL("http://a").getProtocol(), URLPROTOCOL_HTTP);
  EXPECT_EQ(URL("hTTpS://a").getProtocol(), URLPROTOCOL_HTTPS);
  EXPECT_EQ(URL("LDAP://a").getProtocol(), URLPROTOCOL_LDAP);
}

TEST(Url, ALocationMayHoldWhatLooksLikeASchemeOrAPortOrAUser) {
  EXPECT_EQ(URL("a/b://c").getLocation(), "/b://c");
  EXPECT_EQ(URL("a?u=http://c").getLocation(), "?u=http://c");
  EXPECT_EQ(URL("a#b:99999").getLocation(), "#b:99999");
  EXPECT_EQ(URL("a/b@c").getLocation(), "/b@c");
}

TEST(Url, BlanksAroundTheTextAreDropped) {
  EXPECT_EQ(URL(" \t vpn.example.com:443 \r\n").getHostAndPort(false), "vpn.example.com:443");
}

TEST(Url, NoPartOfAHostBeginsWithAHyphen) {
  for (const char* address : {"-oProxy", "-gw.example.com:8443", "gw.-x.example", "https://-gw/"}) {
    EXPECT_NE(URL::findError(address).find("begins with \"-\""), std::string::npos) << address;
    EXPECT_EQ(URL(address).getHost(), "");
  }
  EXPECT_EQ(URL("gw--1-.example").getHost(), "gw--1-.example");
}

TEST(Url, AnEmptyPortIsNone) {
  EXPECT_EQ(URL("host:").getHost(), "host");
  EXPECT_EQ(URL("host:").getPort(), "");
  EXPECT_EQ(URL("host:/x").getLocation(), "/x");
}

TEST(Url, LeadingZerosOfAPortAreDropped) {
  EXPECT_EQ(URL("host:00443").getPort(), "443");
  EXPECT_EQ(URL("host:" + std::string(1000, '0') + "1").getPort(), "1");
}

TEST(Url, APortRangesFromOneTo65535) {
  EXPECT_EQ(URL("host:1").getPort(), "1");
  EXPECT_EQ(URL("host:65535").getPort(), "65535");
  for (const char* text :
       {"host:0", "host:65536", "host:99999", "host:000", "host:18446744073709551617"}) {
    EXPECT_EQ(URL(text).getProtocol(), URLPROTOCOL_UNKNOWN) << text;
  }
}

TEST(Url, AnIpv6AddressStandsInBrackets) {
  const URL url("https://[2001:db8::1]:8443");
  EXPECT_EQ(url.getHost(), "2001:db8::1");
  EXPECT_EQ(url.getHostFragment(), "[2001:db8::1]");
  EXPECT_EQ(url.getHostAndPort(false), "[2001:db8::1]:8443");
}

TEST(Url, AnIpv6ZoneIsLookedUpAfterAPlainPercentSign) {
  const URL url("[fe80::1%25eth0]:443");
  EXPECT_EQ(url.getHost(), "fe80::1%eth0");
  EXPECT_EQ(url.getHostFragment(), "[fe80::1%25eth0]");
  EXPECT_EQ(URL(url.getHostAndPort(false)).getHost(), url.getHost());
}

TEST(Url, InternationalNamesAreKeptAsTheyAreWritten) {
  EXPECT_EQ(URL("https://bücher.example:8443").getHostAndPort(false), "bücher.example:8443");
  EXPECT_EQ(URL("例え.jp").getHost(), "例え.jp");
}

TEST(Url, ANameMayHaveDigitsAnywhereButAsItsEnd) {
  EXPECT_EQ(URL("10.example").getHost(), "10.example");
  EXPECT_EQ(URL("vpn1").getHost(), "vpn1");
  EXPECT_EQ(URL("192.0.2.1:8443").getHost(), "192.0.2.1");
  for (const char* text : {"1", "10.1.2", "256.1.1.1", "010.1.1.1", "2130706433", "0x7f000001",
                           "0x7f.1", "vpn.1", "1.2.3.4.5"}) {
    EXPECT_EQ(URL(text).getProtocol(), URLPROTOCOL_UNKNOWN) << text;
  }
}

class UrlRefused : public testing::TestWithParam<std::string> {};

TEST_P(UrlRefused, LeavesNothingBehindAndSaysWhy) {
  const URL url(GetParam());
  EXPECT_EQ(url.getProtocol(), URLPROTOCOL_UNKNOWN);
  EXPECT_EQ(url.getHost(), "");
  EXPECT_EQ(url.getPort(), "");
  EXPECT_EQ(url.getLocation(), "");
  EXPECT_EQ(url.getHostAndPort(false), "");
  const std::string error = URL::findError(GetParam());
  ASSERT_NE(error, "");
  EXPECT_EQ(error.back(), '.');
  EXPECT_LT(error.size(), 200U);
}

std::vector<std::string> refusedTexts() {
  using std::string;
  std::vector<string> texts = {"http://",
                               "https:///path",
                               ":443",
                               "/path",
                               "?q",
                               "user@host",
                               "http://user:pw@host",
                               "ftp://host",
                               "://host",
                               "host:443://x",
                               "http:host",
                               "http://host:80:80",
                               "::1",
                               "2001:db8::1",
                               "[::1",
                               "[]",
                               "[::1]443",
                               "[::1]x",
                               "[127.0.0.1]",
                               "[::1%eth0]",
                               "[::1%25]",
                               "[::1%25a/b]",
                               "[::1%25abcdefghijklmnop]",
                               "]",
                               "a..b",
                               ".a",
                               "a.",
                               ".",
                               "host:port",
                               "host:+1",
                               "host:-1",
                               "host:1a",
                               "a b",
                               "a\tb",
                               "a/b c",
                               "a\nb",
                               "a\r\nHost: b",
                               "a/\r\nX: y",
                               "a\x7f"
                               "b",
                               "a,b",
                               "a;b",
                               "a\"b",
                               "a<b>",
                               "a\\b",
                               "a%41",
                               "a'b",
                               "a*b",
                               "\xff",
                               "a\xc3",
                               "a\xc0\xaf",
                               "a\xed\xa0\x80",
                               "a\xf4\x90\x80\x80",
                               "a\xc2\x85"
                               "b",
                               "a/\x80"};
  texts.push_back(string("a\0b", 3));
  texts.push_back(string("a/\0", 3));
  texts.push_back(string(254, 'a'));
  texts.push_back("a/" + string(2047, 'x'));
  texts.push_back(string(1 << 20, 'a'));
  texts.push_back(string(1 << 20, ':'));
  texts.push_back(string(1 << 20, '['));
  return texts;
}

INSTANTIATE_TEST_SUITE_P(Texts, UrlRefused, testing::ValuesIn(refusedTexts()),
                         [](const auto& param) { return std::to_string(param.index); });

TEST(Url, ALongButNotTooLongAddressIsTaken) {
  EXPECT_EQ(URL(std::string(253, 'a')).getHost().size(), 253U);
  EXPECT_EQ(URL("a/" + std::string(2046, 'x')).getLocation().size(), 2047U);
}

TEST(Url, AMegabyteOfBlanksAroundAnAddressIsDropped) {
  EXPECT_EQ(URL(std::string(1 << 20, ' ') + "host" + std::string(1 << 20, ' ')).getHost(), "host");
}

TEST(Url, CopiesShareNothing) {
  URL original("https://a:1/x");
  const URL copy(original);
  original = URL("b");
  EXPECT_EQ(copy.getHostAndPort(false), "a:1");
  EXPECT_EQ(original.getHostAndPort(false), "b");
  const URL moved(std::move(original));
  EXPECT_EQ(moved.getHost(), "b");
}

TEST(Url, WhatIsTakenReadsTheSameAgain) {
  for (const char* text :
       {"a", "a:8443", "[::1]", "[fe80::1%25eth0]:1", "192.0.2.1:65535", "ü.example"}) {
    EXPECT_EQ(URL(URL(text).getHostAndPort(false)).getHostAndPort(false), text);
  }
}

}  // namespace
