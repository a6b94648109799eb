#pragma once

#include <string>

#include "cli/show/SelectionResult.h"

/// A result as one HTML page that refers to nothing outside and runs no script: the decision in
/// words, the chart, a table of all headends with their samples and the times of their nearest
/// probe, and the explanation. Fit for light and dark surroundings.
/// @param when the time of the selection, as it is to be shown.
std::string pageOf(const SelectionResult& result, const std::string& when);
