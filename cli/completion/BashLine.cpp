// Splits a line of bash into words, and quotes a word to go into the line.

#include "cli/completion/BashLine.h"

#include <utility>

namespace {

// Between double quotes a backslash quotes only these characters.
constexpr std::string_view SpecialInDoubleQuotes = "\"\\$`";

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         static_cast<unsigned char>(c) >= 0x80 ||
         std::string_view("-_./:=@%+,").find(c) != std::string_view::npos;
}

}  // namespace

BashLine::BashLine(const std::string& line, const std::string& breaks) {
  bool isWord = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    const bool isBlank = c == ' ' || c == '\t' || c == '\n';
    if (m_quote == '\0' && isBlank) {
      if (std::exchange(isWord, false)) {
        m_before.push_back(std::exchange(m_typed, ""));
      }
      m_kept = 0;
      continue;
    }
    isWord = true;
    if (c == '\\' && m_quote != '\'' && i + 1 < line.size() &&
        (m_quote == '\0' || SpecialInDoubleQuotes.find(line[i + 1]) != std::string_view::npos)) {
      m_typed += line[++i];
    } else if (c == m_quote) {
      m_quote = '\0';
      m_kept = m_typed.size();
    } else if (m_quote == '\0' && (c == '\'' || c == '"')) {
      m_quote = c;
      m_kept = m_typed.size();
    } else {
      m_typed += c;
      if (m_quote == '\0' && breaks.find(c) != std::string::npos) {
        m_kept = m_typed.size();
      }
    }
  }
}

std::optional<std::string> BashLine::restOf(const std::string& word) const {
  // Between double quotes an exclamation mark cannot be quoted.
  if (!word.starts_with(m_typed) || (m_quote == '"' && word.find('!', m_kept) != word.npos)) {
    return std::nullopt;
  }
  std::string rest;
  for (const char c : word.substr(m_kept)) {
    if (m_quote == '\'') {
      rest += c == '\'' ? "'\\''" : std::string(1, c);
    } else {
      const bool isSpecial =
          m_quote == '\0' ? !isPlain(c) : SpecialInDoubleQuotes.find(c) != std::string_view::npos;
      rest += isSpecial ? std::string{'\\', c} : std::string(1, c);
    }
  }
  return rest;
}
