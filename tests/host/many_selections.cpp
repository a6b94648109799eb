// Makes selections of every kind one after another in one process. Between them it checks the
// memory, threads and descriptors that the process holds. After a warm-up, in which other libraries
// fill their caches, none may grow with the number of selections.
//
// Figures are taken between rounds, when the client library is stopped and nothing of it should be
// left. Compares the median of the second fifth with that of the last, so that a single bad figure
// decides nothing. A leak of only 100 bytes per selection shows after a thousand.
//
// Usage: many_selections [--warm-up RUNS] [--runs RUNS]
// Exit status: 0 all is level, 1 something grew, 2 a selection went wrong. Rounds may add a few
// selections; fewer than ten rounds are not compared.

#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/host/HostScene.h"

namespace {

/// What the process holds, and the permitted difference after any number of selections. Threads and
/// descriptors are exact. The heap varies with what other libraries keep of the last transfers;
/// resident memory varies with the allocator's arenas that late threads touch.
struct Quantity {
  const char* name;
  long allowance;
};
constexpr Quantity Quantities[] = {
    {"resident KiB", 2048}, {"heap KiB", 16}, {"threads", 0}, {"descriptors", 0}};
using Figures = std::array<long, std::size(Quantities)>;

// A sanitizer's allocator keeps freed blocks, and a sanitizer has its own threads.
#if defined(__has_feature) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr bool MemoryCounts = !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool MemoryCounts = false;
#else
constexpr bool MemoryCounts = true;
#endif

long countEntries(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return std::distance(begin(entries), end(entries));
}

long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    if (word == "VmRSS:") {
      long value = 0;
      status >> value;
      return value;
    }
  }
  throw std::runtime_error("no VmRSS");
}

/// Measures after every thread of a selection has left the process: the kernel needs a moment to
/// remove a detached one.
Figures measure(long ownThreads) {
  if (!tests::nothingIsLeft()) {
    throw std::runtime_error("a selection left something behind");
  }
  constexpr const char* Threads = "/proc/self/task";
  tests::eventually([ownThreads] { return countEntries(Threads) <= ownThreads; });
  constexpr std::size_t BytesOfAKiB = 1024;
  return {residentKiB(), static_cast<long>(mallinfo2().uordblks / BytesOfAKiB),
          countEntries(Threads), countEntries("/proc/self/fd")};
}

/// The main thread, and the one that a sanitizer starts with the first other thread.
long countOwnThreads() {
  std::thread([] {}).join();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until it has left the process
  return countEntries("/proc/self/task");
}

/// The median of one quantity; of an even number the lower of the two in the middle.
long median(const std::vector<Figures>& all, std::size_t from, std::size_t count, std::size_t of) {
  std::vector<long> values;
  for (std::size_t i = from; i < from + count; ++i) {
    values.push_back(all[i][of]);
  }
  std::ranges::sort(values);
  return values[(count - 1) / 2];
}

bool isLevel(const std::vector<Figures>& all) {
  const std::size_t fifth = all.size() / 5;
  bool level = true;
  for (std::size_t i = 0; i < std::size(Quantities); ++i) {
    const auto& [name, allowance] = Quantities[i];
    const long early = median(all, fifth, fifth, i);
    const long late = median(all, all.size() - fifth, fifth, i);
    const bool counts = MemoryCounts || allowance == 0;
    const bool within = late - early <= allowance;
    std::printf("%-14s %8ld %8ld   %+ld, allowed +%ld%s\n", name, early, late, late - early,
                allowance, !counts ? ", not compared" : (within ? "" : ": NOT LEVEL"));
    level = level && (within || !counts);
  }
  return level;
}

long option(int argc, char** argv, const char* name, long value) {
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], name) == 0) {
      value = std::atol(argv[i + 1]);
    }
  }
  return value;
}

int makeSelections(long warmUp, long count) {
  const long ownThreads = countOwnThreads();
  tests::Rounds rounds;
  std::vector<Figures> all;
  // The reserve comes first: the vector shall not be part of what it lists.
  all.reserve(static_cast<std::size_t>(std::max(count, 0L)) + 1);
  long runs = 0;
  while (runs < warmUp) {
    runs += rounds.MakeOne();
  }
  for (runs = 0; runs < count;) {
    runs += rounds.MakeOne();
    all.push_back(measure(ownThreads));
  }
  constexpr std::size_t FewestToCompare = 10;
  std::printf("%zu samples in %ld selections; medians of the second and of the last fifth\n",
              all.size(), runs);
  return all.size() < FewestToCompare || isLevel(all) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return makeSelections(option(argc, argv, "--warm-up", 200), option(argc, argv, "--runs", 300));
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "many_selections: %s\n", problem.what());
    return 2;
  }
}
