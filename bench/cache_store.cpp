// What a selection costs the cache: the store, for which the end of a selection waits; the release,
// which writes the file after the client's callback; the look-up, which reads it. Prints one figure
// per line, in microseconds.
// Usage: bench-cache-store DIRECTORY [STORES [HEADENDS]]

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/PreferenceMgr.h"

namespace {

using Times = std::vector<long>;

constexpr std::size_t UsualStores = 400;
constexpr unsigned int UsualHeadends = 1000;

CCacheEntry entryOf(unsigned int headends, std::size_t round) {
  CCacheEntry entry;
  // Ten candidate sets in turn, like a user with several profiles.
  entry.SetKnownHeadends("set-" + std::to_string(round % 10) + ";");
  for (unsigned int i = 0; i < headends; ++i) {
    entry.AddHeadend(CHeadendRTT("gateway-" + std::to_string(i) + ".example.com", i));
  }
  return entry;
}

template <class Body>
long timeOf(const Body& body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(
                               std::chrono::steady_clock::now() - start)
                               .count());
}

void print(const char* what, Times times) {
  std::sort(times.begin(), times.end());
  const auto at = [&times](std::size_t percent) {
    return times[std::min(times.size() - 1, times.size() * percent / 100)];
  };
  std::cout << what << ": median " << at(50) << ", 95 % " << at(95) << ", most " << times.back()
            << " us\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: bench-cache-store DIRECTORY [STORES [HEADENDS]]\n";
    return EXIT_FAILURE;
  }
  const std::size_t stores = argc > 2 ? std::stoul(argv[2]) : UsualStores;
  const auto headends = argc > 3 ? static_cast<unsigned int>(std::stoul(argv[3])) : UsualHeadends;
  PreferenceMgr::Sources sources;
  sources.cacheDirectory = argv[1];
  if (PreferenceMgr::createInstance(sources) != 0) {
    return EXIT_FAILURE;
  }
  Times inStore;
  Times inRelease;
  Times inHit;
  for (std::size_t round = 0; round < stores; ++round) {
    CSelectionCache* cache = nullptr;
    CCacheEntry entry = entryOf(headends, round);
    std::string key = entry.GetKnownHeadends();
    bool isStored = CSelectionCache::createSingletonInstance(cache) == 0;
    inStore.push_back(timeOf([&] { isStored = isStored && cache->AddEntry(entry) == 0; }));
    inRelease.push_back(timeOf([&] { cache->releaseInstance(); }));
    isStored = isStored && CSelectionCache::createSingletonInstance(cache) == 0;
    inHit.push_back(timeOf([&] { isStored = isStored && cache->IsInCache(key, entry); }));
    if (!isStored) {
      std::cerr << "the cache does not work\n";
      return EXIT_FAILURE;
    }
    cache->releaseInstance();
  }
  std::cout << stores << " stores of " << headends << " headends\n";
  print("store", inStore);
  print("release with its write", inRelease);
  print("hit from the file", inHit);
  return EXIT_SUCCESS;
}
