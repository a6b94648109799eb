#pragma once

#include <string>
#include <vector>

#include "vpn/Api/ProfileFile.h"

namespace tests {

/// A file in memory, for readers that take a path: there is one, and each text replaces the other.
/// @return its path, good in this process.
const std::string& fileOf(const std::string& text);

/// What must hold of the problems of one file that was read from `text`: bounded in number and
/// size, one legible line each, with the file and a line that it has.
void requireHelpfulProblems(const std::vector<FileProblem>& problems, const std::string& path,
                            const std::string& text);

bool sameProblems(const std::vector<FileProblem>& a, const std::vector<FileProblem>& b);

}  // namespace tests
