// Text that is shown and compared. Whatever the bytes, the result is bounded and printable. The
// resolver's search domains are such a text.

#include <arpa/inet.h>
#include <resolv.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "tests/fuzz/require.h"
#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Api/ConfigurationBytes.h"
#include "vpn/Api/ConfigurationText.h"
#include "vpn/Common/Trust/LegibleText.h"
#include "vpn/Common/Utility/NearestName.h"
#include "vpn/include/StringUtils.h"

namespace {

using tests::isLegible;
using tests::isPrintableAscii;
using tests::textOf;

constexpr std::size_t LengthOfCut = 6;     // " [cut]"
constexpr std::size_t LengthOfEscape = 4;  // \xNN

/// The lines of the text under test, as the resolver's search domains.
std::vector<std::string>& resolverLines() {
  static std::vector<std::string>& lines = *new std::vector<std::string>;
  return lines;
}

std::string withoutLineEndsAndTabs(std::string text) {
  text.erase(
      std::remove_if(text.begin(), text.end(), [](char c) { return c == '\n' || c == '\t'; }),
      text.end());
  return text;
}

void requireLegible(const std::string& text) {
  for (const std::size_t longest : {0U, 5U, 80U, 100000U}) {
    const std::string shown = legible(text, longest);
    REQUIRE(shown.size() <= longest + LengthOfCut);
    REQUIRE(isLegible(withoutLineEndsAndTabs(shown)));
  }
  const std::string whole = legible(text, text.size() * LengthOfEscape);
  REQUIRE(legible(whole, whole.size()) == whole);
}

/// Undoes the indentation, to prove that nothing of the message was lost.
void requireIndented(const std::string& message) {
  const std::string indented = indentContinuation(message);
  std::string plain;
  for (std::size_t i = 0; i < indented.size(); ++i) {
    plain += indented[i];
    if (indented[i] == '\n' && indented[i + 1] != '\n') {
      REQUIRE(indented.compare(i + 1, 2, "  ") == 0);
      i += 2;
    }
  }
  REQUIRE(plain == message.substr(0, message.find_last_not_of('\n') + 1));
}

void requireRightMessages(const std::string& text) {
  constexpr std::size_t longest = 100;
  const std::string line = ConfigurationText::oneLine(text, longest);
  REQUIRE(isLegible(line));
  REQUIRE(line.size() <= longest + LengthOfCut);
  REQUIRE(ConfigurationText::quoted(text).size() <= longest);
  const std::vector<std::string> names{"SelectionPingTimeout", "ProxyHost", "ProxyPort"};
  const std::string* const meant = nearestName(text, names);
  REQUIRE(meant == nullptr || std::find(names.begin(), names.end(), *meant) != names.end());
}

void requireRightBytes(const std::string& text) {
  const ConfigurationBytes::ByteProblem problem = ConfigurationBytes::findByteProblem(text);
  REQUIRE(problem.place.line <=
          1 + static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')));
  REQUIRE(isPrintableAscii(problem.text));
  const bool isFit = tests::isUtf8(text) && !CStringUtils::trimmed(text).empty();
  REQUIRE(problem.text.empty() ? isFit : !isFit || text.size() > ConfigurationBytes::MaxTagLength);
}

void requireRightPlace(const std::string& text) {
  resolverLines().clear();
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    resolverLines().push_back(line);
  }
  std::vector<std::string> place;
  REQUIRE(readResolverPlace(place));
  REQUIRE(place.size() <= MAXNS + MAXDNSRCH);
  for (const std::string& part : place) {
    REQUIRE(isPrintableAscii(part));
    REQUIRE(part.starts_with("nameserver ") || part.starts_with("search "));
    REQUIRE(part.size() < 256);
    REQUIRE(part == CStringUtils::toLower(part));
  }
}

}  // namespace

// Replaces the C library's function: name servers and search domains are the text's lines.
extern "C" int __wrap___res_ninit(res_state state) {
  std::memset(state, 0, sizeof *state);
  std::vector<std::string>& lines = resolverLines();
  state->nscount = static_cast<int>(std::min<std::size_t>(lines.size(), MAXNS));
  for (int i = 0; i < state->nscount; ++i) {
    static sockaddr_in6 servers[MAXNS];
    const char* const address = lines[static_cast<std::size_t>(i)].c_str();
    sockaddr_in& v4 = state->nsaddr_list[i];
    v4.sin_family = inet_pton(AF_INET, address, &v4.sin_addr) == 1 ? AF_INET : 0;
    servers[i].sin6_family = AF_INET6;
    const bool isV6 = inet_pton(AF_INET6, address, &servers[i].sin6_addr) == 1;
    state->_u._ext.nsaddrs[i] = isV6 ? &servers[i] : nullptr;
  }
  for (std::size_t i = 0; i < std::min<std::size_t>(lines.size(), MAXDNSRCH); ++i) {
    state->dnsrch[i] = lines[i].data();
  }
  return 0;
}

extern "C" void __wrap___res_nclose(res_state) {}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = textOf(data, size);
  requireLegible(text);
  requireIndented(text);
  requireRightMessages(text);
  requireRightBytes(text);
  requireRightPlace(text);
  return 0;
}
