// What people are shown of text that may come from anywhere. Plain printable text passes untouched;
// of the rest only well-formed, harmless UTF-8 does. Unicode's own tables say what is harmless.

#include "vpn/Common/Trust/LegibleText.h"

#include <unictype.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "vpn/include/StringUtils.h"
#include "vpn/include/Utf8.h"

namespace {

constexpr char CutMark[] = " [cut]";
constexpr char Indentation[] = "  ";

bool isPlain(char c) { return (c >= 0x20 && c < 0x7f) || c == '\n' || c == '\t'; }

/// Whether a joiner may follow: only a letter beyond the European scripts, which have no use for
/// it. In "example" it would hide; Persian and many Indic names cannot be written without it.
bool takesJoiner(ucs4_t codePoint) {
  constexpr ucs4_t FirstArabic = 0x600;
  return codePoint >= FirstArabic && !uc_is_property_join_control(codePoint);
}

/// Whether Unicode says that a reader sees the character, and nothing but the character. What is
/// ignored makes a name look like another name; marks between lines of annotations are the format
/// characters without a direction of their own.
bool isHarmless(ucs4_t codePoint) {
  constexpr std::uint32_t Breaks = UC_CATEGORY_MASK_Cc | UC_CATEGORY_MASK_Zl | UC_CATEGORY_MASK_Zp;
  const bool isMark = uc_is_general_category_withtable(codePoint, UC_CATEGORY_MASK_Cf) &&
                      uc_bidi_class(codePoint) == UC_BIDI_ON;
  return !uc_is_general_category_withtable(codePoint, Breaks) && !isMark &&
         !uc_is_property_default_ignorable_code_point(codePoint) &&
         !uc_is_property_bidi_control(codePoint) && !uc_is_property_not_a_character(codePoint);
}

/// The harmless character at `position`; none if what stands there has to be escaped.
/// @param before code point of the one before; 0 for none, and for one that was escaped.
Utf8Character characterAt(const std::string& text, std::size_t position, unsigned int before) {
  const Utf8Character character = utf8CharacterAt(text, position);
  const bool isJoining = uc_is_property_join_control(character.codePoint) && takesJoiner(before);
  const bool passes = isPlain(text[position]) || isJoining || isHarmless(character.codePoint);
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

std::string legibleLine(const std::string& text, std::size_t maxLength) {
  // Escaped before it is cut, because escapes are longer than their characters.
  std::string line;
  for (const char c : text) {
    line += c == '\n' || c == '\t' ? CStringUtils::printable(std::string(1, c)) : std::string(1, c);
  }
  return legible(std::move(line), maxLength);
}

std::string forShell(const std::string& text) {
  constexpr std::string_view Plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789%+,-./:=@_";
  if (!text.empty() && text.find_first_not_of(Plain) == std::string::npos) {
    return text;
  }
  const bool isSeen = legibleLine(text) == text;
  std::string quoted;
  for (const char c : text) {
    quoted += c == '\'' ? (isSeen ? "'\\''" : "\\x27")
              : isSeen  ? std::string(1, c)
                        : CStringUtils::printable(std::string(1, c));
  }
  return (isSeen ? "'" : "$'") + quoted + "'";
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
