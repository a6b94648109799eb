// The library is taken down while a run is under way. The run keeps what it has acquired; it ends
// in one callback, and then everything is freed.

#include <gtest/gtest.h>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Utility/ExecutionContext.h"

namespace tests {
namespace {

class TakingDown : public testing::Test {
 protected:
  ~TakingDown() override { EXPECT_TRUE(nothingIsLeft()); }

  Host m_host;
};

TEST_F(TakingDown, BeforeRunLetsTheRunFailUnlessItNeedsNoMeasurement) {
  const HeldGateway gateway(HeldGateway::All);
  for (const bool isCached : {false, true}) {
    m_host.BringUp({gateway.Address()});
    if (isCached) {
      Client first;
      executeRun(makeRun(first));
    }
    Client client;
    CHeadendSelection* const run = makeRun(client, AtConnection, gateway.Address());
    m_host.TakeDown();
    executeRun(run);
    EXPECT_EQ(client.Status(), isCached ? 0L : long{EXECUTIONCONTEXT_ERROR_NO_INSTANCE});
    EXPECT_EQ(client.Calls().at(0).headends, std::vector<std::string>{gateway.Address()});
  }
}

TEST_F(TakingDown, DuringTheTestProbeTheMeasurementAndTheCallbackLeavesTheRunItsResult) {
  constexpr unsigned int Requests = 2;
  for (unsigned int request = 0; request <= Requests; ++request) {
    SCOPED_TRACE("request number " + std::to_string(request) + " is the first without an answer");
    std::atomic<bool> mayReturn{false};
    Client client([&] { eventually([&] { return mayReturn.load(); }); });
    HeldGateway gateway(request);
    m_host.BringUp({gateway.Address()});
    std::thread run([&client] { makeRun(client)->run(); });
    EXPECT_TRUE(request == Requests ? client.WaitForCall() : gateway.WaitUntilAsked());
    m_host.TakeDown();
    EXPECT_EQ(client.Calls().size(), request == Requests ? 1U : 0U);
    gateway.Release();
    mayReturn = true;
    run.join();
    EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    m_host.ForgetSelections();
  }
}

TEST_F(TakingDown, WhileWorkersProbeLeavesTheRunItsTimer) {
  HeldGateway silent;
  const HeldGateway near(HeldGateway::All);
  Client client;
  m_host.SetPreferences(Host::hasty("3000"), {});  // time enough for the one that is near
  m_host.BringUp({silent.Address(), near.Address()});
  std::thread run([&] { makeRun(client, AtReconnection)->run(); });
  EXPECT_TRUE(silent.WaitUntilAsked());
  m_host.TakeDown();
  EXPECT_TRUE(client.WaitForCall());
  silent.Release();
  run.join();
  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(client.Calls().at(0).headends, std::vector<std::string>{near.Address()});
}

TEST_F(TakingDown, ByTheCallbackItselfIsAllowed) {
  const HeldGateway gateway(HeldGateway::All);
  m_host.BringUp({gateway.Address()});
  Client client([this] { m_host.TakeDown(); });
  executeRun(makeRun(client));
  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
}

}  // namespace
}  // namespace tests
