// One spelling of a candidate for the cache, and back. The texts were made by `URL`: a host or an
// address in brackets, and a port behind a colon where the address names one.

#include "vpn/Api/AHS/SelectionKey.h"

#include <algorithm>
#include <map>

#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/include/StringUtils.h"

namespace {

std::string inCacheSpelling(const std::string& headend) {
  constexpr std::string_view DefaultPort = ":443";
  std::string text = CStringUtils::toLower(headend);
  const bool hasPort = text.find(':') == text.size() - DefaultPort.size() ||
                       (text.starts_with('[') && text.find(']') != text.size() - 1);
  if (hasPort && text.ends_with(DefaultPort)) {
    text.resize(text.size() - DefaultPort.size());
  }
  return text;
}

}  // namespace

std::vector<std::string> SelectionKey::candidatesOf(const std::string& knownHeadends) {
  std::vector<std::string> candidates;
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = knownHeadends.find(';', begin)) != std::string::npos;
       begin = end + 1) {
    candidates.push_back(knownHeadends.substr(begin, end - begin));
  }
  return candidates;
}

std::string SelectionKey::canonical(const std::string& knownHeadends) {
  std::vector<std::string> candidates = candidatesOf(knownHeadends);
  std::ranges::transform(candidates, candidates.begin(), inCacheSpelling);
  std::ranges::sort(candidates);
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  std::string key;
  for (const std::string& candidate : candidates) {
    key.append(candidate).append(1, ';');
  }
  return key;
}

void SelectionKey::respell(CCacheEntry& entry, const std::string& knownHeadends,
                           const std::vector<std::string>& headends) {
  std::map<std::string, const std::string*> spellings;
  for (const std::string& headend : headends) {
    spellings.emplace(inCacheSpelling(headend), &headend);
  }
  std::vector<CHeadendRTT> results;
  static_cast<void>(entry.GetHeadendList(results));
  for (CHeadendRTT& result : results) {
    const auto found = spellings.find(inCacheSpelling(result.GetHeadend()));
    if (found != spellings.end()) {
      result = CHeadendRTT(*found->second, result.GetRTT());
    }
  }
  entry.SetHeadendList(results);
  entry.SetKnownHeadends(knownHeadends);
}
