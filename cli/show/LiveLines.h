#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cli/show/LiveState.h"

/// The table as lines that fit, none of them wrapped, fewer than `height`: how far the measurement
/// is, then the headends, nearest first, as many as there is room for. Names stand beside them
/// where half of the width has room for both. In a narrow window addresses keep their room as long
/// as a round trip fits beside them.
std::vector<std::string> liveTable(const LiveState& state, std::size_t width, std::size_t height);

/// How far the measurement is, in one line.
std::string liveLine(const LiveState& state);

/// Columns that a text of visible characters (UTF-8) takes on a terminal.
std::size_t columnsOf(const std::string& text);
