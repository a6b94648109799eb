// HTTP/1 as strictly as libcurl takes it. A length or coding that could be understood in two ways
// costs the connection: the next answer must not begin where somebody else's idea of this one ends.

#include "vpn/Common/IP/AnswerReader.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace {

constexpr std::size_t MostLineBytes = 100UL * 1024;  // of libcurl
constexpr std::string_view Start = "HTTP/";
constexpr unsigned int FirstFinal = 200;

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isEmpty(std::string_view line) { return line == "\r\n" || line == "\n"; }

bool isSame(std::string_view one, std::string_view other) {
  return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

bool contains(std::string_view text, std::string_view word) {
  return std::search(text.begin(), text.end(), word.begin(), word.end(), [](char a, char b) {
           return isSame({&a, 1}, {&b, 1});
         }) != text.end();
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (isBlank(text.back()) || text.back() == '\r' || text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

}  // namespace

bool AnswerReader::take(std::string_view bytes) {
  while (m_part == Part::Head && m_code == CURLE_OK && !bytes.empty()) {
    if (const auto line = lineOf(bytes)) {
      takeHeadLine(*line);
    } else if (m_isFirstLine &&
               !Start.starts_with(std::string_view(m_line).substr(0, Start.size()))) {
      m_code = CURLE_UNSUPPORTED_PROTOCOL;
    }
  }
  const bool isBody = m_code == CURLE_OK && m_part != Part::Head && m_part != Part::Unwanted;
  if (isBody && m_part != Part::Whole && !m_head.addBody(bytes.size())) {
    m_part = Part::Unwanted;
  }
  while (isBody && m_part != Part::Whole && m_part != Part::Unwanted && !bytes.empty()) {
    takeBody(bytes);
  }
  if (m_part == Part::Whole && !bytes.empty()) {
    m_part = Part::Unwanted;
  }
  return m_code == CURLE_OK && m_part != Part::Whole && m_part != Part::Unwanted;
}

void AnswerReader::takeEnd() {
  if (m_part == Part::Head && m_code == CURLE_OK && m_status < FirstFinal) {
    m_code = CURLE_GOT_NOTHING;
  }
  m_part = Part::Unwanted;
}

/// Takes a line off the bytes, with its end. None while that has not come.
std::optional<std::string_view> AnswerReader::lineOf(std::string_view& bytes) {
  const std::size_t end = bytes.find('\n');
  const std::string_view piece = bytes.substr(0, end == std::string_view::npos ? end : end + 1);
  bytes.remove_prefix(piece.size());
  if (m_line.size() + piece.size() >= MostLineBytes) {
    m_code = CURLE_WRITE_ERROR;
    return std::nullopt;
  }
  if (end == std::string_view::npos) {
    m_line += piece;
    return std::nullopt;
  }
  if (m_line.empty()) {
    return piece;
  }
  m_held = std::exchange(m_line, {});
  m_held += piece;
  return m_held;
}

void AnswerReader::takeHeadLine(std::string_view line) {
  const bool isEnd = !m_isFirstLine && isEmpty(line);
  m_code = m_isFirstLine ? readStatus(line) : isEnd ? 0U : readField(line);
  m_isFirstLine = isEnd;  // of the next head, if this one is an interim one's
  if (m_code != CURLE_OK) {
    return;
  }
  const bool isMoreWanted = m_head.add(line);
  if (m_head.isComplete()) {
    m_part = isMoreWanted ? Part::Data : Part::Unwanted;
    if (isMoreWanted) {
      endHead();
    }
  } else if (!isMoreWanted) {
    m_code = CURLE_WRITE_ERROR;
  }
}

unsigned int AnswerReader::readStatus(std::string_view line) {
  constexpr std::string_view Version = "HTTP/1.";
  constexpr std::size_t Digits = 3;
  m_fields = 0;
  m_length.reset();
  m_location.clear();
  m_isChunked = m_isInLocation = m_isDoubtful = false;
  if (!line.starts_with(Version) || line.size() < Version.size() + 2 ||
      (line[Version.size()] != '0' && line[Version.size()] != '1') ||
      line[Version.size() + 1] != ' ') {
    return CURLE_UNSUPPORTED_PROTOCOL;
  }
  m_closes = line[Version.size()] == '0';
  const std::string_view rest = trimmed(line.substr(Version.size() + 1));
  const std::string_view code = rest.substr(0, Digits);
  if (code.size() < Digits || !std::ranges::all_of(code, isDigit) || code[0] == '0' ||
      (rest.size() > Digits && isDigit(rest[Digits]))) {
    return CURLE_UNSUPPORTED_PROTOCOL;
  }
  std::from_chars(code.data(), code.data() + code.size(), m_status);
  return line.find('\0') == std::string_view::npos ? CURLE_OK : CURLE_WEIRD_SERVER_REPLY;
}

unsigned int AnswerReader::readField(std::string_view line) {
  const std::size_t colon = line.find(':');
  const bool isFolded = isBlank(line[0]);
  const bool isFirst = m_fields++ == 0;
  if (line.find('\0') != std::string_view::npos ||
      (isFolded ? isFirst : colon == std::string_view::npos)) {
    return CURLE_WEIRD_SERVER_REPLY;
  }
  if (isFolded) {
    m_location += m_isInLocation ? " " + std::string(trimmed(line)) : "";
    return CURLE_OK;
  }
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = trimmed(line.substr(colon + 1));
  m_isInLocation = isSame(name, "Location") && m_location.empty() && m_status >= FirstFinal;
  if (m_isInLocation) {
    m_location = value;
  } else if (isSame(name, "Content-Length") && !hasNoBody()) {
    return readLength(value);
  } else if (isSame(name, "Transfer-Encoding")) {
    m_isChunked = isSame(value, "chunked");
    m_isDoubtful = m_isDoubtful || !m_isChunked;
  } else if (isSame(name, "Connection")) {
    m_closes = contains(value, "close") || (m_closes && !contains(value, "keep-alive"));
  }
  return CURLE_OK;
}

unsigned int AnswerReader::readLength(std::string_view value) {
  std::string_view digits = value.substr(value.starts_with('+') ? 1 : 0);
  if (digits.empty() || !isDigit(digits[0])) {
    return CURLE_WEIRD_SERVER_REPLY;
  }
  std::size_t length = 0;
  const char* const end = digits.data() + digits.size();
  const auto [parsed, error] = std::from_chars(digits.data(), end, length);
  m_isDoubtful =
      m_isDoubtful || error != std::errc() || parsed != end || m_length.value_or(length) != length;
  m_length = length;
  return CURLE_OK;
}

bool AnswerReader::hasNoBody() const {
  constexpr unsigned int NoContent = 204;
  constexpr unsigned int NotModified = 304;
  return m_status < FirstFinal || m_status == NoContent || m_status == NotModified;
}

/// Finds out what follows the head.
void AnswerReader::endHead() {
  m_left = m_length.value_or(0);
  if (hasNoBody() || (!m_isChunked && m_length == 0)) {
    m_part = Part::Whole;
  } else if (m_isChunked) {
    m_part = Part::ChunkSize;
    m_isDoubtful = m_isDoubtful || m_length.has_value();
  } else if (!m_length) {
    m_part = Part::Unwanted;  // the body ends with the connection
  }
}

void AnswerReader::takeBody(std::string_view& bytes) {
  if (m_part != Part::Data) {
    if (const auto line = lineOf(bytes)) {
      takeBodyLine(*line);
    }
    return;
  }
  const std::size_t taken = std::min(m_left, bytes.size());
  bytes.remove_prefix(taken);
  m_left -= taken;
  if (m_left == 0) {
    m_part = m_isChunked ? Part::DataEnd : Part::Whole;
  }
}

/// A line among the chunks of a body (RFC 9112, section 7.1).
void AnswerReader::takeBodyLine(std::string_view line) {
  constexpr int Hexadecimal = 16;
  if (m_part == Part::ChunkSize) {
    const auto [end, error] =
        std::from_chars(line.data(), line.data() + line.size(), m_left, Hexadecimal);
    m_part = error != std::errc() ? Part::Unwanted : m_left == 0 ? Part::Trailer : Part::Data;
  } else if (m_part == Part::DataEnd) {
    m_part = isEmpty(line) ? Part::ChunkSize : Part::Unwanted;
  } else if (isEmpty(line)) {
    m_part = Part::Whole;
  } else if (line.find(':') == std::string_view::npos) {
    m_part = Part::Unwanted;
  }
}
