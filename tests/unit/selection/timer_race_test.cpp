// The timer against the run's own end, at every point where they can meet. In every case the client
// is called once, nothing is used after it was freed, and no thread or acquisition is left.

#include <atomic>
#include <thread>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

const char SecondTime[] = "finishAHS I QIB in finishAHS() a second time";

class TimerRace : public SelectionTest {};

TEST_F(TimerRace, BetweenTwoStartsHoldsTheRunUntilTheClientsCallbackHasReturned) {
  Gate release;
  Gate clientIsCalled;
  Gate mayReturn;
  probes().answer("gw0", {{.rtt = 30, .during = [&] { EXPECT_TRUE(release.wait()); }}});
  client.during = [&] {
    clientIsCalled.open();
    EXPECT_TRUE(mayReturn.wait());
  };
  seams().afterStart.set([&](CThread& thread) {
    if (dynamic_cast<Worker*>(&thread) != nullptr) {
      EXPECT_TRUE(fireTimer());
    }
  });
  std::atomic<bool> runWaits{false};
  seams().beforeWait.set([&](CThread& thread, unsigned int timeoutMs) {
    if (dynamic_cast<ResultsThread*>(&thread) != nullptr &&
        std::this_thread::get_id() == runThreadId) {
      EXPECT_EQ(timeoutMs, CThread::Infinite);
      runWaits = true;
    }
  });
  makeFor({"gw0", "gw1"});
  startRun();
  EXPECT_TRUE(clientIsCalled.wait());
  EXPECT_TRUE(doubles::eventually([&] { return runWaits || hasRunReturned; }));
  EXPECT_FALSE(hasRunReturned) << "the client is still busy";
  mayReturn.open();
  joinRun();

  // Immediately: after joining the run thread, the client may be deleted. The worker still holds
  // the run.
  EXPECT_EQ(client.calls(), 1U);
  EXPECT_GE(CThread::RunningCount(), 1U);
  EXPECT_LT(cache().released, cache().acquired);
  release.open();
  EXPECT_THAT(outcome().headends, ElementsAre("gw0"));
  EXPECT_EQ(CThread::RunningCount(), 0U);
  EXPECT_THAT(doubles::log().texts("logThreadPingResults"), SizeIs(1))
      << "a late worker still reports, to a run that is kept for it";
  EXPECT_THAT(cache().stored(), IsEmpty());
}

TEST_F(TimerRace, WhileWorkersRunGivesTheResultsThatAreInAndDoesNotWaitForTheClient) {
  Gate release;
  Gate mayReturn;
  client.during = [&] { EXPECT_TRUE(mayReturn.wait()); };
  probes().answer("fast", {{.rtt = 12}});
  probes().answer("slow", {{.rtt = 3, .during = [&] { EXPECT_TRUE(release.wait()); }}});
  makeFor({"fast", "slow"});
  startRun();
  EXPECT_TRUE(doubles::log().await("Run I QIB terminating thread for fast"));
  EXPECT_TRUE(doubles::eventually([] { return probes().workerCalls("slow").size() == 1; }));
  EXPECT_TRUE(fireTimer()) << "returns while the client's callback is still running";
  EXPECT_EQ(client.calls(), 0U);
  mayReturn.open();
  EXPECT_TRUE(doubles::eventually([&] { return client.calls() == 1; }))
      << "the client does not wait for the slow worker";
  release.open();
  joinRun();

  EXPECT_EQ(outcome().status, AddedToCache);
  EXPECT_THAT(client.only().headends, ElementsAre("fast"));
  EXPECT_THAT(recordsOf(cache().stored().at(0)), ElementsAre("fast 12"));
  EXPECT_EQ(doubles::log().texts().back(), SecondTime);
}

TEST_F(TimerRace, AfterATestProbeSlowerThanTheBudgetEndsTheRunThoughNoWorkerIsOutOfTime) {
  cache().settings.nConnectTimeout = 100;
  probes().answerTest({.rtt = 250, .httpStatus = 200});
  probes().answer("gw1", {{.rtt = 30, .takesMs = 500, .during = [&] { EXPECT_TRUE(fireTimer()); }},
                          {.rtt = 20, .takesMs = 500}});
  makeFor({"gw1"});
  runToEnd();

  EXPECT_THAT(probes().workerCalls("gw1"), SizeIs(3)) << "what is left of the budget has wrapped";
  EXPECT_EQ(outcome().status, SelectionFailure);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
  EXPECT_EQ(doubles::log().texts().back(), SecondTime);
}

TEST_F(TimerRace, DuringTheNormalEndIsTooLateAndTheRunReturnsAfterIt) {
  std::thread timerThread;
  doubles::log().setHook([&](const doubles::LogLine& line) {
    // The run thread holds the end lock here and has not yet deleted the timer.
    if (line.message == "QIB in finishAHS() for first time") {
      timerThread = std::thread([] { timers().fire(); });
      EXPECT_TRUE(doubles::log().await("OnTimerExpired W QIB timer expired"));
    } else if (line.function == "OnTimerExpired") {
      EXPECT_TRUE(doubles::eventually([&] { return client.calls() == 1; }));
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_FALSE(hasRunReturned) << "while the timer still uses the run";
    }
  });
  makeFor({"gw1"});
  runToEnd();
  EXPECT_EQ(cache().released, 1);
  ASSERT_TRUE(timerThread.joinable());
  timerThread.join();

  EXPECT_EQ(outcome().status, AddedToCache);
  EXPECT_EQ(doubles::log().count(SecondTime), 1U);
}

}  // namespace
}  // namespace tests
