// What a log shows of text that may come from anywhere. Plain printable text passes untouched; of
// the rest only well-formed, harmless UTF-8 does.

#include "vpn/Common/Logging/LegibleText.h"

#include <algorithm>

#include "vpn/include/StringUtils.h"
#include "vpn/include/Utf8.h"

namespace {

constexpr char CutMark[] = " [cut]";
constexpr char Indentation[] = "  ";

bool isPlain(char c) { return (c >= 0x20 && c < 0x7f) || c == '\n' || c == '\t'; }

/// Invisible characters: a name with one looks like another name, and text in tags, which mirror
/// ASCII, looks like nothing.
bool isInvisible(unsigned int codePoint) {
  return codePoint == 0x200b || (codePoint >= 0x2060 && codePoint <= 0x2065) ||
         codePoint == 0xfeff || (codePoint >= 0xe0000 && codePoint <= 0xe007f);
}

/// The two joiners are as invisible, but Persian and many Indic names cannot be written without
/// them.
bool isJoiner(unsigned int codePoint) { return codePoint == 0x200c || codePoint == 0x200d; }

/// Whether a joiner may follow: only a letter beyond the European scripts, which have no use for
/// it. In "example" it would hide.
bool takesJoiner(unsigned int codePoint) {
  constexpr unsigned int FirstArabic = 0x600;
  return codePoint >= FirstArabic && !isJoiner(codePoint);
}

bool isHarmless(unsigned int codePoint) {
  const bool isControl = codePoint < 0xa0;  // 0x80 to 0x9f: some terminals obey them
  const bool turnsOrSeparates = codePoint == 0x61c || codePoint == 0x200e || codePoint == 0x200f ||
                                (codePoint >= 0x2028 && codePoint <= 0x202e) ||
                                (codePoint >= 0x2066 && codePoint <= 0x2069);
  return !isControl && !turnsOrSeparates && !isInvisible(codePoint);
}

/// The harmless character at `position`; none if what stands there has to be escaped.
/// @param before code point of the one before; 0 for none, and for one that was escaped.
Utf8Character characterAt(const std::string& text, std::size_t position, unsigned int before) {
  const Utf8Character character = utf8CharacterAt(text, position);
  const bool isLost = isJoiner(character.codePoint) && !takesJoiner(before);
  const bool passes = isPlain(text[position]) || (isHarmless(character.codePoint) && !isLost);
  return passes ? character : Utf8Character{};
}

}  // namespace

std::string legible(std::string text, std::size_t maxLength) {
  if (text.size() <= maxLength && std::all_of(text.begin(), text.end(), isPlain)) {
    return text;
  }
  std::string result;
  result.reserve(std::min(text.size(), maxLength) + sizeof CutMark);
  Utf8Character character;
  for (std::size_t position = 0; position < text.size();) {
    character = characterAt(text, position, character.codePoint);
    const std::string piece = character.length != 0
                                  ? text.substr(position, character.length)
                                  : CStringUtils::printable(text.substr(position, 1));
    if (result.size() + piece.size() > maxLength) {
      return result + CutMark;
    }
    result += piece;
    position += std::max(character.length, std::size_t{1});
  }
  return result;
}

std::string indentContinuation(const std::string& message) {
  const std::size_t end = message.find_last_not_of('\n');
  std::string indented;
  indented.reserve(message.size());
  for (std::size_t position = 0; end != std::string::npos && position <= end; ++position) {
    indented += message[position];
    if (message[position] == '\n' && message[position + 1] != '\n') {
      indented += Indentation;
    }
  }
  return indented;
}
