#include "cli/Json.h"

#include <algorithm>

#include "vpn/Common/Trust/LegibleText.h"
#include "vpn/include/Utf8.h"

std::string jsonText(const Json& object, int indent) {
  constexpr bool Ascii = true;
  const std::string dumped =
      object.dump(indent, ' ', !Ascii, Json::error_handler_t::replace) + "\n";
  std::string text;
  for (std::size_t i = 0; i < dumped.size();) {
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
