// Secrets in freed memory. This program's own operator delete looks at every block before it is
// given back; none may still hold the password or the user name that the test made up.

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "tests/unit/selection/selection_fixture.h"

namespace {

// Longer than what a string keeps inside itself, so that each copy has a block of its own.
constexpr char Marker[] = "swordfish-swordfish";
std::string userName() { return std::string(Marker) + "-as-the-name-of-a-user"; }
std::string password() { return std::string(Marker) + "-as-the-password-of-that-user"; }

std::atomic<bool> watching{false};
std::atomic<int> leaks{0};
std::atomic<const void*> userBlock{nullptr};
std::atomic<const void*> pswdBlock{nullptr};
std::atomic<int> blocksFreed{0};

// Not instrumented: a block's slack behind what was asked for is not the program's to read.
__attribute__((no_sanitize("address", "thread", "undefined"))) bool holdsMarker(
    const void* block, std::size_t size) noexcept {
  const auto* bytes = static_cast<const char*>(block);
  constexpr std::size_t length = sizeof Marker - 1;
  for (std::size_t i = 0; i + length <= size; ++i) {
    std::size_t same = 0;
    while (same < length && bytes[i + same] == Marker[same]) {
      ++same;
    }
    if (same == length) {
      return true;
    }
  }
  return false;
}

void inspect(void* block) noexcept {
  if (block == nullptr || !watching) {
    return;
  }
  if (holdsMarker(block, malloc_usable_size(block))) {
    ++leaks;
  }
  if (block == userBlock || block == pswdBlock) {
    ++blocksFreed;
  }
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* const block = std::malloc(size == 0 ? 1 : size)) {
    return block;
  }
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* block) noexcept {
  inspect(block);
  std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}

namespace tests {
namespace {

using doubles::preferences;
using doubles::probes;
using doubles::timers;

/// A provider that keeps its credentials out of the watched memory.
class DiscreetProvider : public ProxyIfc {
 public:
  UnprotectedCredential getProxyUser() override { return make(true); }
  UnprotectedCredential getProxyPswd() override { return make(false); }
  std::string getProxyHost() override { return {}; }
  ProxyType getProxyType() override { return BasicProxy; }

 private:
  static UnprotectedCredential make(bool user) {
    UnprotectedCredential credential;
    credential = Marker;
    credential += user ? "-as-the-name-of-a-user" : "-as-the-password-of-that-user";
    return credential;
  }
};

class Secrets : public SelectionTest {
 protected:
  Secrets() {
    preferences().useAddresses({"gw1"});
    make();
    run->SetProxy(new DiscreetProvider);
    leaks = 0;
    blocksFreed = 0;
    userBlock = nullptr;
    pswdBlock = nullptr;
  }

  void TearDown() override {
    watching = false;
    SelectionTest::TearDown();
  }

  /// The probe double's own note of the credentials is not the product's; it is wiped by hand.
  void answerTestWatching(unsigned int httpStatus) {
    probes().answerTest({.httpStatus = httpStatus, .during = [] {
                           const auto call = probes().testCalls().back();
                           userBlock = call.userBuffer;
                           pswdBlock = call.pswdBuffer;
                         }});
  }
};

TEST_F(Secrets, TheWatchOnFreedMemoryWorks) {
  watching = true;
  {
    const std::string secret = password();
    // A compiler may leave out an allocation that nobody sees.
    asm volatile("" : : "r"(secret.data()) : "memory");
  }
  watching = false;

  EXPECT_GT(leaks, 0);
}

TEST_F(Secrets, ACredentialAndAProxyRecordLeaveNothingInFreedMemory) {
  watching = true;
  {
    DiscreetProvider provider;
    const ProxyIfc::UnprotectedCredential user = provider.getProxyUser();
    PROXY_DATA record;
    record.proxyUser = user.c_str();
    record.proxyPswd = provider.getProxyPswd().c_str();
    EXPECT_EQ(record.proxyUser.compare(0, sizeof Marker - 1, Marker), 0);
    const PROXY_DATA copy = record;
    EXPECT_EQ(copy.proxyPswd.size(), record.proxyPswd.size());
  }
  watching = false;

  EXPECT_EQ(leaks, 0);
}

TEST_F(Secrets, ARecordThatSharedItsTextWithOthersWipesOnlyItsOwn) {
  const std::string user = userName();
  const std::string pswd = password();
  {
    PROXY_DATA record;
    record.proxyUser = user;
    record.proxyPswd = pswd;
  }
  EXPECT_EQ(user, userName());
  EXPECT_EQ(pswd, password());
}

TEST_F(Secrets, AreGoneBeforeTheTestProbesTimeIsLogged) {
  answerTestWatching(200);
  int freedAtTheLine = -1;
  int leaksAtTheLine = -1;
  doubles::log().setHook([&](const doubles::LogLine& line) {
    if (line.format == "QIB test ping took %d") {
      freedAtTheLine = blocksFreed;
      leaksAtTheLine = leaks;
    }
  });
  probes().setForgetful(true);
  watching = true;
  std::string extraInfo;
  EXPECT_EQ(call<StartPingThreads>(*run, extraInfo), 0);
  watching = false;

  EXPECT_EQ(freedAtTheLine, 2) << "user and password of the record";
  EXPECT_EQ(leaksAtTheLine, 0);
  EXPECT_EQ(leaks, 0);
}

TEST_F(Secrets, AreGoneWhenAnAuthenticatingProxyEndsTheMeasurement) {
  answerTestWatching(407);
  probes().setForgetful(true);
  watching = true;
  std::string extraInfo;
  EXPECT_EQ(call<StartPingThreads>(*run, extraInfo), 0xFE53000A);
  watching = false;

  EXPECT_EQ(blocksFreed, 2);
  EXPECT_EQ(leaks, 0);
}

TEST_F(Secrets, OfTheRunsOwnProxyRecordGoWithTheRun) {
  member<ProxyData>(*run).proxyUser = userName().c_str();
  member<ProxyData>(*run).proxyPswd = password().c_str();
  leaks = 0;
  watching = true;
  destroy();
  watching = false;

  EXPECT_EQ(leaks, 0);
}

}  // namespace
}  // namespace tests
