// A process that stores without a pause is killed at random moments. Whatever the moment, the file
// of the selection is the old one or the new one: it is read without a complaint, has what the
// process was told that it has, and what the process has left half-written is never read.
//
// AHS_CACHE_KILLS is how often; 150 unless it is set.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <set>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/unit/ahs/resolver_double.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/PreferenceMgr.h"

namespace tests {
namespace {

constexpr const char* Place = "nameserver 192.0.2.1";
constexpr const char* Key = "gateways;";
/// So that a file is some pages long.
constexpr unsigned int ResultsOfASelection = 100;

/// What the process that is killed tells, in memory that outlives it: the metric that it is about
/// to store, and the one that it knows to be in the file.
struct Told {
  std::atomic<unsigned int> begun{0};
  std::atomic<unsigned int> stored{0};
};

void store(unsigned int metric) {
  CCacheEntry entry;
  entry.SetKnownHeadends(Key);
  for (unsigned int i = 0; i < ResultsOfASelection; ++i) {
    entry.AddHeadend(CHeadendRTT("gateway-" + std::to_string(i) + ".example.com", metric));
  }
  CSelectionCache* cache = nullptr;
  if (CSelectionCache::createSingletonInstance(cache) != 0 || cache->AddEntry(entry) != 0) {
    _exit(1);
  }
  cache->releaseInstance();
}

/// The metric that a selection's file has for all its headends.
unsigned int metricIn(const std::string& directory) {
  CCacheEntry entry;
  std::string problem;
  const bool isRead =
      SelectionFiles::read(directory, std::string(Place) + '\n' + Key, entry, problem);
  EXPECT_EQ(problem, "");
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  EXPECT_EQ(headends.size(), isRead ? ResultsOfASelection : 0);
  std::set<unsigned int> metrics;
  for (const CHeadendRTT& headend : headends) {
    metrics.insert(headend.GetRTT());
  }
  EXPECT_LE(metrics.size(), 1U) << "half of one store, half of another";
  return metrics.empty() ? 0 : *metrics.begin();
}

TEST(KilledProcess, LeavesTheOldFileOrTheNewOneAtWhicheverInstant) {
  const char* const asked = std::getenv("AHS_CACHE_KILLS");
  const unsigned long kills = asked == nullptr ? 150 : std::stoul(asked);
  const TemporaryDirectory directory;
  Told& told = *new (
      mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Told;
  setResolverPlace({Place});
  PreferenceMgr::Sources sources;
  sources.cacheDirectory = directory.Path();
  EXPECT_EQ(PreferenceMgr::createInstance(sources), 0);
  std::mt19937 random(20240229);
  std::uniform_int_distribution<int> delay(0, 30000);
  unsigned int left = 0;
  for (unsigned int i = 0; i < kills && !testing::Test::HasFailure(); ++i) {
    const unsigned int first = (i + 1) * 1000000;  // more than one child stores
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (unsigned int metric = first + 1;; ++metric) {
        told.begun = metric;
        store(metric);
        told.stored = metric;
      }
    }
    // From when the first store is about to begin: before that there is nothing to disturb.
    EXPECT_TRUE(eventually([&] { return told.begun > first; }));
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;

    const unsigned int metric = metricIn(directory.Path());
    EXPECT_GE(metric, told.stored) << "what was stored is not there";
    EXPECT_LE(metric, told.begun);
    std::string problem;
    EXPECT_EQ(SelectionFiles::list(directory.Path(), problem).size(), metric != 0 ? 1U : 0U);
    EXPECT_EQ(problem, "");
    for (const auto& item : std::filesystem::directory_iterator(directory.Path())) {
      if (item.path().extension() != ".xml") {
        std::filesystem::remove(item.path());
        ++left;
      }
    }
  }
  std::cout << kills << " kills; " << left << " in the middle of a text" << std::endl;
  EXPECT_GT(left, 0U) << "no kill has struck a store";
}

}  // namespace
}  // namespace tests
