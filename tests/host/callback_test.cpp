// What a client's callback may do to the process: it may throw, end its thread, take for ever,
// start runs of its own, and its object may go as soon as `run` has returned.

#include <gtest/gtest.h>
#include <pthread.h>

#include <ostream>
#include <stdexcept>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/TimerList.h"

namespace tests {
namespace {

/// What the client's callback does last.
struct Misbehaviour {
  const char* name;
  void (*what)();

  friend void PrintTo(const Misbehaviour& misbehaviour, std::ostream* out) {
    *out << misbehaviour.name;
  }
};

class MisbehavingCallback : public testing::TestWithParam<Misbehaviour> {};

TEST_P(MisbehavingCallback, LeavesTheProcessAndLaterRunsUnharmed) {
  const ScriptedServer gateway(answering("HTTP/1.1 200 OK\r\n\r\n"));
  const std::string address = "127.0.0.1:" + std::to_string(gateway.port());
  Host host;
  host.BringUp({address});
  Client bad(GetParam().what);
  Client good;

  executeRun(makeRun(bad));
  host.ForgetSelections();
  executeRun(makeRun(good));
  host.TakeDown();

  EXPECT_EQ(bad.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(good.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_TRUE(nothingIsLeft());
}

INSTANTIATE_TEST_SUITE_P(
    Callback, MisbehavingCallback,
    testing::Values(Misbehaviour{"ThrowsAnException", [] { throw std::runtime_error("no"); }},
                    Misbehaviour{"ThrowsANumber", [] { throw 4711; }},
                    Misbehaviour{"EndsItsThread", [] { pthread_exit(nullptr); }}),
    [](const auto& instance) { return instance.param.name; });

/// A client whose callback does not return as long as the test looks; its run waits on a thread.
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

  HeldGateway m_gateway{1000};
  Host m_host;
  std::atomic<bool> m_mayReturn{false};
  Client m_endless{[this] { eventually([this] { return m_mayReturn.load(); }); }};
  std::thread m_endlessRun;
};

TEST_F(EndlessCallback, HoldsUpNoOtherRun) {
  Client fromCache;
  executeRun(makeRun(fromCache));
  m_host.ForgetSelections();
  Client measured;
  executeRun(makeRun(measured, AtReconnection));

  EXPECT_EQ(fromCache.Status(), 0);
  EXPECT_EQ(measured.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
}

TEST_F(EndlessCallback, DoesNotHoldUpTheTakingDownOfTheLibrary) {
  m_host.TakeDown();
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
    HeldGateway gateway(1000);
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

/// A client whose callback takes its time, and which knows whether it was deleted meanwhile.
class LeisurelyClient : public ClientIfcBase {
 public:
  explicit LeisurelyClient(std::atomic<int>& deletedTooEarly)
      : m_deletedTooEarly(deletedTooEarly) {}
  ~LeisurelyClient() override { m_deletedTooEarly += m_isCalled || !m_wasCalled ? 1 : 0; }

  void AHSSelectedHost(unsigned int /*reason*/, const std::vector<std::string>& /*headends*/,
                       long /*status*/, const std::string& /*extraInfo*/) override {
    m_isCalled = true;
    m_wasCalled = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    m_isCalled = false;
  }

 private:
  std::atomic<int>& m_deletedTooEarly;
  std::atomic<bool> m_isCalled{false};
  std::atomic<bool> m_wasCalled{false};
};

TEST(TheClient, MayBeDeletedAsSoonAsRunHasReturned) {
  constexpr int Rounds = 10;
  const GatewayProcess gateways({"", "delay=110"});
  Host host(Host::hasty("100"));  // the timer and the slow gateway's worker race
  std::atomic<int> deletedTooEarly{0};
  for (int i = 0; i < Rounds; ++i) {
    host.ForgetSelections();
    host.BringUp(gateways.Addresses());
    auto client = std::make_unique<LeisurelyClient>(deletedTooEarly);
    executeRun(makeRun(*client, AtReconnection));
    client.reset();
    host.TakeDown();
  }
  EXPECT_EQ(deletedTooEarly, 0);
  EXPECT_TRUE(nothingIsLeft());
}

}  // namespace
}  // namespace tests
