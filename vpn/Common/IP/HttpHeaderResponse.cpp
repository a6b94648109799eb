// Reads challenges out of the head of an answer. The text comes from the network, so it is read
// once from front to back, nothing in it is trusted to be well formed or short, and whatever breaks
// the grammar costs no more than the challenge it stands in.

#include "vpn/Common/IP/HttpHeaderResponse.h"

#include <algorithm>
#include <string_view>

#include "vpn/include/StringUtils.h"

namespace {

// A realm is shown to a person; what is longer than this was not meant for one.
constexpr std::size_t kMaxRealmLength = 4096;

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kHeaderName = "proxy-authenticate";

bool isBlank(char c) { return c == ' ' || c == '\t'; }

bool isLetterOrDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// RFC 9110, section 5.6.2: tchar.
bool isTokenCharacter(char c) {
  return isLetterOrDigit(c) ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; }

/// Also those above 127 in UTF-8, which a terminal obeys like the others.
bool hasControl(std::string_view text) {
  unsigned char before = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isControl(c) || (before == 0xC2U && byte >= 0x80U && byte < 0xA0U)) {
      return true;
    }
    before = byte;
  }
  return false;
}

void skipBlanks(std::string_view& rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
}

std::string_view takeToken(std::string_view& rest) {
  std::size_t length = 0;
  while (length < rest.size() && isTokenCharacter(rest[length])) {
    ++length;
  }
  const std::string_view token = rest.substr(0, length);
  rest.remove_prefix(length);
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

/// RFC 9110, section 11.2: what NTLM and Negotiate put in the place of parameters.
bool isToken68(std::string_view text) {
  const auto end = std::find_if_not(text.begin(), text.end(), [](char c) {
    return isLetterOrDigit(c) || std::string_view("-._~+/").find(c) != std::string_view::npos;
  });
  return end != text.begin() && std::all_of(end, text.end(), [](char c) { return c == '='; });
}

/// The challenge being read. It ends where the next one starts, and only then is known to be whole.
struct CHALLENGE {
  bool wanted = false;
  bool wellFormed = true;
  bool hasRealm = false;
  std::string realm;
};

/// Reads `element`, a parameter, into the challenge it belongs to.
void readParameter(std::string_view element, CHALLENGE& challenge) {
  const std::string_view name = takeToken(element);
  skipBlanks(element);
  if (name.empty() || !element.starts_with('=')) {
    challenge.wellFormed = false;
    return;
  }
  element.remove_prefix(1);
  skipBlanks(element);
  std::string value;
  if (element.starts_with('"')) {
    challenge.wellFormed = unquote(element, value) && challenge.wellFormed;
  } else {
    value = takeToken(element);
    challenge.wellFormed = challenge.wellFormed && element.empty() && !value.empty();
  }
  if (CStringUtils::equalsIgnoringCase(name, "realm")) {
    // RFC 9110, section 11.2: a parameter stands at most once in a challenge.
    challenge.wellFormed = challenge.wellFormed && !challenge.hasRealm;
    challenge.hasRealm = true;
    challenge.realm = std::move(value);
  }
}

/// The realm of a challenge that has been read to its end, if it is one that was looked for.
std::string usableRealm(const CHALLENGE& challenge) {
  const bool usable = challenge.wanted && challenge.wellFormed &&
                      challenge.realm.size() <= kMaxRealmLength && !hasControl(challenge.realm);
  return usable ? challenge.realm : std::string();
}

/// The realm of the first challenge in the list `value` that is for `scheme` and names one.
std::string findRealm(std::string_view value, std::string_view scheme) {
  CHALLENGE challenge;
  while (!value.empty()) {
    const std::string_view element = takeElement(value);
    std::string_view rest = element;
    const std::string_view token = takeToken(rest);
    const bool blankFollows = !rest.empty() && isBlank(rest[0]);
    skipBlanks(rest);
    // A parameter of the challenge before, or what should have been one. An empty element is
    // allowed in a list and means nothing.
    if (token.empty() || rest.starts_with('=') || (!rest.empty() && !blankFollows)) {
      if (!element.empty()) {
        readParameter(element, challenge);
      }
      continue;
    }
    if (std::string realm = usableRealm(challenge); !realm.empty()) {
      return realm;
    }
    challenge = CHALLENGE();
    challenge.wanted = CStringUtils::equalsIgnoringCase(token, scheme);
    if (!rest.empty() && !isToken68(rest)) {
      readParameter(rest, challenge);
    }
  }
  return usableRealm(challenge);
}

/// The value of a line `name: value` of the header looked for.
bool isWantedHeader(std::string_view line, std::string_view& value) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos ||
      !CStringUtils::equalsIgnoringCase(line.substr(0, colon), kHeaderName)) {
    return false;
  }
  value = line.substr(colon + 1);
  return true;
}

}  // namespace

void CHttpHeaderResponse::set(const std::string& headers) { m_headers = headers; }

// NOLINTNEXTLINE(performance-unnecessary-value-param): callers rely on the signature
std::string CHttpHeaderResponse::getProxyAuthRealm(std::string scheme) const {
  std::string_view rest = m_headers;
  std::string_view line = takeLine(rest);
  while (!line.empty() || !rest.empty()) {
    std::string_view start;
    const bool wanted = isWantedHeader(line, start);
    std::string value(start);
    // A line that starts with a blank continues the one before (obs-fold). An empty line ends a
    // head, so what follows it continues nothing.
    const bool endsHead = line.empty();
    line = takeLine(rest);
    while (!endsHead && !line.empty() && isBlank(line[0])) {
      if (wanted) {
        value.append(" ").append(CStringUtils::trimmed(line));
      }
      line = takeLine(rest);
    }
    if (wanted) {
      if (std::string realm = findRealm(value, scheme); !realm.empty()) {
        return realm;
      }
    }
  }
  return {};
}
