#pragma once

#include <string>
#include <vector>

#include "vpn/Api/ProfileFile.h"

namespace tests {

/// What reading a text as a file gave.
struct Reading {
  std::string file;  ///< in memory: there is one, and each text replaces the other
  bool usable = false;
  ProfileFile contents;
  std::vector<FileProblem> problems;
};

/// Reads a text, which must give the same each time, and of its problems this: bounded in number
/// and size, one legible line each, with the file and a line that it has.
Reading requireReading(ConfigurationKind kind, const std::string& text);

}  // namespace tests
