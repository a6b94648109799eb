#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// A table as text: one line per row, columns as wide as their widest cell, two blanks between
/// columns, none at the end of a line. Cells may come from files: control characters are made
/// visible.
std::string tableText(const std::vector<std::string>& heading,
                      const std::vector<std::vector<std::string>>& rows);

/// Number of characters in a UTF-8 text.
std::size_t widthOf(const std::string& text);
