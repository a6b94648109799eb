// The words of messages about configuration files. No text of a file can forge a line of a log.

#include "vpn/Api/ConfigurationText.h"

#include <utility>

#include "vpn/Common/Logging/LegibleText.h"
#include "vpn/include/StringUtils.h"

namespace {

// As much of a file's text as a reader needs to find it again, in bytes.
constexpr std::size_t MaxQuotedLength = 80;

}  // namespace

std::string ConfigurationText::oneLine(const std::string& text, std::size_t maxLength) {
  // Escaped before it is cut, because escapes are longer than their characters.
  std::string line;
  for (const char c : text) {
    line += c == '\n' || c == '\t' ? CStringUtils::printable(std::string(1, c)) : std::string(1, c);
  }
  return legible(std::move(line), maxLength);
}

std::string ConfigurationText::quoted(const std::string& text) {
  return "\"" + oneLine(text, MaxQuotedLength) + "\"";
}
