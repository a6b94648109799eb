#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// A command line up to the cursor, as bash hands it to a completion: split into words as bash will
/// and freed from quotes. Nothing is evaluated: a variable stays the text that was typed.
class BashLine {
 public:
  /// @param breaks COMP_WORDBREAKS: where readline, other than bash, ends a word too.
  BashLine(const std::string& line, const std::string& breaks);

  /// The words before the one that is being typed.
  const std::vector<std::string>& before() const { return m_before; }
  const std::string& typed() const { return m_typed; }

  /// What readline is to put in place of its word, so that the line holds this one: quoted, because
  /// bash takes it as it is. Nothing if the word does not begin with what was typed, or cannot
  /// stand between the quotes that are open.
  std::optional<std::string> restOf(const std::string& word) const;

 private:
  std::vector<std::string> m_before;
  std::string m_typed;
  std::size_t m_kept = 0;  // bytes of m_typed before what readline takes for the word
  char m_quote = '\0';     // that is open
};
