// A process that stores without a pause is killed at random moments. Whatever the moment, the cache
// file is the old one or the new one: it is read without a complaint, has everything of which the
// process was told that it is there, and what the process has left behind harms nobody.
//
// AHS_CACHE_KILLS is how often; 150 unless it is set.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
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
#include "vpn/Api/AHS/CacheDocument.h"
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
      : m_file(m_directory.File("selections.xml")),
        m_told(new (mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                         -1, 0)) Told) {}
  ~KilledProcess() override { munmap(m_told, sizeof(Told)); }

  static CCacheEntry EntryOf(const std::string& key, unsigned int metric) {
    CCacheEntry entry;
    entry.SetKnownHeadends(key);
    for (unsigned int i = 0; i < ResultsOfASelection; ++i) {
      entry.AddHeadend(CHeadendRTT("gateway-" + std::to_string(i) + ".example.com", metric));
    }
    return entry;
  }

  /// In the process: stores, until it is killed.
  [[noreturn]] void StoreForEver(unsigned int metric) {
    setResolverPlace({Place});
    PreferenceMgr::Sources sources;
    sources.cacheDirectory = m_file;
    CSelectionCache* cache = nullptr;
    if (PreferenceMgr::createInstance(sources) != 0 ||
        CSelectionCache::createSingletonInstance(cache) != 0) {
      _exit(1);
    }
    for (std::size_t i = 0;; i = (i + 1) % KeyCount) {
      CCacheEntry entry = EntryOf(keyOf(i), ++metric);
      m_told->begun[i] = metric;
      if (cache->AddEntry(entry) == 0) {
        m_told->stored[i] = metric;
      }
    }
  }

  /// The metric of a candidate set in the file; 0 without one.
  static unsigned int MetricOf(const CacheDocument::Entries& entries, const std::string& key) {
    const auto found = entries.find(CacheDocument::selectionKey(Place, key));
    if (found == entries.end()) {
      return 0;
    }
    std::vector<CHeadendRTT> headends;
    found->second.GetHeadendList(headends);
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
    CacheDocument::Contents contents;
    std::string problem;
    EXPECT_EQ(CacheDocument::parse(readFile(m_file), contents, problem), CacheDocument::Form::Right)
        << problem;
    EXPECT_EQ(MetricOf(contents.entries, SteadyKey), 1U);
    for (std::size_t i = 0; i < KeyCount; ++i) {
      const unsigned int metric = MetricOf(contents.entries, keyOf(i));
      EXPECT_GE(metric, m_told->stored[i]) << "what was stored is not there";
      EXPECT_LE(metric, m_told->begun[i]);
    }
    std::set<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(m_directory.Path())) {
      names.insert(item.path().filename().string());
    }
    const bool isLeft = std::erase_if(names, [](const std::string& name) {
                          return name.starts_with("selections.xml.new-");
                        }) != 0;
    EXPECT_EQ(names, (std::set<std::string>{"selections.xml", "selections.xml.lock"}));
    return isLeft;
  }

  void WriteSteady() const {
    setResolverPlace({Place});
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    std::string text =
        "<selectionCache version=\"2\"><selection place=\"" + std::string(Place) +
        "\" knownHeadends=\"" + SteadyKey + "\" stored=\"" +
        std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now).count()) + "\">";
    for (unsigned int i = 0; i < ResultsOfASelection; ++i) {
      text += "<headend name=\"gw\" rtt=\"1\"/>";
    }
    m_directory.Write("selections.xml", text + "</selection></selectionCache>");
    ASSERT_EQ(chmod(m_file.c_str(), 0600), 0);
  }

  const TemporaryDirectory m_directory;
  const std::string m_file;
  Told* const m_told;
};

unsigned int killsAskedFor() {
  constexpr unsigned int Unasked = 150;
  const char* const asked = std::getenv("AHS_CACHE_KILLS");
  return asked == nullptr ? Unasked : static_cast<unsigned int>(std::stoul(asked));
}

TEST_F(KilledProcess, LeavesTheOldFileOrTheNewOneAtWhicheverInstant) {
  WriteSteady();
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
