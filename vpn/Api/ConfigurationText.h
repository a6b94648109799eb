#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// What the readers of configuration files share: the bytes of a file, checked before any parser
/// sees them, and the words of their messages. Any thread may call these.
namespace ConfigurationText {

/// Longest tag, text or comment, in bytes. An XML parser compares each attribute of a tag with all
/// others, so a tag may not be endless; no address or name is longer than 2 KiB.
constexpr std::size_t MaxTagLength = std::size_t{16} * 1024;

/// Reads a regular file, or one that a link leads to. Opening never waits, whatever stands there.
/// @param contents receives its bytes.
/// @return why it cannot be read; empty on success.
std::string readRegularFile(const std::string& path, std::size_t maxSize, std::string& contents);

/// What makes bytes unfit for an XML parser: none at all, not UTF-8, or more than `MaxTagLength`
/// bytes without a "<".
struct ByteProblem {
  unsigned int line = 0;  ///< 0: the file as a whole
  std::string text;       ///< empty if there is none
};
ByteProblem findByteProblem(std::string_view contents);

/// Whether nothing but spaces, tabs and line ends is there.
bool isBlank(std::string_view text);

/// A file's own text fit for one line of a message: letters of all languages stay, what is no
/// letter a reader could see becomes \xNN, and what exceeds `maxLength` bytes is cut and marked.
std::string oneLine(const std::string& text, std::size_t maxLength);

/// The same between quotation marks, as much of it as a message needs.
std::string quoted(const std::string& text);

/// The candidate that was probably meant by a misspelt name; null if none is near.
const char* nearest(const std::string& found, const std::vector<const char*>& candidates);

}  // namespace ConfigurationText
