// Challenges of proxies, well-formed and malformed.

#include <gtest/gtest.h>

#include <string>

#include "vpn/Common/IP/HttpHeaderResponse.h"

namespace {

std::string realmOf(const std::string& headers, const std::string& scheme = "Basic") {
  CHttpHeaderResponse response;
  response.set(headers);
  return response.getProxyAuthRealm(scheme);
}

/// Headers with a challenge of a proxy.
std::string challenge(const std::string& challenge) {
  return "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: " + challenge +
         "\r\nContent-Length: 0\r\n\r\n";
}

struct REALM {
  std::string headers;
  std::string realm;
  std::string scheme = "Basic";
};

TEST(HttpHeaderResponse, TheRealmIsThatOfTheSchemesFirstWellFormedChallenge) {
  const std::string several = challenge(
      "Negotiate, NTLM TlRMTVNTUAAC==, Digest realm=\"d\", qop=\"auth,auth-int\", "
      "Basic charset=\"UTF-8\", realm=\"b\" , Bearer realm=\"c\"");
  const REALM rows[] = {
      // The realm of a simple challenge is found.
      {challenge("Basic realm=\"Office\""), "Office"},
      // Names are found in any letter case.
      {"PROXY-authenticate:bAsIc REALM=\"x\"\r\n", "x", "BASIC"},
      // Without a challenge there is no realm.
      {"", ""},
      {"HTTP/1.1 200 OK\r\n\r\n", ""},
      {"WWW-Authenticate: Basic realm=\"server\"\r\n", ""},
      {"X-Proxy-Authenticate: Basic realm=\"x\"\r\n", ""},
      {"Proxy-Authenticate : Basic realm=\"x\"\r\n", ""},
      {"Proxy-Authenticate", ""},
      {"Proxy-Authenticate:", ""},
      // A challenge without a realm has none.
      {challenge("Basic"), ""},
      {challenge("Basic realm=\"\""), ""},
      {challenge("Basic charset=\"UTF-8\""), ""},
      {challenge("Basic realm="), ""},
      // Another scheme's realm is not taken.
      {challenge("Digest realm=\"d\", nonce=\"n\""), ""},
      {challenge("Digest realm=\"d\", nonce=\"n\""), "d", "digest"},
      {challenge("BasicX realm=\"x\""), ""},
      {challenge("Basic realm=\"x\""), "", ""},
      // Several challenges may stand in several lines.
      {"Proxy-Authenticate: Negotiate\r\nServer: x\r\nProxy-Authenticate: NTLM\r\n"
       "Proxy-Authenticate: Basic realm=\"b\"\r\n\r\n",
       "b"},
      // Unknown schemes before and after do not matter.
      {challenge("X-Own abc/+==, Own2 a=b, c=\"d, Basic realm=no\", Basic realm=\"b\", "
                 "Basic2 realm=\"c\""),
       "b"},
      {"Proxy-Authenticate: Own realm=\"no\"\r\nProxy-Authenticate: Digest\r\n"
       " realm=\"no\"\r\nProxy-Authenticate: Negotiate YII=\r\n"
       "Proxy-Authenticate: Basic realm=\"b\"\r\n",
       "b"},
      // A challenge that is not Basic's own does not lend its realm.
      {challenge("Basic, Digest realm=\"d\""), ""},
      {"Proxy-Authenticate: Basic\r\nProxy-Authenticate: realm=\"x\"\r\n", ""},
      // Quotes that a proxy does not escape make no realm.
      {challenge(R"(Basic realm="the "Office"")"), ""},
      {challenge(R"(Basic realm="First "office", 2nd floor")"), ""},
      {challenge("Basic realm='Office'"), "'Office'"},
      // The first realm of a scheme counts.
      {challenge("Basic realm=\"one\", Basic realm=\"two\""), "one"},
      {challenge("Basic realm=\"\", Basic realm=\"two\""), "two"},
      // The answers of a proxy and a server are searched both.
      {"HTTP/1.1 200 Established\r\n\r\nHTTP/1.1 407 No\r\n"
       "Proxy-Authenticate: Basic realm=\"b\"\r\n\r\n",
       "b"},
      // Quoted strings are unescaped.
      {challenge(R"(Basic realm="say \"hello\", \\ \a")"), R"(say "hello", \ a)"},
      {challenge(R"(Basic realm="a, Basic realm=b")"), "a, Basic realm=b"},
      {challenge("Basic realm=\"b\xc3\xbcro\""), "b\xc3\xbcro"},
      // A token is a realm too.
      {challenge("Basic realm=office"), "office"},
      {challenge("Basic realm=office, x=y"), "office"},
      // Bad whitespace and empty elements are tolerated.
      {challenge(", ,Basic   realm \t= \t\"x\" ,, "), "x"},
      {challenge("Basic\trealm=\"x\""), "x"},
      {"Proxy-Authenticate:\t Basic realm=\"x\"  \n", "x"},
      // A folded line is one line.
      {"Proxy-Authenticate: Digest realm=\"d\",\r\n\tBasic\r\n   realm=\"x\r\n y\"\r\n", "x y"},
      // What follows an empty line continues nothing.
      {"Proxy-Authenticate: Basic\r\n\r\n realm=\"x\"\r\n", ""},
      {" Proxy-Authenticate: Basic realm=\"x\"\r\n", ""},
      // A malformed challenge is skipped and the next is read.
      {challenge("Basic realm=\"x\"y, Basic realm=\"good\""), "good"},
      {challenge("Basic realm=\"x\", realm=\"y\", Basic realm=\"good\""), "good"},
      {challenge("Basic realm=a b, Basic realm=\"good\""), "good"},
      {challenge("Basic =x, Basic realm=\"good\""), "good"},
      {challenge("Basic realm=\"x\", @, Basic realm=\"good\""), "good"},
      {challenge("realm=\"lost\", Basic realm=\"good\""), "good"},
      {challenge("Basic\"x\", Basic realm=\"good\""), "good"},
      // A quoted string without an end is no realm.
      {challenge("Basic realm=\"x"), ""},
      {challenge("Basic realm=\"x\\"), ""},
      {challenge("Basic realm=\"x\\\""), ""},
      {challenge("Basic realm=\""), ""},
      // A realm with control characters is refused.
      {challenge("Basic realm=\"a\x1b[2J\""), ""},
      {challenge("Basic realm=\"a\tb\""), ""},
      {challenge("Basic realm=\"a\rb\""), ""},
      {challenge("Basic realm=\"a\\\x7f\""), ""},
      {challenge(std::string("Basic realm=\"a\0b\"", 17)), ""},
      {challenge("Basic realm=\"a\xc2\x9b"
                 "2J\""),
       ""},
      {challenge("Basic realm=\"a\xc2\xa0\xc3\x9c\""), "a\xc2\xa0\xc3\x9c"},
      // Several challenges may stand in one line.
      {several, "b"},
      {several, "d", "Digest"},
      {several, "c", "Bearer"},
      {several, "", "NTLM"},
      {several, "", "Negotiate"},
      // A realm is taken up to 4096 bytes.
      {challenge("Basic realm=\"" + std::string(4096, 'x') + "\""), std::string(4096, 'x')},
      {challenge("Basic realm=\"" + std::string(4097, 'x') + "\""), ""},
      {challenge("Basic realm=\"" + std::string(64 * 1024, 'x') + "\", Basic realm=y"), "y"},
  };
  for (const REALM& row : rows) {
    EXPECT_EQ(realmOf(row.headers, row.scheme), row.realm) << row.headers.substr(0, 300);
  }
}

TEST(HttpHeaderResponse, TheLastSetCounts) {
  CHttpHeaderResponse response;
  response.set("Proxy-Authenticate: Basic realm=\"one\"\r\n");
  response.set("Proxy-Authenticate: Basic realm=\"two\"\r\n");
  EXPECT_EQ(response.getProxyAuthRealm("Basic"), "two");
  response.set("");
  EXPECT_EQ(response.getProxyAuthRealm("Basic"), "");
}

// Patterns that take quadratic time in a backtracking reader: with 4 MiB the test would exceed its
// limit.
TEST(HttpHeaderResponse, RepetitiveHeadersTakeLinearTime) {
  constexpr std::size_t kSize = 4UL << 20;
  for (const std::string pattern :
       {",", "\"", "\\", "a", "a=", "a=b,", "Basic ", "Basic,", " \r\n", "\n ", "\r\n",
        "Proxy-Authenticate: Basic realm=\r\n", ":", "=\"\","}) {
    std::string text = "Proxy-Authenticate: ";
    while (text.size() < kSize) {
      text += pattern;
    }
    EXPECT_EQ(realmOf(text), "") << pattern;
  }
}

}  // namespace
