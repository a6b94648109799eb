#pragma once

#include <string>
#include <vector>

/// The candidate that was probably meant by a misspelt name, in any letter case; null if none is
/// near. Any thread may call it.
const std::string* nearestName(const std::string& found,
                               const std::vector<std::string>& candidates);
