// A process that stores without a pause is killed at random moments. Whatever the moment, the file
// of the selection is the old one or the new one: it is read without a complaint, has what the
// process was told that it has, and what the process has left half-written is never read. Every
// other process dies when its new file is about to take the old one's place, which a random moment
// seldom strikes where the disk is fast.
//
// AHS_CACHE_KILLS is how often; 150 unless it is set.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/unit/ahs/cache_fixture.h"

namespace {

bool diesAtRename = false;  // in the process that stores

}  // namespace

/// In place of the C library's.
extern "C" int renameat(int from, const char* name, int to, const char* newName) noexcept {
  if (diesAtRename) {
    raise(SIGKILL);
  }
  return static_cast<int>(syscall(SYS_renameat2, from, name, to, newName, 0));
}

namespace tests {
namespace {

constexpr const char* Key = "gateways;";

/// What the process that is killed tells, in memory that outlives it: the metric that it is about
/// to store, and the one that it knows to be in the file.
struct Told {
  std::atomic<unsigned int> begun{0};
  std::atomic<unsigned int> stored{0};
};

/// So many that a file is some pages long.
Records recordsWith(unsigned int metric) {
  Records records;
  for (unsigned int i = 0; i < 100; ++i) {
    records.emplace_back("gateway-" + std::to_string(i) + ".example.com", metric);
  }
  return records;
}

class KilledProcess : public CacheTest {};

TEST_F(KilledProcess, LeavesTheOldFileOrTheNewOneAtWhicheverInstant) {
  const char* const asked = std::getenv("AHS_CACHE_KILLS");
  const unsigned long kills = asked == nullptr ? 150 : std::stoul(asked);
  Told& told = *new (
      mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Told;
  std::mt19937 random(20240229);
  std::uniform_int_distribution<int> delay(0, 30000);
  unsigned int left = 0;
  for (unsigned int i = 0; i < kills && !HasFailure(); ++i) {
    const unsigned int first = (i + 1) * 1000000;  // more than one child stores
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (unsigned int metric = first + 1;; ++metric) {
        told.begun = metric;
        diesAtRename = i % 2 == 1 && metric > first + i % 4;
        if (store(Key, recordsWith(metric)) != 0) {
          _exit(1);
        }
        told.stored = metric;
      }
    }
    // From when the first store is about to begin: before that there is nothing to disturb.
    EXPECT_TRUE(eventually([&] { return told.begun > first; }));
    if (i % 2 == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
      kill(child, SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;

    const Records found = find(Key);
    const unsigned int metric = found.empty() ? 0 : found.front().second;
    EXPECT_GE(metric, told.stored) << "what was stored is not there";
    EXPECT_LE(metric, told.begun);
    EXPECT_EQ(found, metric != 0 ? recordsWith(metric) : Records{});
    EXPECT_THAT(m_warnings, testing::IsEmpty());
    for (const std::string& name : names()) {
      left += name.ends_with(".xml") ? 0 : std::filesystem::remove(m_directory + "/" + name);
    }
    EXPECT_EQ(names().size(), found.empty() ? 0U : 1U);
  }
  std::cout << kills << " kills; " << left << " in the middle of a text" << std::endl;
  EXPECT_GE(left, kills / 2) << "too few kills have struck a store";
}

}  // namespace
}  // namespace tests
