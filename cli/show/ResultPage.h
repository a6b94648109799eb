#pragma once

#include <string>

#include "cli/show/SelectionResult.h"

/// The ranking as a picture, an SVG element that can stand alone or in a page: one row a headend
/// with a bar for its metric and a dot for each sample, on one scale from 0; first those that were
/// delivered, in their order, then those without a metric and why. It carries its colours for light
/// and dark surroundings and refers to nothing outside. The first hundred headends are drawn, the
/// rest is counted.
std::string chartOf(const SelectionResult& result);

/// A result as one HTML page that refers to nothing outside and runs no script: the decision in
/// words, the chart, a table of all headends with their samples and the times of their nearest
/// probe, and the explanation. Fit for light and dark surroundings.
/// @param when the time of the selection, as it is to be shown.
std::string pageOf(const SelectionResult& result, const std::string& when);
