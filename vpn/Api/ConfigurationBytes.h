#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "vpn/Common/Trust/FileTrust.h"

/// The bytes of a configuration file, checked before any parser sees them. Any thread may call
/// these.
namespace ConfigurationBytes {

/// Longest tag, text or comment, in bytes. An XML parser compares each attribute of a tag with all
/// others, so a tag may not be endless; no address or name is longer than 2 KiB.
constexpr std::size_t MaxTagLength = std::size_t{16} * 1024;

/// Reads a file as a whole: one that changes meanwhile is read again, or refused.
/// @param contents receives its bytes.
/// @return why it cannot be read; empty on success.
std::string readRegularFile(const std::string& path, std::size_t maxSize, FileTrust::Check check,
                            std::string& contents);

/// A place in a text, counted from 1. A column is a character of UTF-8, a tab one of them.
struct Place {
  unsigned int line = 0;  ///< 0: the text as a whole
  unsigned int column = 0;
};

/// Finds the places of offsets in a text. Each call walks only from the last offset to the next, so
/// ascending offsets take one pass. The text must outlive it; one thread.
class PlaceFinder {
 public:
  explicit PlaceFinder(std::string_view text) : m_text(text) {}

  /// @param offset in bytes; one beyond the end counts as the end.
  Place placeOf(std::size_t offset);

 private:
  std::string_view m_text;
  std::size_t m_offset = 0;
  Place m_place{1, 1};  // of m_offset
};

/// What makes bytes unfit for an XML parser: none at all, not UTF-8, or more than `MaxTagLength`
/// bytes without a "<".
struct ByteProblem {
  Place place;
  std::string text;  ///< empty if there is none
};
ByteProblem findByteProblem(std::string_view contents);

}  // namespace ConfigurationBytes
