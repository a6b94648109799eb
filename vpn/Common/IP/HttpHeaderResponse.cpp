// Reads challenges out of the head of an answer. The text comes from the network, so it is read
// once from front to back, nothing in it is trusted to be well formed or short, and whatever breaks
// the grammar costs no more than the challenge it stands in.

#include "vpn/Common/IP/HttpHeaderResponse.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "vpn/include/StringUtils.h"

namespace {

// A realm is shown to a person; what is longer than this was not meant for one.
constexpr std::size_t MaxRealmLength = 4096;

// RFC 9110, section 5.6.2: tchar.
constexpr std::string_view TokenCharacters =
    "!#$%&'*+-.^_`|~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// RFC 9110, section 11.2: what NTLM and Negotiate put in the place of parameters, before its "=".
constexpr std::string_view Token68Characters =
    "-._~+/0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

bool startsWithBlank(std::string_view text) {
  return text.starts_with(' ') || text.starts_with('\t');
}

/// Also those above 127 in UTF-8, which a terminal obeys like the others.
bool hasControl(std::string_view text) {
  unsigned char before = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ' || byte == 127 || (before == 0xC2U && byte >= 0x80U && byte < 0xA0U)) {
      return true;
    }
    before = byte;
  }
  return false;
}

std::string_view takeToken(std::string_view& rest) {
  const std::string_view token = rest.substr(0, rest.find_first_not_of(TokenCharacters));
  rest.remove_prefix(token.size());
  return token;
}

/// Takes the next line off `rest`, without its line end.
std::string_view takeLine(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('\n'), rest.size());
  std::string_view line = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  if (line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  return line;
}

/// Takes the next element of a comma-separated list off `rest`, blanks around it dropped. Commas
/// inside a quoted string separate nothing.
std::string_view takeElement(std::string_view& rest) {
  bool quoted = false;
  std::size_t end = 0;
  for (; end < rest.size() && (quoted || rest[end] != ','); ++end) {
    if (quoted && rest[end] == '\\') {
      ++end;
    } else if (rest[end] == '"') {
      quoted = !quoted;
    }
  }
  end = std::min(end, rest.size());
  const std::string_view element = CStringUtils::trimmed(rest.substr(0, end));
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return element;
}

/// Unescapes a quoted string that has to fill the whole of `text`.
bool unquote(std::string_view text, std::string& value) {
  value.clear();
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '"') {
      return i + 1 == text.size();
    }
    if (text[i] == '\\' && ++i == text.size()) {
      return false;
    }
    value += text[i];
  }
  return false;
}

bool isToken68(std::string_view text) {
  const std::size_t end = std::min(text.find_first_not_of(Token68Characters), text.size());
  return end != 0 && text.find_first_not_of('=', end) == std::string_view::npos;
}

/// The challenge being read. It ends where the next one starts, and only then is known to be whole.
struct Challenge {
  bool wanted = false;
  bool wellFormed = true;
  std::optional<std::string> realm;

  /// The realm of one that has been read to its end, if it is one that was looked for.
  std::string usableRealm() const {
    const bool usable =
        wanted && wellFormed && realm && realm->size() <= MaxRealmLength && !hasControl(*realm);
    return usable ? *realm : std::string();
  }
};

/// Reads `element`, a parameter, into the challenge it belongs to.
void readParameter(std::string_view element, Challenge& challenge) {
  const std::string_view name = takeToken(element);
  element = CStringUtils::trimmed(element);
  const bool hasValue = !name.empty() && element.starts_with('=');
  element = hasValue ? CStringUtils::trimmed(element.substr(1)) : std::string_view();
  std::string value;
  if (element.starts_with('"')) {
    challenge.wellFormed = unquote(element, value) && challenge.wellFormed;
  } else {
    value = takeToken(element);
    challenge.wellFormed = challenge.wellFormed && element.empty() && !value.empty();
  }
  if (CStringUtils::equalsIgnoringCase(name, "realm")) {
    // RFC 9110, section 11.2: a parameter stands at most once in a challenge.
    challenge.wellFormed = challenge.wellFormed && !challenge.realm;
    challenge.realm = std::move(value);
  }
}

/// The realm of the first challenge in the list `value` that is for `scheme` and names one.
std::string findRealm(std::string_view value, std::string_view scheme) {
  Challenge challenge;
  while (!value.empty()) {
    const std::string_view element = takeElement(value);
    std::string_view rest = element;
    const std::string_view token = takeToken(rest);
    const bool blankFollows = startsWithBlank(rest);
    rest = CStringUtils::trimmed(rest);
    // A parameter of the challenge before, or what should have been one. An empty element is
    // allowed in a list and means nothing.
    if (token.empty() || rest.starts_with('=') || (!rest.empty() && !blankFollows)) {
      if (!element.empty()) {
        readParameter(element, challenge);
      }
      continue;
    }
    if (std::string realm = challenge.usableRealm(); !realm.empty()) {
      return realm;
    }
    challenge = Challenge();
    challenge.wanted = CStringUtils::equalsIgnoringCase(token, scheme);
    if (!rest.empty() && !isToken68(rest)) {
      readParameter(rest, challenge);
    }
  }
  return challenge.usableRealm();
}

}  // namespace

void CHttpHeaderResponse::set(const std::string& headers) { m_headers = headers; }

// NOLINTNEXTLINE(performance-unnecessary-value-param): callers rely on the signature
std::string CHttpHeaderResponse::getProxyAuthRealm(std::string scheme) const {
  std::string_view rest = m_headers;
  while (!rest.empty()) {
    std::string line(takeLine(rest));
    // A line that starts with a blank continues the one before (obs-fold). An empty line ends a
    // head, so what follows it continues nothing.
    while (!line.empty() && startsWithBlank(rest)) {
      line.append(" ").append(CStringUtils::trimmed(takeLine(rest)));
    }
    constexpr std::string_view Header = "proxy-authenticate:";
    if (CStringUtils::equalsIgnoringCase(line.substr(0, Header.size()), Header)) {
      if (std::string realm = findRealm(line.substr(Header.size()), scheme); !realm.empty()) {
        return realm;
      }
    }
  }
  return {};
}
