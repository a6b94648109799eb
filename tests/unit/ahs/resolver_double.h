#pragma once

#include <string>
#include <vector>

namespace tests {

/// What the resolver says from now on; with nothing, its settings cannot be read. Any thread may
/// call it.
void setResolverPlace(const std::vector<std::string>& place);

}  // namespace tests
