// Challenges of proxies. Whatever an answer's head, a realm is a bounded part of it without control
// characters; folding, letter case and surroundings do not matter.

#include <string>

#include "tests/fuzz/require.h"
#include "vpn/Common/IP/HttpHeaderResponse.h"

namespace {

using tests::textOf;

constexpr std::size_t LongestRealm = 4096;

std::string realmOf(const std::string& head, const std::string& scheme) {
  CHttpHeaderResponse response;
  response.set(head);
  return response.getProxyAuthRealm(scheme);
}

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; }

/// Whether a terminal might obey a part: each C1 control, U+0080 to U+009F, is two bytes.
bool hasControl(const std::string& text) {
  bool afterLead = false;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isControl(c) || (afterLead && byte >= 0x80U && byte <= 0x9fU)) {
      return true;
    }
    afterLead = byte == 0xc2U;
  }
  return false;
}

bool isVisible(char c) { return c != ' ' && !isControl(c); }

/// Whether `whole` contains all of `part` in order: escapes leave characters out, and a fold,
/// perhaps a tab, becomes a blank.
bool standsIn(const std::string& part, const std::string& whole) {
  std::size_t found = 0;
  for (const char c : whole) {
    const char meant = c == '\t' ? ' ' : c;
    found += found < part.size() && part[found] == meant ? 1 : 0;
  }
  return found == part.size();
}

bool isFolded(const std::string& head) {
  return head.find("\n ") != std::string::npos || head.find("\n\t") != std::string::npos;
}

/// The head with a fold in place of every single blank.
std::string folded(const std::string& head) {
  std::string result;
  for (std::size_t i = 0; i < head.size(); ++i) {
    const bool isSingleBlank = head[i] == ' ' && i > 0 && i + 1 < head.size() &&
                               isVisible(head[i - 1]) && isVisible(head[i + 1]);
    result += isSingleBlank ? "\r\n " : head.substr(i, 1);
  }
  return result;
}

std::string quoted(const std::string& realm) {
  std::string result = "\"";
  for (const char c : realm) {
    result += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
  }
  return result + "\"";
}

/// Exactly the printable realms are found, unchanged.
void requireFaithful(const std::string& realm) {
  const bool mayBeShown = realm.size() <= LongestRealm && !hasControl(realm);
  const std::string found = realmOf(
      "HTTP/1.1 407 x\r\nProxy-Authenticate: Basic realm=" + quoted(realm) + "\r\n\r\n", "Basic");
  REQUIRE(!mayBeShown || found == realm);
  REQUIRE(standsIn(found, realm));
}

void requireProperties(const std::string& head, const std::string& scheme) {
  const std::string realm = realmOf(head, scheme);
  REQUIRE(realm.size() <= LongestRealm);
  REQUIRE(!hasControl(realm));
  REQUIRE(standsIn(realm, head));
  if (!isFolded(head)) {
    REQUIRE(realmOf(folded(head), scheme) == realm);
  }
  if (!head.starts_with(' ') && !head.starts_with('\t')) {
    REQUIRE(realmOf("HTTP/1.1 407 Proxy Authentication Required\r\n" + head, scheme) == realm);
  }
  if (!head.ends_with('\r')) {
    REQUIRE(realmOf(head + "\r\nVia: 1.1 x\r\n\r\n", scheme) == realm);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = textOf(data, size);
  for (const char* scheme : {"Basic", "NTLM", "Negotiate", "Digest"}) {
    requireProperties(text, scheme);
  }
  REQUIRE(realmOf(text, "bASIC") == realmOf(text, "Basic"));
  REQUIRE(realmOf(text, "").empty());
  requireFaithful(text);
  return 0;
}
