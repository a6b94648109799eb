#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "vpn/Common/IP/AnswerHead.h"

/// Reads the bytes of an answer in HTTP/1, in any pieces: its head, and where it ends. Reads no
/// more than `AnswerHead` allows. Used by one thread at a time.
class AnswerReader {
 public:
  AnswerReader() = default;
  /// @param takesBody whether the rest of a short answer is wanted.
  explicit AnswerReader(bool takesBody) : m_head({.body = takesBody}) {}

  /// Takes what came next. @return whether more is wanted.
  bool take(std::string_view bytes);
  /// The peer has closed the connection. An answer that breaks off after its status counts.
  void takeEnd();

  /// 0, or libcurl's code for what is wrong.
  unsigned int code() const { return m_code; }
  bool isHeadComplete() const { return m_head.isComplete(); }
  /// The whole answer has come and nothing else, and the server keeps the connection.
  bool isWhole() const { return m_part == Part::Whole && !m_closes && !m_isDoubtful; }
  /// Of the last head; 0 before its first line has come.
  unsigned int status() const { return m_status; }
  std::string takeLines() { return m_head.takeLines(); }
  /// The Location of a final head.
  std::string takeLocation() { return std::move(m_location); }

 private:
  enum class Part : unsigned char { Head, Data, DataEnd, ChunkSize, Trailer, Whole, Unwanted };

  std::optional<std::string_view> lineOf(std::string_view& bytes);
  void takeHeadLine(std::string_view line);
  unsigned int readStatus(std::string_view line);
  unsigned int readField(std::string_view line);
  unsigned int readLength(std::string_view value);
  void endHead();
  void takeBody(std::string_view& bytes);
  void takeBodyLine(std::string_view line);
  bool hasNoBody() const;

  AnswerHead m_head;
  std::string m_line;  ///< the beginning of one whose end has not come
  std::string m_held;  ///< the same once it is whole
  std::string m_location;
  std::size_t m_left = 0;               ///< of the body or its chunk
  std::optional<std::size_t> m_length;  ///< as announced
  unsigned int m_code = 0;
  unsigned int m_status = 0;
  unsigned int m_fields = 0;
  Part m_part = Part::Head;
  bool m_isFirstLine = true;
  bool m_isInLocation = false;
  bool m_isChunked = false;
  bool m_closes = false;
  bool m_isDoubtful = false;  ///< its length is
};
