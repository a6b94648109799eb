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

/// The object as text. Bytes that are not UTF-8 (in a path) are replaced.
inline std::string jsonText(const Json& object) {
  constexpr int Indent = 2;
  return object.dump(Indent, ' ', false, Json::error_handler_t::replace) + "\n";
}
