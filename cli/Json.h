#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

/// JSON for programs: one object, whose first member tells the version of its form.
using Json = nlohmann::ordered_json;

/// The value of the member "schema". Members may be added under the same number; none changes its
/// meaning.
constexpr int JsonSchema = 1;

/// An object that has its "schema".
inline Json newJson() { return {{"schema", JsonSchema}}; }

/// A value as it is; null where there is none. A text that is empty is none.
template <class T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}
inline Json orNull(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

/// An object as it is printed. What is no UTF-8 in it (a path) is replaced.
inline std::string jsonText(const Json& object) {
  constexpr int Indent = 2;
  return object.dump(Indent, ' ', false, Json::error_handler_t::replace) + "\n";
}
