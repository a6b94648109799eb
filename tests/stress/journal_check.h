#pragma once

#include <string>

#include "tests/stress/stage.h"

namespace stress {

/// Compares what happened in a run, and what its client was told, with what its scenario allows.
/// To be called when no thread of the run is left.
/// @return empty, or what is wrong.
std::string findProblem(const Stage& stage);

}  // namespace stress
