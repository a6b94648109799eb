// Several runs of one process at once. They share the selection cache and its files; each ends in
// one callback and no selection of one of them is lost to another.

#include <gtest/gtest.h>

#include <barrier>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

constexpr std::size_t Runs = 8;

class RunsTogether : public testing::Test {
 protected:
  /// Executes the runs, each on a thread of its own, all from the same moment on.
  static void Execute(const std::vector<CHeadendSelection*>& runs) {
    std::barrier start(static_cast<std::ptrdiff_t>(runs.size()));
    std::vector<std::thread> threads;
    threads.reserve(runs.size());
    for (CHeadendSelection* const run : runs) {
      threads.emplace_back([&start, run] {
        start.arrive_and_wait();
        run->run();
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  /// Executes a run on these candidates. @return its status.
  long Select(const std::vector<std::string>& candidates) {
    m_host.BringUp(candidates);
    Client client;
    executeRun(makeRun(client));
    m_host.TakeDown();
    return client.Status();
  }

  Host m_host;
};

TEST_F(RunsTogether, WithDifferentCandidatesLoseNoSelection) {
  const std::vector<std::string> normal(Runs);
  const GatewayProcess gateways(normal);
  std::vector<Client> clients(Runs);
  std::vector<CHeadendSelection*> runs;
  for (std::size_t i = 0; i < clients.size(); ++i) {
    m_host.BringUp({gateways.Addresses()[i]});
    runs.push_back(makeRun(clients[i]));
  }
  Execute(runs);
  m_host.TakeDown();

  for (std::size_t i = 0; i < clients.size(); ++i) {
    EXPECT_EQ(clients[i].Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    EXPECT_EQ(clients[i].Calls().at(0).headends, std::vector<std::string>{gateways.Addresses()[i]});
  }
  EXPECT_TRUE(nothingIsLeft());
  for (const std::string& address : gateways.Addresses()) {
    EXPECT_EQ(Select({address}), 0) << "its selection was lost";
  }
}

}  // namespace
}  // namespace tests
