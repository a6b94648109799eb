#pragma once

#include <cstddef>
#include <string_view>

/// One character of a text in UTF-8.
struct Utf8Character {
  unsigned int codePoint = 0;
  std::size_t length = 0;  ///< bytes; 0 if what stands there is no UTF-8
};

/// The character at `position`, which is within the text (RFC 3629: overlong forms and surrogates
/// are none). Any thread may call it.
Utf8Character utf8CharacterAt(std::string_view text, std::size_t position);
