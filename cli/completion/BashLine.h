#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// A command line up to the cursor, from bash's completion: split into words as bash splits it,
/// without quotes. Nothing is evaluated: a variable stays as typed.
class BashLine {
 public:
  /// @param breaks COMP_WORDBREAKS: characters at which readline, unlike bash, ends a word.
  BashLine(const std::string& line, const std::string& breaks);

  /// The words before the word at the cursor.
  const std::vector<std::string>& before() const { return m_before; }
  const std::string& typed() const { return m_typed; }

  /// What readline must put in place of its own word to complete `word`, quoted because bash
  /// inserts it as it is. Nothing if `word` does not begin with the typed text, or cannot be quoted
  /// inside the open quotes.
  std::optional<std::string> restOf(const std::string& word) const;

 private:
  std::vector<std::string> m_before;
  std::string m_typed;
  std::size_t m_kept = 0;  // bytes of m_typed before readline's own word
  char m_quote = '\0';     // the open quote
};
