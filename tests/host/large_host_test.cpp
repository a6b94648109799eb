// A host that needs much: 1 MiB of thread-local storage in each thread, and 4 MiB of stack in its
// callback.

#include <gtest/gtest.h>

#include <cstring>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

constexpr std::size_t MiB = std::size_t{1024} * 1024;

thread_local char storage[MiB];

[[gnu::noinline]] void useStack() {
  char frame[4 * MiB];
  char* volatile used = frame;  // not to be optimised away
  memset(used, 1, sizeof frame);
  memset(storage, 1, sizeof storage);
}

TEST(LargeHost, IsServedWithItsThreadLocalStorageAndItsStack) {
  const GatewayProcess gateways(std::vector<std::string>(10));
  Host host;
  host.BringUp(gateways.Addresses());
  Client client(useStack);
  executeRun(makeRun(client));
  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(client.Calls().front().headends.size(), 10U);
}

}  // namespace
}  // namespace tests
