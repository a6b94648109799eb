#pragma once

#include <string>

#include "cli/show/SelectionResult.h"

/// The ranking as a picture, an SVG element that can stand alone or in a page: one row a headend
/// with a bar for its metric and a dot for each sample, on one scale from 0; first those that were
/// delivered, in their order, then those without a metric and why. It carries its colours for light
/// and dark surroundings and refers to nothing outside. The first hundred headends are drawn, the
/// rest is counted.
std::string chartOf(const SelectionResult& result);

/// `text` as it may stand in XML, between tags or in an attribute's quotes: markup is escaped,
/// what is no UTF-8 and control characters are shown as \xNN.
std::string asXmlText(const std::string& text);
