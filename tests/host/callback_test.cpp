// What a client's callback may do to the process: throw, end its thread, never return, start runs.
// The client may be deleted as soon as `run` has returned.

#include <gtest/gtest.h>
#include <pthread.h>

#include <stdexcept>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Utility/ExecutionContext.h"

namespace tests {
namespace {

TEST(MisbehavingCallback, LeavesTheProcessAndLaterRunsUnharmed) {
  const HeldGateway gateway(HeldGateway::All);
  const std::pair<const char*, void (*)()> rows[] = {
      {"throws an exception", [] { throw std::runtime_error("no"); }},
      {"throws a number", [] { throw 4711; }},
      {"ends its thread", [] { pthread_exit(nullptr); }}};
  for (const auto& [name, misbehaviour] : rows) {
    SCOPED_TRACE(name);
    Host host;
    host.BringUp({gateway.Address()});
    Client bad(misbehaviour);
    Client good;
    executeRun(makeRun(bad));
    host.ForgetSelections();
    executeRun(makeRun(good));
    host.TakeDown();
    EXPECT_EQ(bad.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    EXPECT_EQ(good.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    EXPECT_TRUE(nothingIsLeft());
  }
}

/// A client whose callback outlasts the test's checks; its run waits on a thread.
class EndlessCallback : public testing::Test {
 protected:
  EndlessCallback() {
    m_host.BringUp({m_gateway.Address()});
    m_endlessRun = std::thread([this] { makeRun(m_endless)->run(); });
    EXPECT_TRUE(m_endless.WaitForCall());
  }

  ~EndlessCallback() override {
    m_mayReturn = true;
    m_endlessRun.join();
    m_host.TakeDown();
    EXPECT_TRUE(nothingIsLeft());
  }

  HeldGateway m_gateway{HeldGateway::All};
  Host m_host;
  std::atomic<bool> m_mayReturn{false};
  Client m_endless{[this] { eventually([this] { return m_mayReturn.load(); }); }};
  std::thread m_endlessRun;
};

TEST_F(EndlessCallback, HoldsUpNoOtherRunNorTheTakingDownOfTheLibrary) {
  Client fromCache;
  executeRun(makeRun(fromCache));
  m_host.ForgetSelections();
  Client measured;
  executeRun(makeRun(measured, AtReconnection));
  m_host.TakeDown();

  EXPECT_EQ(fromCache.Status(), 0);
  EXPECT_EQ(measured.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), nullptr);
}

TEST(EndlessCallbackOfARunThatTheTimerEnded, DoesNotHoldUpTheTimers) {
  HeldGateway silent;
  Host host(Host::hasty("100"));
  host.BringUp({silent.Address()});
  std::atomic<bool> mayReturn{false};
  Client endless([&] { eventually([&] { return mayReturn.load(); }); });
  std::thread endlessRun([&] { makeRun(endless, AtReconnection)->run(); });
  ASSERT_TRUE(endless.WaitForCall());

  Client client;
  std::thread run([&] { makeRun(client, AtReconnection)->run(); });
  EXPECT_TRUE(client.WaitForCall());
  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_SELECTION_FAILURE);

  silent.Release();
  mayReturn = true;
  run.join();
  endlessRun.join();
  host.TakeDown();
  EXPECT_TRUE(nothingIsLeft());
}

TEST(NestedRun, MayBeStartedFromWithinTheCallbackAndExecutedByIt) {
  for (const bool isOnItsThread : {false, true}) {
    HeldGateway gateway(HeldGateway::All);
    Host host;
    host.BringUp({gateway.Address()});
    Client inner;
    Client outer([&] {
      host.ForgetSelections();
      isOnItsThread ? makeRun(inner)->run() : executeRun(makeRun(inner));
    });
    executeRun(makeRun(outer));
    host.TakeDown();

    EXPECT_EQ(outer.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    EXPECT_EQ(inner.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    EXPECT_TRUE(nothingIsLeft());
  }
}

/// The timer and the slow gateway's worker race.
TEST(TheClient, MayBeDeletedAsSoonAsRunHasReturned) {
  constexpr int Rounds = 10;
  const HeldGateway near(HeldGateway::All);
  const HeldGateway slow(HeldGateway::Settings{.delay = std::chrono::milliseconds(110)});
  Host host(Host::hasty("100"));
  for (int i = 0; i < Rounds; ++i) {
    host.ForgetSelections();
    host.BringUp({near.Address(), slow.Address()});
    std::atomic<bool> hasReturned{false};
    auto client = std::make_unique<Client>([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      hasReturned = true;
    });
    executeRun(makeRun(*client, AtReconnection));
    EXPECT_TRUE(hasReturned);
    client.reset();
    host.TakeDown();
  }
  EXPECT_TRUE(nothingIsLeft());
}

}  // namespace
}  // namespace tests
