// What a peer says before the body of its answer. Bytes, lines and answers are counted before they
// are looked at, so that no peer makes a probe keep or read more than the bounds below.

#include "vpn/Common/IP/AnswerHead.h"

#include <algorithm>
#include <charconv>

namespace {

// 64 KiB is what the interface promises to keep. The others are far above what servers send and far
// below what costs anything; libcurl itself refuses single lines above 100 KiB.
constexpr std::size_t MaxKeptBytes = 64UL * 1024;
constexpr std::size_t MaxBytes = 256UL * 1024;
constexpr unsigned int MaxLines = 1000;
// A tunnel through a proxy with NTLM takes four answers; the rest is room for interim ones.
constexpr unsigned int MaxAnswers = 10;
// NTLM takes two. The transport would answer one after the other.
constexpr unsigned int MaxChallenges = 3;

// What a server sends at once, before anything is acknowledged: ten segments of an Ethernet (RFC
// 6928). A longer answer takes more round trips to arrive than a new connection takes to open.
constexpr std::size_t MaxAnswerAtOnce = 10UL * 1460;

constexpr unsigned int SwitchingProtocols = 101;
constexpr unsigned int FirstFinal = 200;
constexpr unsigned int FirstRefusal = 300;
constexpr unsigned int ProxyChallenge = 407;

/// The status code in the first line of a head, "HTTP/1.1 200 OK"; 0 if it has none.
unsigned int statusOfLine(std::string_view line) {
  line.remove_prefix(std::min(line.find(' '), line.size()));
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  unsigned int status = 0;
  std::from_chars(line.data(), line.data() + line.size(), status);
  return status;
}

}  // namespace

bool AnswerHead::add(std::string_view line) {
  m_bytes += line.size();
  ++m_lineCount;
  if (m_bytes > MaxBytes || m_lineCount > MaxLines) {
    return false;
  }
  if (m_complete && m_expects.body) {
    return addBody(line.size());  // the end of a chunked body may have fields of its own
  }
  if (m_ended) {
    m_lines.clear();
    ++m_answers;
    m_status = statusOfLine(line);
    m_challenges += m_status == ProxyChallenge ? 1 : 0;
  }
  m_ended = line == "\r\n" || line == "\n";
  if (m_lines.size() + line.size() <= MaxKeptBytes) {
    m_lines += line;
  }
  return m_answers <= MaxAnswers && m_challenges <= MaxChallenges && !(m_ended && endOfHead());
}

bool AnswerHead::addBody(std::size_t bytes) {
  m_bodyBytes += bytes;
  return m_expects.body && m_complete && m_bodyBytes <= MaxAnswerAtOnce;
}

/// Whether nothing more is wanted. Interim answers are not the answer, nor a proxy's consent to a
/// tunnel, nor a challenge that the transport may answer.
bool AnswerHead::endOfHead() {
  if (m_status == SwitchingProtocols && !m_expects.tunnel) {
    m_complete = true;  // nobody asked for another protocol, and no HTTP follows
    return true;
  }
  if (m_status < FirstFinal) {
    return false;
  }
  if (m_expects.tunnel) {
    m_expects.tunnel = m_status >= FirstRefusal;
    return false;
  }
  m_complete = true;
  return !m_expects.body && (m_status != ProxyChallenge || !m_expects.logIn);
}
