#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The heads of the answers to one request, line by line as they arrive: interim ones, a proxy's,
/// and the final one that the request waits for. Bounded, whatever the peer sends.
class AnswerHead {
 public:
  struct Expectations {
    /// The next final head is a proxy's, which opens a tunnel or refuses it.
    bool tunnel = false;
    /// The transport answers a proxy's challenge by itself.
    bool logIn = false;
    /// The body is wanted too, as long as it is short.
    bool body = false;
  };

  AnswerHead() = default;
  explicit AnswerHead(const Expectations& expectations) : m_expects(expectations) {}

  /// Takes a line with its end. False when nothing more is wanted: the peer has sent too much, or
  /// the head is complete and its body is not wanted.
  bool add(std::string_view line);

  /// Takes note of bytes of a body. False when nothing more is wanted.
  bool addBody(std::size_t bytes);

  /// A final head is complete: what is missing is at most its body.
  bool isComplete() const { return m_complete; }
  /// The lines of the last head, its status line first; whole lines, of a long head the first ones.
  std::string takeLines() { return std::move(m_lines); }

 private:
  bool endOfHead();

  Expectations m_expects;
  std::string m_lines;
  std::size_t m_bytes = 0;
  std::size_t m_bodyBytes = 0;
  unsigned int m_lineCount = 0;
  unsigned int m_answers = 0;
  unsigned int m_challenges = 0;
  bool m_ended = true;
  bool m_complete = false;
  /// Status of the current head, from its first line; 0 if that has none.
  unsigned int m_status = 0;
};
