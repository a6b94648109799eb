// The only decoder of UTF-8. It never reads beyond the text, even if the last character is cut off.

#include "vpn/include/Utf8.h"

Utf8Character utf8CharacterAt(std::string_view text, std::size_t position) {
  constexpr unsigned int Smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<unsigned char>(text[position]);
  if (lead < 0x80) {
    return {lead, 1};
  }
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() - position < length) {
    return {};
  }
  unsigned int codePoint = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[position + i]);
    if ((next & 0xC0U) != 0x80U) {
      return {};
    }
    codePoint = (codePoint << 6U) | (next & 0x3FU);
  }
  const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  const bool isOne = codePoint >= Smallest[length] && codePoint <= 0x10FFFF && !isSurrogate;
  return isOne ? Utf8Character{codePoint, length} : Utf8Character{};
}
