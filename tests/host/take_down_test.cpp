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
  Host m_host;
  Client m_client;
};

TEST_F(TakingDown, BeforeRunLetsTheRunFailWithOneCallback) {
  HeldGateway gateway(1000);
  m_host.BringUp({gateway.Address()});
  CHeadendSelection* const run = makeRun(m_client, AtConnection, gateway.Address());
  m_host.TakeDown();
  executeRun(run);

  EXPECT_EQ(m_client.Status(), EXECUTIONCONTEXT_ERROR_NO_INSTANCE);
  EXPECT_EQ(m_client.Calls().at(0).headends, std::vector<std::string>{gateway.Address()});
  EXPECT_TRUE(nothingIsLeft());
}

TEST_F(TakingDown, BeforeRunLeavesARunThatNeedsNoMeasurementItsResult) {
  HeldGateway gateway(1000);
  m_host.BringUp({gateway.Address()});
  Client first;
  executeRun(makeRun(first));
  CHeadendSelection* const run = makeRun(m_client);
  m_host.TakeDown();
  executeRun(run);

  EXPECT_EQ(m_client.Status(), 0);
  EXPECT_TRUE(nothingIsLeft());
}

TEST_F(TakingDown, DuringTheTestProbeAndWhileWorkersProbeLeavesTheRunItsResult) {
  for (const unsigned int request : {0U, 1U}) {
    SCOPED_TRACE("while request number " + std::to_string(request) + " waits for its answer");
    Client client;
    HeldGateway gateway(request);
    m_host.BringUp({gateway.Address()});
    std::thread run([&client] { makeRun(client)->run(); });
    EXPECT_TRUE(gateway.WaitUntilAsked());
    m_host.TakeDown();
    EXPECT_EQ(client.Status(), -1) << "the run was to be under way";
    gateway.Release();
    run.join();
    EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    EXPECT_TRUE(nothingIsLeft());
  }
}

TEST_F(TakingDown, WhileWorkersProbeLeavesTheRunItsTimer) {
  HeldGateway silent;
  HeldGateway near(1000);
  m_host.SetPreferences(Host::hasty("3000"), {});  // time enough for the one that is near
  m_host.BringUp({silent.Address(), near.Address()});
  std::thread run([this] { makeRun(m_client, AtReconnection)->run(); });
  EXPECT_TRUE(silent.WaitUntilAsked());
  m_host.TakeDown();
  EXPECT_TRUE(m_client.WaitForCall());
  silent.Release();
  run.join();

  EXPECT_EQ(m_client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(m_client.Calls().at(0).headends, std::vector<std::string>{near.Address()});
  EXPECT_TRUE(nothingIsLeft());
}

TEST_F(TakingDown, WhileTheCallbackRunsLetsItReturn) {
  HeldGateway gateway(1000);
  std::atomic<bool> mayReturn{false};
  Client client([&] { eventually([&] { return mayReturn.load(); }); });
  m_host.BringUp({gateway.Address()});
  std::thread run([&] { makeRun(client)->run(); });
  EXPECT_TRUE(client.WaitForCall());
  m_host.TakeDown();
  mayReturn = true;
  run.join();

  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_TRUE(nothingIsLeft());
}

TEST_F(TakingDown, ByTheCallbackItselfIsAllowed) {
  HeldGateway gateway(1000);
  m_host.BringUp({gateway.Address()});
  Client client([this] { m_host.TakeDown(); });
  executeRun(makeRun(client));

  EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_TRUE(nothingIsLeft());
}

}  // namespace
}  // namespace tests
