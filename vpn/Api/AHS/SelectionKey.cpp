// One spelling of a candidate for the cache, and back. The texts were made by `URL`: a host or an
// address in brackets, and a port behind a colon where the address names one.

#include "vpn/Api/AHS/SelectionKey.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr std::string_view DefaultPort = ":443";

std::string_view withoutDefaultPort(std::string_view headend) {
  const bool hasPort = headend.ends_with(DefaultPort) &&
                       (headend.find(':') == headend.size() - DefaultPort.size() ||
                        (headend.starts_with('[') && headend[headend.size() - 5] == ']'));
  return headend.substr(0, headend.size() - (hasPort ? DefaultPort.size() : 0));
}

std::string inCacheSpelling(const std::string& headend) {
  return std::string(withoutDefaultPort(CStringUtils::toLower(headend)));
}

/// Whether headends, or one, certainly are in the cache's spelling; quickly, as most are.
bool isInCacheSpelling(std::string_view headends) {
  bool hasCapital = false;
  for (const char c : headends) {
    hasCapital |= c >= 'A' && c <= 'Z';
  }
  return !hasCapital && headends.find(DefaultPort) == std::string_view::npos;
}

/// Calls `take` with each candidate of a key.
void forEachCandidate(std::string_view knownHeadends, auto take) {
  for (std::size_t end = 0; (end = knownHeadends.find(';')) != std::string_view::npos;
       knownHeadends.remove_prefix(end + 1)) {
    take(knownHeadends.substr(0, end));
  }
}

}  // namespace

std::vector<std::string> SelectionKey::candidatesOf(const std::string& knownHeadends) {
  std::vector<std::string> candidates;
  forEachCandidate(knownHeadends, [&](std::string_view one) { candidates.emplace_back(one); });
  return candidates;
}

std::string SelectionKey::canonical(const std::string& knownHeadends) {
  const std::string lowered = CStringUtils::toLower(knownHeadends);
  std::vector<std::string_view> candidates;
  forEachCandidate(lowered, [&candidates](std::string_view candidate) {
    candidates.push_back(withoutDefaultPort(candidate));
  });
  // A run's key has the candidates in descending order of their entries' names.
  std::ranges::reverse(candidates);
  if (!std::ranges::is_sorted(candidates)) {
    std::ranges::sort(candidates);
  }
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  std::string key;
  key.reserve(lowered.size());
  for (const std::string_view candidate : candidates) {
    key.append(candidate).append(1, ';');
  }
  return key;
}

void SelectionKey::respell(CCacheEntry& entry, const std::string& knownHeadends,
                           const std::vector<std::string>& headends) {
  entry.SetKnownHeadends(knownHeadends);
  const auto spelling = [](const CHeadendRTT& result) {
    return std::string_view(result.headend());
  };
  if (isInCacheSpelling(knownHeadends) && std::ranges::all_of(headends, isInCacheSpelling) &&
      std::ranges::all_of(entry.headends(), isInCacheSpelling, spelling)) {
    return;
  }
  std::unordered_map<std::string, const std::string*> spellings;
  const std::vector<std::string> known = headends.empty() ? candidatesOf(knownHeadends) : headends;
  for (const std::string& headend : known) {
    spellings.emplace(inCacheSpelling(headend), &headend);
  }
  std::vector<CHeadendRTT> results = entry.headends();
  for (CHeadendRTT& result : results) {
    const auto found = spellings.find(inCacheSpelling(result.headend()));
    if (found != spellings.end()) {
      result = CHeadendRTT(*found->second, result.GetRTT());
    }
  }
  entry.SetHeadendList(results);
}
