// How long a store into the selection cache holds up the end of a selection: the time in AddEntry,
// with the file on the disk that the directory is on, and the time in the last release, which comes
// after the client's callback. Prints one line a figure, in microseconds.
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
  // Ten candidate sets in turn, as of someone with some profiles.
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
  sources.cacheDirectory = std::string(argv[1]) + "/selections.xml";
  if (PreferenceMgr::createInstance(sources) != 0) {
    return EXIT_FAILURE;
  }
  Times inStore;
  Times inRelease;
  std::size_t later = 0;
  for (std::size_t round = 0; round < stores; ++round) {
    CSelectionCache* cache = nullptr;
    if (CSelectionCache::createSingletonInstance(cache) != 0) {
      return EXIT_FAILURE;
    }
    CCacheEntry entry = entryOf(headends, round);
    inStore.push_back(timeOf([&] { later += cache->AddEntry(entry) == 0 ? 0 : 1; }));
    inRelease.push_back(timeOf([&] { cache->releaseInstance(); }));
  }
  std::cout << stores << " stores of " << headends << " headends, " << later
            << " of them not in the file when the client is called\n";
  print("held up by AddEntry", inStore);
  print("held up by the last release", inRelease);
  return EXIT_SUCCESS;
}
