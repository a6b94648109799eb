// A process that stores without a pause is killed at random moments. Whatever the moment, the file
// of each selection is the old one or the new one: it is read without a complaint, has what the
// process was told that it has, and what the process has left half-written is never read.
//
// AHS_CACHE_KILLS is how often; 150 unless it is set.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
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
/// Candidate sets that the process stores in turn; another one it never touches.
constexpr std::size_t KeyCount = 8;
constexpr const char* SteadyKey = "steady;";
/// So that a file is some pages long.
constexpr unsigned int ResultsOfASelection = 100;

std::string keyOf(std::size_t number) { return "set-" + std::to_string(number) + ";"; }

/// What the process that is killed tells of each candidate set, in memory that outlives it: the
/// metric that it is about to store, and the one that it knows to be in the file.
struct Told {
  std::array<std::atomic<unsigned int>, KeyCount> begun{};
  std::array<std::atomic<unsigned int>, KeyCount> stored{};
};

class KilledProcess : public testing::Test {
 protected:
  KilledProcess()
      : m_told(new (mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                         -1, 0)) Told) {
    setResolverPlace({Place});
    PreferenceMgr::Sources sources;
    sources.cacheDirectory = m_directory.Path();
    EXPECT_EQ(PreferenceMgr::createInstance(sources), 0);
    Store(SteadyKey, 1);
  }
  ~KilledProcess() override { munmap(m_told, sizeof(Told)); }

  static void Store(const std::string& key, unsigned int metric) {
    CCacheEntry entry;
    entry.SetKnownHeadends(key);
    for (unsigned int i = 0; i < ResultsOfASelection; ++i) {
      entry.AddHeadend(CHeadendRTT("gateway-" + std::to_string(i) + ".example.com", metric));
    }
    CSelectionCache* cache = nullptr;
    if (CSelectionCache::createSingletonInstance(cache) != 0 || cache->AddEntry(entry) != 0) {
      _exit(1);
    }
    cache->releaseInstance();
  }

  /// In the process: stores, until it is killed.
  [[noreturn]] void StoreForEver(unsigned int metric) {
    for (std::size_t i = 0;; i = (i + 1) % KeyCount) {
      m_told->begun[i] = ++metric;
      Store(keyOf(i), metric);
      m_told->stored[i] = metric;
    }
  }

  /// The metric of a candidate set in its file; 0 without one.
  unsigned int MetricOf(const std::string& key) {
    CCacheEntry entry;
    std::string problem;
    if (!SelectionFiles::read(m_directory.Path(), std::string(Place) + '\n' + key, entry,
                              problem)) {
      EXPECT_EQ(problem, "");
      return 0;
    }
    std::vector<CHeadendRTT> headends;
    entry.GetHeadendList(headends);
    EXPECT_EQ(headends.size(), ResultsOfASelection);
    std::set<unsigned int> metrics;
    for (const CHeadendRTT& headend : headends) {
      metrics.insert(headend.GetRTT());
    }
    EXPECT_EQ(metrics.size(), 1U) << "half of one store, half of another";
    return *metrics.begin();
  }

  /// What is there after a kill. @return whether a text under way was left behind.
  bool Check() {
    EXPECT_EQ(MetricOf(SteadyKey), 1U);
    std::size_t there = 1;
    for (std::size_t i = 0; i < KeyCount; ++i) {
      const unsigned int metric = MetricOf(keyOf(i));
      EXPECT_GE(metric, m_told->stored[i]) << "what was stored is not there";
      EXPECT_LE(metric, m_told->begun[i]);
      there += metric != 0 ? 1 : 0;
    }
    std::string problem;
    EXPECT_EQ(SelectionFiles::list(m_directory.Path(), problem).size(), there);
    EXPECT_EQ(problem, "");
    bool isLeft = false;
    for (const auto& item : std::filesystem::directory_iterator(m_directory.Path())) {
      if (item.path().extension() != ".xml") {
        std::filesystem::remove(item.path());  // else the steady one has to make room in the end
        isLeft = true;
      }
    }
    return isLeft;
  }

  const TemporaryDirectory m_directory;
  Told* const m_told;
};

unsigned int killsAskedFor() {
  constexpr unsigned int Unasked = 150;
  const char* const asked = std::getenv("AHS_CACHE_KILLS");
  return asked == nullptr ? Unasked : static_cast<unsigned int>(std::stoul(asked));
}

TEST_F(KilledProcess, LeavesTheOldFileOrTheNewOneAtWhicheverInstant) {
  const unsigned int kills = killsAskedFor();
  std::mt19937 random(20240229);
  std::uniform_int_distribution<int> delay(0, 30000);
  unsigned int left = 0;
  unsigned int stores = 0;
  for (unsigned int i = 0; i < kills && !HasFailure(); ++i) {
    const unsigned int firstMetric = (i + 1) * 1000000;  // more than one child stores
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      StoreForEver(firstMetric);
    }
    // From when the first store is about to begin: before that there is nothing to disturb.
    EXPECT_TRUE(eventually([&] { return m_told->begun[0] > firstMetric; }));
    const unsigned int moment = static_cast<unsigned int>(delay(random));
    std::this_thread::sleep_for(std::chrono::microseconds(moment));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    SCOPED_TRACE("kill " + std::to_string(i) + ", " + std::to_string(moment) + " us after a store");
    left += Check() ? 1 : 0;
    stores += m_told->stored[0] > firstMetric ? 1 : 0;
  }
  std::cout << kills << " kills; " << left << " in the middle of a text, " << stores
            << " after a store was done" << std::endl;
  EXPECT_GT(left, 0U) << "no kill has struck a store";
}

}  // namespace
}  // namespace tests
