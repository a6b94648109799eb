// Finds the name that a misspelt one was probably meant to be, in bounded time.

#include "vpn/Common/Utility/NearestName.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "vpn/include/StringUtils.h"

namespace {

// Names longer than this are no misspelling of ours, and the comparison takes the square of it.
constexpr std::size_t MaxNameToCompare = 64;

/// How many letters must be inserted, removed, replaced or swapped with their neighbour to turn one
/// text into the other.
std::size_t editDistance(std::string_view from, std::string_view to) {
  std::vector<std::vector<std::size_t>> cost(from.size() + 1,
                                             std::vector<std::size_t>(to.size() + 1));
  for (std::size_t i = 0; i <= from.size(); ++i) {
    for (std::size_t j = 0; j <= to.size(); ++j) {
      if (i == 0 || j == 0) {
        cost[i][j] = i + j;
        continue;
      }
      const std::size_t replaced = cost[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, replaced});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
        cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
      }
    }
  }
  return cost[from.size()][to.size()];
}

}  // namespace

const std::string* nearestName(const std::string& found,
                               const std::vector<std::string>& candidates) {
  if (found.size() > MaxNameToCompare) {
    return nullptr;
  }
  const std::string* best = nullptr;
  std::size_t bestDistance = std::numeric_limits<std::size_t>::max();
  for (const std::string& candidate : candidates) {
    const std::size_t distance =
        editDistance(CStringUtils::toLower(found), CStringUtils::toLower(candidate));
    const std::size_t tolerated = std::max<std::size_t>(1, candidate.size() / 3);
    const bool keepsALetter = distance < candidate.size();
    if (keepsALetter && distance <= tolerated && distance < bestDistance) {
      best = &candidate;
      bestDistance = distance;
    }
  }
  return best;
}
