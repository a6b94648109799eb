#pragma once

#include <cstddef>
#include <string>

/// The words of messages that quote a file or a caller. Any thread may call these.
namespace ConfigurationText {

/// Makes a file's text fit for one line of a message: letters of all languages stay, characters
/// that a reader could not see become \xNN, and a text longer than `maxLength` bytes (by default
/// the longest path) is cut and marked.
std::string oneLine(const std::string& text, std::size_t maxLength = 4096);

/// The same in quotation marks, cut to the length that a message needs.
std::string quoted(const std::string& text);

}  // namespace ConfigurationText
