#pragma once

#include <string>
#include <vector>

#include "vpn/Api/ProfileFile.h"

namespace tests {

/// What must hold of the problems of one file that was read from `text`: bounded in number and
/// size, one legible line each, with the file and a line that it has.
void requireHelpfulProblems(const std::vector<FileProblem>& problems, const std::string& path,
                            const std::string& text);

bool sameProblems(const std::vector<FileProblem>& a, const std::vector<FileProblem>& b);

}  // namespace tests
