#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// What may stand where a person is typing.
struct Completion {
  struct Word {
    std::string text;
    std::string description{};  ///< a few words; may be empty
  };

  /// As the scripts take it: "words", or "file", "directory" or "program" for what a shell finds.
  std::string kind = "words";
  std::vector<Word> words{};  ///< whole ones, with the option's name before a value
};

/// Finds it in the tool's own description of its commands and options, and for host entries in the
/// profiles that the line names.
/// @param before the words of the line, the tool's name first.
/// @param typed the beginning of the word that is being typed.
Completion completionOf(const CLI::App& tool, const std::vector<std::string>& before,
                        const std::string& typed);
