// The grammar of addresses: how they are parsed, and that an invalid address leaves nothing behind.

#include "vpn/Common/Utility/URL.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Url, TheEmptyAddressHasNoSchemeAndNoHost) {
  for (const std::string text : {"", " ", "\t\r\n  "}) {
    const URL url(text);
    EXPECT_EQ(url.getProtocol(), URLPROTOCOL_NONE);
    EXPECT_EQ(url.getHost() + url.getHostFragment() + url.getHostAndPort(false), "");
    EXPECT_NE(URL::findError(text), "");
  }
}

struct TAKEN {
  std::string text;
  std::string host;
  std::string port = "";
  std::string location = "";
  URLPROTOCOL protocol = URLPROTOCOL_NONE;
};

TEST(Url, WhatIsAnAddressIsTakenApart) {
  const TAKEN rows[] = {
      {"vpn.example.com", "vpn.example.com"},
      {"HTTPS://Vpn-1.Example.com:8443/group?x=1#y", "Vpn-1.Example.com", "8443", "/group?x=1#y",
       URLPROTOCOL_HTTPS},
      {"http://a", "a", "", "", URLPROTOCOL_HTTP},
      {"hTTpS://a", "a", "", "", URLPROTOCOL_HTTPS},
      {"LDAP://a", "a", "", "", URLPROTOCOL_LDAP},
      // A location may hold what looks like a scheme, a port or a user.
      {"a/b://c", "a", "", "/b://c"},
      {"a?u=http://c", "a", "", "?u=http://c"},
      {"a#b:99999", "a", "", "#b:99999"},
      {"a/b@c", "a", "", "/b@c"},
      // Blanks around the text are dropped.
      {" \t vpn.example.com:443 \r\n", "vpn.example.com", "443"},
      {std::string(1 << 20, ' ') + "host" + std::string(1 << 20, ' '), "host"},
      // A port ranges from 1 to 65535, and may be left empty.
      {"host:1", "host", "1"},
      {"host:65535", "host", "65535"},
      {"host:", "host"},
      {"host:/x", "host", "", "/x"},
      {"host:00443", "host", "443"},
      {"host:" + std::string(1000, '0') + "1", "host", "1"},
      // Hyphens may not begin a name, digits may not be its end; letters of all scripts are
      // allowed.
      {"gw--1-.example", "gw--1-.example"},
      {"10.example", "10.example"},
      {"vpn1", "vpn1"},
      {"192.0.2.1:8443", "192.0.2.1", "8443"},
      {"bücher.example:8443", "bücher.example", "8443"},
      {"例え.jp", "例え.jp"},
      {"Bu\u0308cher.example", "Bu\u0308cher.example"},
      {"\u0646\u0627\u0645\u0647\u200c\u0627\u06cc.example",
       "\u0646\u0627\u0645\u0647\u200c\u0627\u06cc.example"},
      {std::string(253, 'a'), std::string(253, 'a')},
      {"a/" + std::string(2046, 'x'), "a", "", "/" + std::string(2046, 'x')},
  };
  for (const TAKEN& row : rows) {
    SCOPED_TRACE(row.text.substr(0, 60));
    const URL url(row.text);
    EXPECT_EQ(url.getProtocol(), row.protocol);
    EXPECT_EQ(url.getHost(), row.host);
    EXPECT_EQ(url.getPort(), row.port);
    EXPECT_EQ(url.getLocation(), row.location);
    EXPECT_EQ(URL::findError(row.text), "");
  }
}

TEST(Url, NoPartOfAHostBeginsWithAHyphen) {
  for (const char* address : {"-oProxy", "-gw.example.com:8443", "gw.-x.example", "https://-gw/"}) {
    EXPECT_NE(URL::findError(address).find("begins with \"-\""), std::string::npos) << address;
    EXPECT_EQ(URL(address).getHost(), "");
  }
}

TEST(Url, AnIpv6AddressStandsInBracketsAndItsZoneIsLookedUpAfterAPlainPercentSign) {
  const URL url("https://[2001:db8::1]:8443");
  EXPECT_EQ(url.getHost(), "2001:db8::1");
  EXPECT_EQ(url.getHostFragment(), "[2001:db8::1]");
  const URL zoned("[fe80::1%25eth0]:443");
  EXPECT_EQ(zoned.getHost(), "fe80::1%eth0");
  EXPECT_EQ(zoned.getHostFragment(), "[fe80::1%25eth0]");
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

INSTANTIATE_TEST_SUITE_P(
    Texts, UrlRefused,
    testing::Values("http://", "https:///path", ":443", "/path", "?q", "user@host",
                    "http://user:pw@host", "ftp://host", "://host", "host:443://x", "http:host",
                    "http://host:80:80", "::1", "2001:db8::1", "[::1", "[]", "[::1]443", "[::1]x",
                    "[127.0.0.1]", "[::1%eth0]", "[::1%25]", "[::1%25a/b]",
                    "[::1%25abcdefghijklmnop]", "]", "a..b", ".a", "a.", ".", "host:port",
                    "host:+1", "host:-1", "host:1a", "a b", "a\tb", "a/b c", "a\nb", "a\r\nHost: b",
                    "a/\r\nX: y",
                    "a\x7f"
                    "b",
                    "a,b", "a;b", "a\"b", "a<b>", "a\\b", "a%41", "a'b", "a*b", "\xff", "a\xc3",
                    "a\xc0\xaf", "a\xed\xa0\x80", "a\xf4\x90\x80\x80",
                    "a\xc2\x85"
                    "b",
                    "a/\x80", "host:0", "host:65536", "host:99999", "host:000",
                    "host:18446744073709551617", "1", "10.1.2", "256.1.1.1", "010.1.1.1",
                    "2130706433", "0x7f000001", "0x7f.1", "vpn.1", "1.2.3.4.5",
                    std::string("a\0b", 3), std::string("a/\0", 3), std::string(254, 'a'),
                    "a/" + std::string(2047, 'x'), std::string(1 << 20, 'a'),
                    std::string(1 << 20, ':'), std::string(1 << 20, '[')),
    [](const auto& param) { return std::to_string(param.index); });

TEST(Url, AHostIsWhatItLooksLikeAndIsLookedUpAsSuch) {
  for (const char* text :
       {"a\u200bb", "exam\u200cple", "a\u202eb", "a\u00adb", "a/\u2066b", "a\uffff",
        "127\u30020\u30020\u30021", "a\uff0eb", "a\uff61b", "127.0.0.\uff11", "127.0.0.\u2460",
        "a\u2024b", "\u2100b", "a\u3000b", "\uff47w"}) {
    EXPECT_EQ(URL(text).getProtocol(), URLPROTOCOL_UNKNOWN) << text;
    EXPECT_NE(URL::findError(text), "");
  }
}

TEST(Url, WhatIsTakenReadsTheSameAgain) {
  for (const char* text : {"a", "a:8443", "[::1]", "[2001:db8::1]:8443", "[fe80::1%25eth0]:1",
                           "192.0.2.1:65535", "ü.example"}) {
    EXPECT_EQ(URL(URL(text).getHostAndPort(false)).getHostAndPort(false), text);
  }
}

}  // namespace
