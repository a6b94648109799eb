#pragma once

#include <cstddef>
#include <string_view>

/// One character of a text in UTF-8.
struct Utf8Character {
  unsigned int codePoint = 0;
  std::size_t length = 0;  ///< bytes; 0 if the text is not UTF-8 there
};

/// Decodes the character at `position`, which must be within the text. Refuses overlong forms and
/// surrogates (RFC 3629). Any thread may call it.
Utf8Character utf8CharacterAt(std::string_view text, std::size_t position);
