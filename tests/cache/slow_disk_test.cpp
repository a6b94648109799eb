// A disk that takes its time, as long as the test wants: a file gets its name only when it is
// allowed to. The client is called first, what was stored is found meanwhile, and in the end it is
// there.

#include <gtest/gtest.h>
#include <stdio.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace {

// Held while the disk does not answer, and who waits for it.
std::mutex g_disk;
std::atomic<unsigned int> g_waiting{0};

}  // namespace

extern "C" {
int __real_renameat(int in, const char* from, int out,
                    const char* to);  // NOLINT: the linker's name for it
int __wrap_renameat(int in, const char* from, int out, const char* to);  // NOLINT

int __wrap_renameat(int in, const char* from, int out, const char* to) {  // NOLINT
  ++g_waiting;
  { const std::lock_guard<std::mutex> turn(g_disk); }
  --g_waiting;
  return __real_renameat(in, from, out, to);
}
}

namespace tests {
namespace {

class SlowDisk : public testing::Test {
 protected:
  SlowDisk() { m_host.BringUp(m_gateways.Addresses()); }
  ~SlowDisk() override {
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
  std::unique_lock<std::mutex> stopped(g_disk);
  std::thread run([&client] { makeRun(client)->run(); });
  EXPECT_TRUE(client.WaitForCall());
  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_TRUE(eventually([] { return g_waiting == 1; }));
  EXPECT_FALSE(HasFile());
  stopped.unlock();
  run.join();
  EXPECT_TRUE(HasFile());
}

TEST_F(SlowDisk, ASelectionThatItHasNotYetIsFoundByTheNextRun) {
  Client first;
  Client second;
  std::unique_lock<std::mutex> stopped(g_disk);
  std::thread run([&first] { makeRun(first)->run(); });
  EXPECT_TRUE(eventually([] { return g_waiting == 1; }));
  std::thread next([&second] { makeRun(second)->run(); });
  EXPECT_TRUE(second.WaitForCall());
  EXPECT_EQ(second.Status(), HEADENDSELECTION_SUCCESS) << "it was measured again";
  stopped.unlock();
  run.join();
  next.join();
}

}  // namespace
}  // namespace tests
