#pragma once

#include <string>
#include <vector>

class CCacheEntry;

/// Candidate sets as the cache knows them: order and spelling of the same candidates do not matter.
/// Functions of their arguments; any thread may call them.
namespace SelectionKey {

/// The known-headends key of a set in the cache's spelling: each candidate once, in order, in lower
/// case, without the default port.
std::string canonical(const std::string& knownHeadends);

/// The candidates of a known-headends key; each of them ends with a semicolon there.
std::vector<std::string> candidatesOf(const std::string& knownHeadends);

/// Spells the results of an entry, and its key, as a run spells its candidates.
/// @param headends as the run delivers them; none: as in the key.
void respell(CCacheEntry& entry, const std::string& knownHeadends,
             const std::vector<std::string>& headends);

}  // namespace SelectionKey
