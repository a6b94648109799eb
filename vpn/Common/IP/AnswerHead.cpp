// What a peer says before the body of its answer. Bytes, lines and answers are counted before they
// are looked at, so that no peer makes a probe keep or read more than the bounds below.

#include "vpn/Common/IP/AnswerHead.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "vpn/include/StringUtils.h"

namespace {

// 64 KiB is what the interface promises to keep. The others are far above what servers send and far
// below what costs anything; libcurl itself refuses single lines above 100 KiB.
constexpr std::size_t kMaxKeptBytes = 64UL * 1024;
constexpr std::size_t kMaxBytes = 256UL * 1024;
constexpr unsigned int kMaxLines = 1000;
// A tunnel through a proxy with NTLM takes four answers; the rest is room for interim ones.
constexpr unsigned int kMaxAnswers = 10;

// What a server sends at once, before anything is acknowledged: ten segments of an Ethernet (RFC
// 6928). A longer answer takes more round trips to arrive than a new connection takes to open.
constexpr std::size_t kMaxAnswerAtOnce = 10UL * 1460;

constexpr unsigned int kSwitchingProtocols = 101;
constexpr unsigned int kFirstFinal = 200;
constexpr unsigned int kFirstRefusal = 300;
constexpr unsigned int kProxyChallenge = 407;
// These never have a body (RFC 9112, section 6.3).
constexpr unsigned int kNoContent = 204;
constexpr unsigned int kNotModified = 304;

/// The status code in the first line of a head, "HTTP/1.1 200 OK"; 0 if it has none.
unsigned int statusOfLine(std::string_view line) {
  const std::size_t blank = line.find(' ');
  unsigned int status = 0;
  if (blank != std::string_view::npos) {
    std::from_chars(line.data() + blank + 1, line.data() + line.size(), status);
  }
  return status;
}

/// The value of a Content-Length; what is no number is more than anything.
std::size_t lengthOf(std::string_view value) {
  std::size_t length = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), length);
  return error == std::errc() && end == value.data() + value.size() ? length : SIZE_MAX;
}

}  // namespace

bool AnswerHead::Add(std::string_view line) {
  m_bytes += line.size();
  ++m_lineCount;
  if (m_bytes > kMaxBytes || m_lineCount > kMaxLines) {
    return false;
  }
  if (m_complete && m_expects.body) {
    return AddBody(line.size());  // the end of a chunked body may have fields of its own
  }
  if (m_ended) {
    beginHead(line);
  } else {
    takeField(line);
  }
  m_ended = line == "\r\n" || line == "\n";
  if (m_lines.size() + line.size() <= kMaxKeptBytes) {
    m_lines += line;
  }
  return m_answers <= kMaxAnswers && !(m_ended && endOfHead());
}

bool AnswerHead::AddBody(std::size_t bytes) {
  m_bodyBytes += bytes;
  return m_expects.body && m_complete && m_bodyBytes <= kMaxAnswerAtOnce;
}

void AnswerHead::beginHead(std::string_view line) {
  m_lines.clear();
  ++m_answers;
  m_status = statusOfLine(line);
  m_body = Body();
  m_body.persistent = line.starts_with("HTTP/1.1 ");
}

void AnswerHead::takeField(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (!m_expects.body || colon == std::string_view::npos) {
    return;
  }
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = CStringUtils::trimmed(line.substr(colon + 1));
  if (CStringUtils::equalsIgnoringCase(name, "Content-Length")) {
    m_body.length = std::max(m_body.length.value_or(0), lengthOf(value));
  } else if (CStringUtils::equalsIgnoringCase(name, "Transfer-Encoding")) {
    m_body.chunked = CStringUtils::equalsIgnoringCase(value, "chunked");
    m_body.strange |= !m_body.chunked;
  } else if (CStringUtils::equalsIgnoringCase(name, "Content-Encoding")) {
    m_body.strange = true;
  } else if (CStringUtils::equalsIgnoringCase(name, "Connection") &&
             CStringUtils::toLower(std::string(value)).find("close") != std::string::npos) {
    m_body.persistent = false;
  }
}

/// Whether nothing more is wanted. Interim answers are not the answer, nor a proxy's consent to a
/// tunnel, nor a challenge that the transport may answer.
bool AnswerHead::endOfHead() {
  if (m_status == kSwitchingProtocols && !m_expects.tunnel) {
    m_complete = true;  // nobody asked for another protocol, and no HTTP follows
    return true;
  }
  if (m_status < kFirstFinal) {
    return false;
  }
  if (m_expects.tunnel) {
    m_expects.tunnel = m_status >= kFirstRefusal;
    return false;
  }
  m_complete = true;
  if (m_expects.body) {
    return !bodyIsWorthHaving();
  }
  return m_status != kProxyChallenge || !m_expects.logIn;
}

bool AnswerHead::bodyIsWorthHaving() const {
  if (!m_body.persistent || m_body.strange) {
    return false;
  }
  if (m_body.chunked || m_status == kNoContent || m_status == kNotModified) {
    return true;
  }
  return m_body.length && *m_body.length <= kMaxAnswerAtOnce - std::min(m_bytes, kMaxAnswerAtOnce);
}
