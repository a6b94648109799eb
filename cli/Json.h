#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

/// JSON for programs: one object. Its first member is the version of its form.
using Json = nlohmann::ordered_json;

/// The value of the member "schema". A new member does not change the number; no member changes its
/// meaning.
constexpr int JsonSchema = 1;

/// A new object with its "schema".
inline Json newJson() { return {{"schema", JsonSchema}}; }

/// The value; null if there is none or the text is empty.
template <class T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}
inline Json orNull(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

/// The object as text. Bytes that are not UTF-8 (in a path) are replaced; characters that a reader
/// of the text would not see are escaped, which programs read as the same.
/// @param indent blanks a level; -1 for one line.
std::string jsonText(const Json& object, int indent = 2);
