#pragma once

#include <cstddef>
#include <string>

/// The words of messages that quote a file or a caller. Any thread may call these.
namespace ConfigurationText {

/// A file's own text fit for one line of a message: letters of all languages stay, what is no
/// letter a reader could see becomes \xNN, and what exceeds `maxLength` bytes, those of the longest
/// path, is cut and marked.
std::string oneLine(const std::string& text, std::size_t maxLength = 4096);

/// The same between quotation marks, as much of it as a message needs.
std::string quoted(const std::string& text);

}  // namespace ConfigurationText
