// A disk that takes its time, as long as the test wants: flushes do not return before they are
// allowed to. The client is called first, what was stored is found meanwhile, and in the end it is
// in the file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "tests/host/HostScene.h"
#include "tests/support/RefusedThreads.h"
#include "vpn/Api/AHS/CacheDocument.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/AHS/StateFile.h"
#include "vpn/Common/Logging/AppLog.h"

namespace {

/// The one disk. Never destroyed: a writer may outlive the test.
class Disk {
 public:
  void Stop() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isStopped = true;
  }
  /// The next flush alone does not answer.
  void StopTheNext() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isNextStopped = true;
    m_isOneHeld = true;
  }
  void GoOn() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isStopped = false;
    m_isNextStopped = false;
    m_isOneHeld = false;
    m_changed.notify_all();
  }
  void Flush() {
    std::unique_lock<std::mutex> guard(m_lock);
    ++m_flushes;
    ++m_waiting;
    const bool isTheOne = std::exchange(m_isNextStopped, false);
    m_changed.wait(guard, [this, isTheOne] { return !m_isStopped && !(isTheOne && m_isOneHeld); });
    --m_waiting;
  }
  unsigned int Flushes() {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_flushes;
  }
  unsigned int Waiting() {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_waiting;
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_isStopped = false;
  bool m_isNextStopped = false;
  bool m_isOneHeld = false;
  unsigned int m_waiting = 0;
  unsigned int m_flushes = 0;
};

Disk& disk() {
  static Disk& instance = *new Disk;
  return instance;
}

/// What was flushed and renamed, in order: a file by its number, with the size it had then.
struct Step {
  enum class Kind { FlushFile, Rename, FlushDirectory };
  Kind kind;
  ino_t file;
  off_t size;
  bool operator==(const Step&) const = default;
};

class Steps {
 public:
  void Add(Step::Kind kind, const struct stat& status) {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_steps.push_back(
        {kind, status.st_ino, kind == Step::Kind::FlushDirectory ? 0 : status.st_size});
  }
  std::vector<Step> Take() {
    const std::lock_guard<std::mutex> guard(m_lock);
    return std::exchange(m_steps, {});
  }

 private:
  std::mutex m_lock;
  std::vector<Step> m_steps;
};

Steps& steps() {
  static Steps& instance = *new Steps;
  return instance;
}

}  // namespace

extern "C" {
int __real_fsync(int descriptor);  // NOLINT: the linker's name for it
int __wrap_fsync(int descriptor);  // NOLINT

int __wrap_fsync(int descriptor) {  // NOLINT
  disk().Flush();
  const int result = __real_fsync(descriptor);
  struct stat status {};
  if (result == 0 && fstat(descriptor, &status) == 0) {
    steps().Add(S_ISDIR(status.st_mode) ? Step::Kind::FlushDirectory : Step::Kind::FlushFile,
                status);
  }
  return result;
}

int __real_renameat(int, const char*, int, const char*);               // NOLINT
int __wrap_renameat(int from, const char*, int to, const char* name);  // NOLINT

int __wrap_renameat(int from, const char* old, int to, const char* name) {  // NOLINT
  const int result = __real_renameat(from, old, to, name);
  struct stat status {};
  if (result == 0 && fstatat(to, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    steps().Add(Step::Kind::Rename, status);
  }
  return result;
}
}

namespace tests {
namespace {

/// Flushes of one store: of the file, and of its directory.
constexpr unsigned int FlushesOfAStore = 2;

class SlowDisk : public testing::Test {
 protected:
  SlowDisk() {
    m_host.BringUp(m_gateways.Addresses());
    CAppLog::SetListener([this](const CAppLog::Record& record) {
      m_warnings += record.severity == Logging::DBG_Warning ? 1 : 0;
    });
  }
  ~SlowDisk() override {
    disk().GoOn();
    CAppLog::SetListener({});
    m_host.TakeDown();
    EXPECT_TRUE(nothingIsLeft());
  }

  bool IsInFile(const std::string& text) const {
    return readFile(m_host.CacheFile()).find(text) != std::string::npos;
  }

  static STATUSCODE Store(CSelectionCache& cache, const std::string& candidates) {
    CCacheEntry entry({CHeadendRTT("gw", 7)});
    entry.SetKnownHeadends(candidates);
    return cache.AddEntry(entry);
  }

  static bool IsFound(CSelectionCache& cache, std::string candidates) {
    CCacheEntry entry;
    return cache.IsInCache(candidates, entry);
  }

  const GatewayProcess m_gateways{{""}};
  Host m_host;
  std::atomic<unsigned int> m_warnings{0};
};

/// One acquisition, as a run holds it.
class CacheHold {
 public:
  CacheHold() { EXPECT_EQ(CSelectionCache::createSingletonInstance(m_cache), 0); }
  ~CacheHold() { m_cache->releaseInstance(); }
  CacheHold(const CacheHold&) = delete;
  CacheHold& operator=(const CacheHold&) = delete;
  CSelectionCache& operator*() const { return *m_cache; }

 private:
  CSelectionCache* m_cache = nullptr;
};

TEST_F(SlowDisk, TheClientIsCalledBeforeTheDiskHasAnswered) {
  Client client;
  disk().Stop();
  std::thread run([&client] { makeRun(client)->run(); });
  EXPECT_TRUE(client.WaitForCall());
  EXPECT_TRUE(eventually([] { return disk().Waiting() == 1; }));
  EXPECT_EQ(readFile(m_host.CacheFile()), "");
  disk().GoOn();
  run.join();
  EXPECT_TRUE(IsInFile(m_gateways.Addresses()[0]));
  EXPECT_EQ(m_warnings, 0U);
  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
}

TEST_F(SlowDisk, ARunEndsWithoutIt) {
  Client client;
  disk().Stop();
  std::thread([&client] { makeRun(client)->run(); }).join();
  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(disk().Waiting(), 1U);
  EXPECT_EQ(m_warnings, 1U);
  EXPECT_EQ(CSelectionCache::acquireInstance(), nullptr);
  disk().GoOn();
  EXPECT_TRUE(eventually([this] { return IsInFile(m_gateways.Addresses()[0]); }))
      << "what was under way goes on by itself";
}

TEST_F(SlowDisk, WhatIsStoredMeanwhileIsFoundAtOnceAndIsWrittenTogether) {
  const CacheHold cache;
  const unsigned int before = disk().Flushes();
  disk().Stop();
  for (const std::string candidates : {"first;", "second;", "third;", "fourth;"}) {
    EXPECT_EQ(Store(*cache, candidates), HEADENDSELECTION_ERROR_CACHE_FAILURE);
    EXPECT_TRUE(IsFound(*cache, candidates));
    EXPECT_TRUE(eventually([] { return disk().Waiting() == 1; }));
  }
  EXPECT_TRUE(IsFound(*cache, "first;"));
  EXPECT_EQ(readFile(m_host.CacheFile()), "");
  disk().GoOn();
  EXPECT_EQ((*cache).WaitForStores(), 0);
  for (const std::string candidates : {"first;", "second;", "third;", "fourth;"}) {
    EXPECT_TRUE(IsInFile(candidates)) << candidates;
  }
  EXPECT_EQ(disk().Flushes() - before, 2 * FlushesOfAStore);
  EXPECT_EQ(m_warnings, 0U);
}

TEST_F(SlowDisk, AHitDoesNotWaitForIt) {
  {
    const CacheHold cache;
    Store(*cache, "mine;");
  }
  // Used so long ago that the hit is to be put on record.
  std::string text = readFile(m_host.CacheFile());
  const std::size_t stamp = text.find("stored=\"") + 8;
  const unsigned long stored = std::stoul(text.substr(stamp));
  text.replace(stamp, std::to_string(stored).size(), std::to_string(stored - 86400));
  std::ofstream(m_host.CacheFile()) << text;
  {
    const CacheHold cache;
    disk().Stop();
    EXPECT_TRUE(IsFound(*cache, "mine;"));
    EXPECT_TRUE(eventually([] { return disk().Waiting() == 1; })) << "it is put on record";
    EXPECT_TRUE(IsFound(*cache, "mine;"));
    disk().GoOn();
  }
  EXPECT_TRUE(eventually([this] { return IsInFile("used=\""); }));
  EXPECT_EQ(m_warnings, 0U);
}

TEST_F(SlowDisk, ANewFileIsOnItCompleteBeforeItHasTheNameAndTheNameBeforeTheStoreIsOver) {
  const CacheHold cache;
  Store(*cache, "first;");
  ASSERT_EQ((*cache).WaitForStores(), 0);
  steps().Take();
  Store(*cache, "second;");
  ASSERT_EQ((*cache).WaitForStores(), 0);
  struct stat file {};
  struct stat directory {};
  ASSERT_EQ(stat(m_host.CacheFile().c_str(), &file), 0);
  const std::string parent = m_host.CacheFile().substr(0, m_host.CacheFile().rfind('/'));
  ASSERT_EQ(stat(parent.c_str(), &directory), 0);
  EXPECT_EQ(steps().Take(), (std::vector<Step>{{Step::Kind::FlushFile, file.st_ino, file.st_size},
                                               {Step::Kind::Rename, file.st_ino, file.st_size},
                                               {Step::Kind::FlushDirectory, directory.st_ino, 0}}));
}

TEST_F(SlowDisk, ALockRemovedWhileItIsHeldCostsNeitherProcessItsSelection) {
  const std::string path = m_host.CacheFile();
  {
    const CacheHold cache;
    Store(*cache, "theirs;");
    ASSERT_EQ((*cache).WaitForStores(), 0);
  }
  const std::string theirs = readFile(path);
  ASSERT_EQ(unlink(path.c_str()), 0);

  const CacheHold cache;
  disk().StopTheNext();
  EXPECT_EQ(Store(*cache, "mine;"), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  ASSERT_TRUE(eventually([] { return disk().Waiting() == 1; }));
  ASSERT_EQ(unlink((path + ".lock").c_str()), 0);
  {
    CStateFile file(path, CSelectionCache::MaxFileSize);
    const CStateFile::Lock lock(file, std::chrono::milliseconds(0));
    ASSERT_EQ(lock.state(), CStateFile::Locking::Held) << lock.problem();
    std::string problem;
    ASSERT_EQ(file.replace(lock, theirs, problem), CStateFile::Replacing::Done) << problem;
    EXPECT_EQ(disk().Waiting(), 1U);
    EXPECT_EQ(readFile(path), theirs);
  }
  disk().GoOn();
  EXPECT_EQ((*cache).WaitForStores(), 0);
  EXPECT_TRUE(IsInFile("mine;"));
  EXPECT_TRUE(IsInFile("theirs;"));
  EXPECT_EQ(m_warnings, 0U);
}

TEST_F(SlowDisk, WithoutAThreadASelectionIsKeptInMemoryAndTriedAgain) {
  const CacheHold cache;
  tests::refusesThreads = true;
  EXPECT_EQ(Store(*cache, "mine;"), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  EXPECT_TRUE(IsFound(*cache, "mine;"));
  EXPECT_EQ((*cache).WaitForStores(), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  EXPECT_EQ(m_warnings, 1U);
  tests::refusesThreads = false;
  EXPECT_EQ((*cache).WaitForStores(), 0);
  EXPECT_TRUE(IsInFile("mine;"));
}

}  // namespace
}  // namespace tests
