#pragma once

#include <string>

#include "cli/show/SelectionResult.h"

/// All headends as a table for programs: a line of names, then the delivered headends with their
/// rank, then the others. Control characters are visible, also line feeds.
/// @param separator ',' (RFC 4180, with line feeds) or '\t'.
std::string separatedOutput(const SelectionResult& result, char separator);
