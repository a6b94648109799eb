// A disk that takes its time, as long as the test wants: flushes do not return before they are
// allowed to. The client is called first, what was stored is found meanwhile, and in the end it is
// in the file.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/CacheDocument.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Common/Logging/AppLog.h"

namespace {

/// The one disk. Never destroyed: a writer may outlive the test.
class Disk {
 public:
  void Stop() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isStopped = true;
  }
  void GoOn() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isStopped = false;
    m_changed.notify_all();
  }
  void Flush() {
    std::unique_lock<std::mutex> guard(m_lock);
    ++m_flushes;
    ++m_waiting;
    m_changed.wait(guard, [this] { return !m_isStopped; });
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
  unsigned int m_waiting = 0;
  unsigned int m_flushes = 0;
};

Disk& disk() {
  static Disk& instance = *new Disk;
  return instance;
}

/// Whether the system has no thread to give.
std::atomic<bool> g_noThreads{false};

}  // namespace

extern "C" {
int __real_fsync(int descriptor);  // NOLINT: the linker's name for it
int __wrap_fsync(int descriptor);  // NOLINT

int __wrap_fsync(int descriptor) {  // NOLINT
  disk().Flush();
  return __real_fsync(descriptor);
}

using ThreadBody = void* (*)(void*);
// startDetachedThread
int __real__Z19startDetachedThreadPFPvS_ES_m(ThreadBody, void*, std::size_t) noexcept;  // NOLINT
int __wrap__Z19startDetachedThreadPFPvS_ES_m(ThreadBody, void*, std::size_t) noexcept;  // NOLINT

int __wrap__Z19startDetachedThreadPFPvS_ES_m(ThreadBody body, void* argument,  // NOLINT
                                             std::size_t stackSize) noexcept {
  return g_noThreads ? EAGAIN : __real__Z19startDetachedThreadPFPvS_ES_m(body, argument, stackSize);
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
  EXPECT_EQ(disk().Waiting(), 1U);
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
  EXPECT_TRUE(IsInFile("used=\""));
  EXPECT_EQ(m_warnings, 0U);
}

TEST_F(SlowDisk, WithoutAThreadASelectionIsKeptInMemoryAndTriedAgain) {
  const CacheHold cache;
  g_noThreads = true;
  EXPECT_EQ(Store(*cache, "mine;"), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  EXPECT_TRUE(IsFound(*cache, "mine;"));
  EXPECT_EQ((*cache).WaitForStores(), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  EXPECT_EQ(m_warnings, 1U);
  g_noThreads = false;
  EXPECT_EQ((*cache).WaitForStores(), 0);
  EXPECT_TRUE(IsInFile("mine;"));
}

}  // namespace
}  // namespace tests
