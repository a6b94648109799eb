// A disk that takes its time, as long as the test wants: a file gets its name only when it is
// allowed to. The client is called first, what was stored is found meanwhile, and in the end it is
// there.

#include <gtest/gtest.h>
#include <stdio.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"

namespace {

class Disk {
 public:
  void Stop() { Set(true); }
  void GoOn() { Set(false); }
  void Write() {
    std::unique_lock<std::mutex> guard(m_lock);
    ++m_waiting;
    m_changed.wait(guard, [this] { return !m_isStopped; });
    --m_waiting;
  }
  unsigned int Waiting() {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_waiting;
  }

 private:
  void Set(bool isStopped) {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isStopped = isStopped;
    m_changed.notify_all();
  }

  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_isStopped = false;
  unsigned int m_waiting = 0;
};

Disk& disk() {
  static Disk instance;
  return instance;
}

}  // namespace

extern "C" {
int __real_rename(const char* from, const char* to);  // NOLINT: the linker's name for it
int __wrap_rename(const char* from, const char* to);  // NOLINT

int __wrap_rename(const char* from, const char* to) {  // NOLINT
  disk().Write();
  return __real_rename(from, to);
}
}

namespace tests {
namespace {

class SlowDisk : public testing::Test {
 protected:
  SlowDisk() { m_host.BringUp(m_gateways.Addresses()); }
  ~SlowDisk() override {
    disk().GoOn();
    m_host.TakeDown();
    EXPECT_TRUE(nothingIsLeft());
  }

  bool HasFile() const {
    for (const auto& file : std::filesystem::directory_iterator(m_host.CacheDirectory())) {
      if (file.path().extension() == ".xml") {
        return true;
      }
    }
    return false;
  }

  const GatewayProcess m_gateways{{""}};
  Host m_host;
};

TEST_F(SlowDisk, TheClientIsCalledBeforeTheDiskHasAnsweredAndTheRunEndsAfterIt) {
  Client client;
  disk().Stop();
  std::thread run([&client] { makeRun(client)->run(); });
  EXPECT_TRUE(client.WaitForCall());
  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_TRUE(eventually([] { return disk().Waiting() == 1; }));
  EXPECT_FALSE(HasFile());
  disk().GoOn();
  run.join();
  EXPECT_TRUE(HasFile());
}

TEST_F(SlowDisk, ASelectionThatItHasNotYetIsFoundByTheNextRun) {
  Client first;
  Client second;
  disk().Stop();
  std::thread run([&first] { makeRun(first)->run(); });
  EXPECT_TRUE(eventually([] { return disk().Waiting() == 1; }));
  std::thread next([&second] { makeRun(second)->run(); });
  EXPECT_TRUE(second.WaitForCall());
  EXPECT_EQ(second.Status(), HEADENDSELECTION_SUCCESS) << "it was measured again";
  disk().GoOn();
  run.join();
  next.join();
}

}  // namespace
}  // namespace tests
