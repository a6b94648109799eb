#pragma once

#include <string>
#include <vector>

namespace tests {

/// Where the machine is from now on; with nothing, nobody can tell. Any thread may call these.
void setNetworkPlace(const std::vector<std::string>& place);

/// Lets connections fail, or none, and says which were tried since: "gw:443".
/// @{
void setDead(const std::string& hostAndPort);
std::vector<std::string> takeTrials();
/// @}

}  // namespace tests
