// Addresses of servers. A text is taken apart from left to right by the grammar in the header, and
// either every part is well formed or none is kept: whoever holds a URL with a host may put that
// host into a request, a log line or a cache key as it stands.

#include "vpn/Common/Utility/URL.h"

#include <arpa/inet.h>
#include <uninorm.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string_view>

#include "vpn/Common/Trust/LegibleText.h"
#include "vpn/include/StringUtils.h"
#include "vpn/include/Utf8.h"

namespace {

// Longest address taken. Long enough for every name with a generous path, short enough that a
// damaged profile cannot fill a log or a cache key.
constexpr std::size_t MaxTextLength = 2048;
// RFC 1035: 255 bytes on the wire, which is 253 characters of text.
constexpr std::size_t MaxNameLength = 253;
// IFNAMSIZ of Linux is 16 with the closing zero.
constexpr std::size_t MaxZoneLength = 15;

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

constexpr bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

constexpr bool isAscii(char c) { return static_cast<unsigned char>(c) < 128; }

/// By byte, because a selection asks for each byte of a thousand names.
constexpr auto InNames = [] {
  std::array<bool, 256> allowed{};
  for (std::size_t i = 0; i < allowed.size(); ++i) {
    const char c = static_cast<char>(i);
    allowed[i] = isLetter(c) || isDigit(c) || c == '-' || c == '_' || c == '.' || !isAscii(c);
  }
  return allowed;
}();

bool isNameCharacter(char c) { return InNames[static_cast<unsigned char>(c)]; }

constexpr bool startsLocation(char c) { return c == '/' || c == '?' || c == '#'; }

/// Where the part behind the port begins; the end of the text if there is none. A client may read a
/// thousand addresses before a selection, and find_first_of would double the time.
std::size_t findLocation(std::string_view text) {
  const auto isFound = [](char c) { return startsLocation(c); };
  return static_cast<std::size_t>(std::ranges::find_if(text, isFound) - text.begin());
}

/// What no part of an address may contain.
std::string findBadCharacter(std::string_view text) {
  if (std::ranges::all_of(text, [](char c) { return c > ' ' && c < 127; })) {
    return {};
  }
  for (std::size_t i = 0; i < text.size();) {
    const Utf8Character character = utf8CharacterAt(text, i);
    const unsigned int code = character.codePoint;
    if (character.length == 0) {
      return "It is not UTF-8; write the address in UTF-8.";
    }
    if (code == ' ' || code == '\t') {
      return "It has a blank in it; write one address without blanks.";
    }
    if (code < ' ' || (code >= 127 && code < 0xA0)) {
      return "It has a control character in it; take it out.";
    }
    i += character.length;
  }
  const std::string whole(text);
  return legible(whole) == whole ? "" : "It has a character in it that nobody sees; take it out.";
}

std::string takeScheme(std::string_view& rest, URLPROTOCOL& protocol) {
  const std::size_t end = rest.find("://");
  if (end == std::string_view::npos || end > findLocation(rest)) {
    protocol = URLPROTOCOL_NONE;
    return {};
  }
  // In the order of the enumerators.
  constexpr std::string_view Schemes[] = {"http", "https", "ldap"};
  const auto* const scheme =
      std::find_if(std::begin(Schemes), std::end(Schemes), [&](std::string_view known) {
        return CStringUtils::equalsIgnoringCase(known, rest.substr(0, end));
      });
  if (scheme == std::end(Schemes)) {
    return "The part before \"://\" is no known scheme; write http, https or ldap, or leave it "
           "out.";
  }
  protocol = static_cast<URLPROTOCOL>(scheme - std::begin(Schemes));
  rest.remove_prefix(end + 3);
  return {};
}

std::string takeIPv6(std::string_view& rest, std::string& host) {
  const std::size_t end = rest.find(']');
  if (end == std::string_view::npos) {
    return "The bracket is not closed; write an IPv6 address like [2001:db8::1].";
  }
  const std::string_view inside = rest.substr(1, end - 1);
  const std::size_t zoneAt = inside.find('%');
  const std::string address(inside.substr(0, zoneAt));
  in6_addr binary{};
  if (inet_pton(AF_INET6, address.c_str(), &binary) != 1) {
    return "The text in brackets is no IPv6 address; write it like [2001:db8::1].";
  }
  host = address;
  if (zoneAt != std::string_view::npos) {
    std::string_view zone = inside.substr(zoneAt);
    if (!zone.starts_with("%25")) {
      return "The zone of the IPv6 address does not follow \"%25\"; write it like "
             "[fe80::1%25eth0].";
    }
    zone.remove_prefix(3);
    const bool known = std::all_of(zone.begin(), zone.end(),
                                   [](char c) { return isNameCharacter(c) && isAscii(c); });
    if (!known || zone.empty() || zone.size() > MaxZoneLength) {
      return "The zone of the IPv6 address is no interface name; write it like [fe80::1%25eth0].";
    }
    host.append("%").append(zone);
  }
  rest.remove_prefix(end + 1);
  return {};
}

/// Whether a program that takes old spellings of IPv4 addresses reads `label`, the last of a name,
/// as a number.
bool isNumber(std::string_view label) {
  const bool isHex = label.starts_with("0x") || label.starts_with("0X");
  return label.find_first_not_of(isHex ? "0123456789abcdefABCDEF" : "0123456789", isHex ? 2 : 0) ==
         std::string_view::npos;
}

std::string normalised(uninorm_t form, const std::string& text) {
  std::size_t length = 0;
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const std::unique_ptr<std::uint8_t, void (*)(void*)> result(
      u8_normalize(form, bytes, text.size(), nullptr, &length), &std::free);
  return result == nullptr ? "" : std::string(result.get(), result.get() + length);
}

/// Whether the look-up of a name (IDNA, UTS 46) would put other characters in the place of some:
/// "127.0.0.\uff11" leads to 127.0.0.1, and in "a\u3002b" stands a full stop.
bool isReplaced(const std::string& name) {
  constexpr const char* IdeographicFullStop = "\u3002";
  return !std::ranges::all_of(name, [](char c) { return isAscii(c); }) &&
         (name.find(IdeographicFullStop) != std::string::npos ||
          normalised(UNINORM_NFKC, name) != normalised(UNINORM_NFC, name));
}

std::string checkName(const std::string& name) {
  if (name.empty()) {
    return "It has no host; write a name or an address before the port or the path.";
  }
  if (!std::ranges::all_of(name, [](char c) { return isNameCharacter(c); })) {
    return "The host has a character in it that no name has; use letters, digits, \"-\", \"_\" "
           "and \".\".";
  }
  if (name.size() > MaxNameLength) {
    return "The host is longer than 253 bytes, which no name is; shorten it.";
  }
  if (name.front() == '.' || name.back() == '.' || name.find("..") != std::string::npos) {
    return "The host has a dot too many; write it without a dot at either end and without two in a "
           "row.";
  }
  // RFC 952 and RFC 1123, section 2.1. To the programs that a host is handed on to, it would be an
  // option.
  if (name.front() == '-' || name.find(".-") != std::string::npos) {
    return "The host has a part that begins with \"-\", which no name has; write it without.";
  }
  if (isReplaced(name)) {
    return "The host has a character in it that stands for another one, such as a wide letter, "
           "digit or full stop; write the plain one.";
  }
  in_addr binary{};
  if (isNumber(std::string_view(name).substr(name.rfind('.') + 1)) &&
      inet_pton(AF_INET, name.c_str(), &binary) != 1) {
    return "The host ends in a number but is no IPv4 address; write four numbers from 0 to 255, "
           "like 192.0.2.1.";
  }
  return {};
}

std::string takeHost(std::string_view& rest, std::string& host) {
  const std::string_view authority = rest.substr(0, findLocation(rest));
  if (authority.find('@') != std::string_view::npos) {
    return "It has a user name in it; leave out everything up to the \"@\".";
  }
  if (authority.starts_with('[')) {
    return takeIPv6(rest, host);
  }
  const std::size_t colon = authority.find(':');
  if (colon != std::string_view::npos && authority.find(':', colon + 1) != std::string_view::npos) {
    return "It has several colons; write an IPv6 address in brackets, like [2001:db8::1]:443.";
  }
  host = authority.substr(0, colon);
  rest.remove_prefix(host.size());
  return checkName(host);
}

std::string takePort(std::string_view& rest, std::string& port) {
  if (rest.empty() || startsLocation(rest[0])) {
    return {};
  }
  static const std::string wrongPort =
      "What follows the host is no port; write \":\" and a number from 1 to 65535.";
  const std::size_t end = findLocation(rest);
  if (rest[0] != ':') {
    return wrongPort;
  }
  const std::string_view written = rest.substr(1, end - 1);
  rest.remove_prefix(end);
  if (written.empty()) {
    return {};
  }
  std::uint16_t number = 0;
  const char* const writtenEnd = written.data() + written.size();
  const auto [numberEnd, error] = std::from_chars(written.data(), writtenEnd, number);
  if (error != std::errc() || numberEnd != writtenEnd || number == 0) {
    return wrongPort;
  }
  port = std::to_string(number);
  return {};
}

}  // namespace

URL::URL(const std::string& text) {
  if (!CStringUtils::trimmed(text).empty() && !parse(text).empty()) {
    *this = URL();
    m_eProtocol = URLPROTOCOL_UNKNOWN;
  }
}

std::string URL::findError(const std::string& text) {
  return CStringUtils::trimmed(text).empty() ? "It is empty; write a name or an address."
                                             : URL().parse(text);
}

/// Takes `text` apart. Returns what is wrong with it, or nothing; then the parts hold.
std::string URL::parse(std::string_view text) {
  std::string_view rest = CStringUtils::trimmed(text);
  if (rest.size() > MaxTextLength) {
    return "It is longer than 2048 bytes; shorten it.";
  }
  std::string error = findBadCharacter(rest);
  if (error.empty()) {
    error = takeScheme(rest, m_eProtocol);
  }
  if (error.empty()) {
    error = takeHost(rest, m_sHost);
  }
  if (error.empty()) {
    error = takePort(rest, m_sPort);
  }
  m_sLocation = rest;
  return error;
}

std::string URL::getHostFragment() const {
  if (m_sHost.find(':') == std::string::npos) {
    return m_sHost;
  }
  std::string host = m_sHost;
  const std::size_t zoneAt = host.find('%');
  if (zoneAt != std::string::npos) {
    host.insert(zoneAt + 1, "25");
  }
  return "[" + host + "]";
}

std::string URL::getHostAndPort(bool /*reserved*/) const {
  return m_sPort.empty() ? getHostFragment() : getHostFragment() + ":" + m_sPort;
}
