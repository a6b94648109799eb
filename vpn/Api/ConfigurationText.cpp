// The words of messages about configuration files. No text of a file can forge a line of a log.

#include "vpn/Api/ConfigurationText.h"

#include "vpn/Common/Trust/LegibleText.h"

namespace {

// As much of a file's text as a reader needs to find it again, in bytes.
constexpr std::size_t MaxQuotedLength = 80;

}  // namespace

std::string ConfigurationText::oneLine(const std::string& text, std::size_t maxLength) {
  return legibleLine(text, maxLength);
}

std::string ConfigurationText::quoted(const std::string& text) {
  return "\"" + oneLine(text, MaxQuotedLength) + "\"";
}
