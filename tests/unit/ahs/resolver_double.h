#pragma once

#include <string>
#include <vector>

namespace tests {

/// What the resolver says from now on. Any thread may call it.
void setResolverPlace(const std::vector<std::string>& place);
/// From now on the resolver's settings cannot be read.
void breakResolver();

}  // namespace tests
