// How a broken property ends the process, and what several targets ask of a text. The questions
// are answered by code of their own, so that no mistake of the parsers can hide in them.

#include "tests/fuzz/require.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr unsigned int NoCharacter = 0;

/// Takes one UTF-8 character off `text` at `position`; `NoCharacter` if none stands there.
unsigned int takeCharacter(const std::string& text, std::size_t& position) {
  struct Form {
    unsigned int mask;
    unsigned int lead;
    std::size_t length;
    unsigned int least;
  };
  static constexpr Form forms[] = {
      {0x80, 0x00, 1, 1}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};
  const unsigned int lead = static_cast<unsigned char>(text[position]);
  for (const Form& form : forms) {
    if ((lead & form.mask) != form.lead || text.size() - position < form.length) {
      continue;
    }
    unsigned int character = lead & ~form.mask;
    for (std::size_t i = 1; i < form.length; ++i) {
      const unsigned int next = static_cast<unsigned char>(text[position + i]);
      if (next >> 6U != 2) {
        return NoCharacter;
      }
      character = character * 64 + next % 64;
    }
    position += form.length;
    const bool isSurrogate = character / 0x800 == 0xd800 / 0x800;
    return character < form.least || character > 0x10ffff || isSurrogate ? NoCharacter : character;
  }
  return NoCharacter;
}

}  // namespace

namespace tests {

void requireAt(bool holds, const char* property, const char* file, int line) {
  if (!holds) {
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, property);
    std::abort();
  }
}

bool isPrintableAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool isUtf8(const std::string& text) {
  for (std::size_t position = 0; position < text.size();) {
    if (takeCharacter(text, position) == NoCharacter) {
      return false;
    }
  }
  return true;
}

bool isLegible(const std::string& text) {
  for (std::size_t position = 0; position < text.size();) {
    const unsigned int character = takeCharacter(text, position);
    if (character < ' ' || (character >= 0x7f && character < 0xa0)) {
      return false;
    }
  }
  return true;
}

}  // namespace tests
