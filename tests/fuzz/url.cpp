// Addresses. Any text is either parsed into well-formed parts that give the same address again, or
// nothing of it is kept and a reason is given.

#include "vpn/Common/Utility/URL.h"

#include <string>

#include "tests/fuzz/require.h"
#include "vpn/include/StringUtils.h"

namespace {

using tests::isLegible;
using tests::textOf;

bool isBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

std::string schemeOf(const URL& url) {
  switch (url.getProtocol()) {
    case URLPROTOCOL_HTTP:
      return "http://";
    case URLPROTOCOL_HTTPS:
      return "https://";
    case URLPROTOCOL_LDAP:
      return "ldap://";
    case URLPROTOCOL_NONE:
    case URLPROTOCOL_UNKNOWN:
      break;
  }
  return "";
}

void requireEqual(const URL& a, const URL& b) {
  REQUIRE(a.getProtocol() == b.getProtocol());
  REQUIRE(a.getHost() == b.getHost());
  REQUIRE(a.getPort() == b.getPort());
  REQUIRE(a.getLocation() == b.getLocation());
}

void requireNothingKept(const URL& url) {
  REQUIRE(url.getHost().empty());
  REQUIRE(url.getPort().empty());
  REQUIRE(url.getLocation().empty());
  REQUIRE(url.getHostFragment().empty());
  REQUIRE(url.getHostAndPort(false).empty());
}

void requireRightHost(const std::string& host) {
  constexpr std::size_t longest = 253;
  REQUIRE(!host.empty());
  REQUIRE(host.size() <= longest);
  REQUIRE(isLegible(host));
  // Each would end or split the host in an address, a header, a known-headends key or an attribute.
  REQUIRE(host.find_first_of(" /?#@[]\\;,\"'<>&") == std::string::npos);
  if (host.find(':') == std::string::npos) {
    REQUIRE(host.find('%') == std::string::npos);
  }
}

void requireRightPort(const std::string& port) {
  REQUIRE(port.size() <= 5);
  REQUIRE(port.find_first_not_of("0123456789") == std::string::npos);
  REQUIRE(port.empty() || (port[0] != '0' && std::stoul(port) <= 65535));
}

void requireRightLocation(const std::string& location) {
  constexpr std::size_t longest = 2048;
  REQUIRE(location.size() <= longest);
  REQUIRE(location.empty() || std::string("/?#").find(location[0]) != std::string::npos);
  REQUIRE(isLegible(location));
  REQUIRE(location.find(' ') == std::string::npos);
}

void requireRoundTrip(const URL& url) {
  requireEqual(URL(schemeOf(url) + url.getHostAndPort(false) + url.getLocation()), url);
  // The form in which results are compared and kept, in lower case as in the key of the cache.
  const std::string key = CStringUtils::toLower(url.getHostAndPort(false));
  REQUIRE(URL(key).getHostAndPort(false) == key);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = textOf(data, size);
  const URL url(text);
  const std::string error = URL::findError(text);
  REQUIRE(isLegible(error));
  REQUIRE(error.size() < 200);
  REQUIRE((url.getProtocol() == URLPROTOCOL_UNKNOWN) == (!error.empty() && !isBlank(text)));
  if (!error.empty()) {
    requireNothingKept(url);
    return 0;
  }
  requireRightHost(url.getHost());
  requireRightPort(url.getPort());
  requireRightLocation(url.getLocation());
  requireRoundTrip(url);
  requireEqual(URL(" \t" + text + "\r\n"), url);
  return 0;
}
