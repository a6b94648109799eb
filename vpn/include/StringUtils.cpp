// Small string functions: locale-free folding, escaping for one line of output, wiping of secrets.

#include "vpn/include/StringUtils.h"

#include <string.h>

#include <algorithm>

std::string CStringUtils::toLower(const std::string& text) {
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lowered;
}

std::string CStringUtils::printable(const std::string& text, std::size_t maxLength) {
  static const char digits[] = "0123456789abcdef";
  std::string escaped;
  for (const char c : text) {
    if (escaped.size() >= maxLength) {
      escaped += "...";
      break;
    }
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte > 0x7e || c == '\\') {
      escaped += "\\x";
      escaped += digits[byte >> 4U];
      escaped += digits[byte & 0xfU];
    } else {
      escaped += c;
    }
  }
  return escaped;
}

void CStringUtils::wipe(std::string& secret) {
  // The whole buffer: a shorter text that was assigned later leaves the rest of a longer one
  // behind.
  secret.resize(secret.capacity());
  // A plain loop of assignments to a string that is about to die is dead code to the optimiser;
  // explicit_bzero(3) is defined to be kept.
  explicit_bzero(secret.data(), secret.size());
  secret.clear();
}
