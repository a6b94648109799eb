#pragma once

#include <string>

#include "cli/show/SelectionResult.h"

/// The ranking as an SVG element for a page or a file of its own. Each headend has a row with a bar
/// for its metric and a dot for each sample, on one scale from 0: first the delivered headends in
/// their order, then those without a metric and why. It has light and dark colours and no external
/// references. Draws the first hundred headends and counts the rest.
std::string chartOf(const SelectionResult& result);

/// A result as one HTML page without external references and scripts: the decision in words, the
/// chart, a table of all headends with their samples and the times of their nearest probe, and the
/// explanation. It has light and dark colours.
/// @param when the time of the selection, as text.
std::string pageOf(const SelectionResult& result, const std::string& when);
