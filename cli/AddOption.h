#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <utility>
#include <vector>

#include "cli/Wording.h"

/// The parser takes an argument "[a,b]" for a list wherever several values may stand. Behind this
/// mark, which `addOption` takes away, it leaves the brackets alone.
/// @{
inline constexpr char BracketMark = '\x1f';
inline std::string withoutMark(std::string text) {
  return text.starts_with('[') && text.ends_with(BracketMark) ? text.substr(0, text.size() - 1)
                                                              : text;
}
/// @}

/// A check that a value is one of the words.
inline auto oneOf(std::vector<std::string> words) {
  return [words = std::move(words)](const std::string& text) {
    return Wording::errorAmong(text, words);
  };
}

/// Adds an option or operand with a value. The help shows `placeholder` for the value.
template <class T>
CLI::Option* addOption(CLI::App& command, const std::string& names, const std::string& placeholder,
                       T& value, const std::string& description) {
  CLI::Option* const option = command.add_option(names, value, description);
  // The parser names the type when a value is missing.
  option->option_text(placeholder)->type_name(placeholder);
  option->transform(withoutMark, "");
  if (placeholder == "FILE" || placeholder == "DIR") {
    option->check([](const std::string& path) { return path.empty() ? "it needs a name" : ""; });
  }
  return option;
}
