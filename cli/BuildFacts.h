#pragma once

#include <string>

/// What this `ahs` was built from and what it runs with. Nothing in it tells when or where it was
/// built, so that the same sources give the same program.
namespace BuildFacts {

/// "ahs" and the version on the first line, then a fact a line.
std::string asText();

/// The same as one JSON object.
std::string asJson();

}  // namespace BuildFacts
