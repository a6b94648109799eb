// Lays out rows in columns. A row may be shorter than the heading.

#include "cli/Table.h"

#include <algorithm>

#include "cli/Console.h"

namespace {

std::string lineOf(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths) {
  constexpr std::size_t Gap = 2;
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::string cell = Console::visible(cells[i]);
    line += cell + std::string(widths[i] - widthOf(cell) + Gap, ' ');
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line + "\n";
}

}  // namespace

std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80;  // skips continuation bytes
  }));
}

std::string tableText(const std::vector<std::string>& heading,
                      const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths(heading.size());
  const auto widen = [&widths](const std::vector<std::string>& cells) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
      widths[i] = std::max(widths[i], widthOf(Console::visible(cells[i])));
    }
  };
  widen(heading);
  std::for_each(rows.begin(), rows.end(), widen);
  std::string text = lineOf(heading, widths);
  for (const std::vector<std::string>& row : rows) {
    text += lineOf(row, widths);
  }
  return text;
}
