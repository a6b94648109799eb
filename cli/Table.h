#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// A table as text: one line a row, columns as wide as their widest cell, two blanks between them
/// and none at the end of a line. Cells are made visible, so they may come from a file; the width
/// of a cell is its number of characters.
std::string tableText(const std::vector<std::string>& heading,
                      const std::vector<std::vector<std::string>>& rows);

/// Characters of a UTF-8 text.
std::size_t widthOf(const std::string& text);
