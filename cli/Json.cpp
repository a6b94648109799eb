#include "cli/Json.h"

#include <algorithm>
#include <cstddef>

#include "vpn/Common/Trust/LegibleText.h"
#include "vpn/include/Utf8.h"

std::string jsonText(const Json& object, int indent) {
  constexpr bool Ascii = true;
  const std::string dumped =
      object.dump(indent, ' ', !Ascii, Json::error_handler_t::replace) + "\n";
  std::string text;
  text.reserve(dumped.size());
  for (std::size_t i = 0; i < dumped.size();) {
    const auto isPlain = [](char c) { return (c >= ' ' && c < 0x7f) || c == '\n'; };
    const auto special =
        std::find_if_not(dumped.begin() + static_cast<std::ptrdiff_t>(i), dumped.end(), isPlain);
    const auto plain = static_cast<std::size_t>(special - dumped.begin()) - i;
    text.append(dumped, i, plain);
    i += plain;
    if (i == dumped.size()) {
      break;
    }
    const std::string character =
        dumped.substr(i, std::max<std::size_t>(utf8CharacterAt(dumped, i).length, 1));
    i += character.size();
    if (legible(character) == character) {
      text += character;
    } else {
      const std::string escaped = Json(character).dump(-1, ' ', Ascii);
      text += escaped.substr(1, escaped.size() - 2);  // without its quotation marks
    }
  }
  return text;
}
