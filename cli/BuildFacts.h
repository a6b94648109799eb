#pragma once

#include <string>

/// What this `ahs` was built from and runs with. It tells no time or place of the build, so the
/// same sources give the same program.
namespace BuildFacts {

/// "ahs" and the version on the first line, then one fact per line.
std::string asText();

/// The same as one JSON object.
std::string asJson();

}  // namespace BuildFacts
