// A run without threads or memory at one of its steps. The client is still called once, on neither
// the run's nor the timer's thread; what can be measured is measured. This program replaces the
// creation and allocation of threads.

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "tests/support/Gate.h"
#include "tests/unit/selection/selection_fixture.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/ReserveThread.h"

namespace {

// Number of threads, and of thread objects, still available.
constexpr int Plenty = 1'000'000;
std::atomic<int> threadsLeft{Plenty};
std::atomic<int> objectsLeft{Plenty};

}  // namespace

int startDetachedThread(void* (*body)(void*), void* argument, std::size_t) noexcept {
  if (threadsLeft.fetch_sub(1) <= 0) {
    return EAGAIN;
  }
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, body, argument);
  return error != 0 ? error : pthread_detach(thread);
}

// The mangled names of CThread::operator new and of its original.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" void* __real__ZN7CThreadnwEm(std::size_t size);
extern "C" void* __wrap__ZN7CThreadnwEm(std::size_t size) {
  if (objectsLeft.fetch_sub(1) <= 0) {
    throw std::bad_alloc();
  }
  return __real__ZN7CThreadnwEm(size);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace tests {
namespace {

class Scarcity : public SelectionTest {
 protected:
  Scarcity() {
    threadsLeft = Plenty;
    objectsLeft = Plenty;
    EXPECT_EQ(CReserveThread::create(), 0);
  }
  ~Scarcity() override { CReserveThread::removeHolder(); }

  void TearDown() override {
    SelectionTest::TearDown();
    threadsLeft = Plenty;
    objectsLeft = Plenty;
  }
};

struct Shortage {
  unsigned int reason = Connection;
  std::string last = "gw2";
  int threads = Plenty;
  int objects = Plenty;
  /// The shortage during the test probe.
  std::function<void()> during = {};
  std::atomic<int>* ofSecondWorker = nullptr;  ///< runs short for that one alone
  long status = AddedToCache;
  Texts headends = {};
};

class AShortage : public Scarcity, public testing::WithParamInterface<Row<Shortage>> {};

TEST_P(AShortage, StillGivesOneCall) {
  const Shortage& shortage = GetParam().is;
  Gate secondIsStarted;
  if (shortage.ofSecondWorker == nullptr) {
    secondIsStarted.open();
  }
  probes().answer("gw1", {{.rtt = 20, .during = [&] { secondIsStarted.pass(); }}});
  probes().answer("gw3", {{.rtt = 30}});
  probes().answerTest({.rtt = 3, .during = shortage.during});
  int started = 0;
  seams().afterStart.set([&](CThread&) {
    if (shortage.ofSecondWorker != nullptr) {
      *shortage.ofSecondWorker = ++started == 1 ? 0 : Plenty;
      if (started > 1) {
        secondIsStarted.open();
      }
    }
  });
  // Steps after the failed one have memory again.
  doubles::log().setHook([&](const doubles::LogLine& line) {
    if (shortage.ofSecondWorker != nullptr && line.message == "CSelectionThread") {
      objectsLeft = Plenty;
    }
  });
  makeFor({"gw1", "gw2", "gw3"}, shortage.reason, shortage.last);
  threadsLeft = shortage.threads;
  objectsLeft = shortage.objects;
  runToEnd();

  EXPECT_EQ(outcome().status, shortage.status);
  EXPECT_EQ(client.only().headends, shortage.headends);
  EXPECT_EQ(client.only().reason, shortage.reason);
  EXPECT_EQ(client.only().extraInfo, "");
  if (shortage.ofSecondWorker == &objectsLeft) {
    EXPECT_EQ(doubles::log().count("startPingThreads W CSelectionThread 0xFE530004"), 1U);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Of, AShortage,
    testing::ValuesIn(Rows<Shortage>{
        {"AResultsThreadUsesTheThreadInReserve",
         {.threads = 3 /* the workers' */, .headends = {"gw2", "gw1", "gw3"}}},
        {"AThreadForAWorkerComesFromAnother",
         {.ofSecondWorker = &threadsLeft, .headends = {"gw2", "gw1", "gw3"}}},
        {"MemoryForAWorkerLeavesTheOthersToChooseFrom",
         {.ofSecondWorker = &objectsLeft, .headends = {"gw1", "gw3"}}},
        {"AnyThreadDeliversTheLastHeadendOnTheThreadInReserve",
         {.threads = 0, .status = SelectionFailure, .headends = {"gw2"}}},
        {"TheResultsThreadsMemoryUsesTheOneThatTheRunBroughtAlong",
         {.objects = 3 /* the workers' */, .status = MemoryFailed, .headends = {"gw2"}}},
        {"ThreadsAndMemoryDeliversTheLastHeadend",
         {.reason = Reconnection,
          .last = "gw1",
          .threads = 0,
          .objects = 0,
          .status = MemoryFailed,
          .headends = {"gw1"}}},
        {"TheTestProbesMemoryDeliversTheLastHeadend",
         {.during = [] { throw std::bad_alloc(); }, .status = MemoryFailed, .headends = {"gw2"}}},
    }),
    nameOfRow);

TEST_F(Scarcity, ATimerThatEndsTheRunWithoutAThreadForTheResultsUsesTheReserveToo) {
  makeFor({"gw1"}, Connection, "gw1");
  probes().answerTest({.rtt = 3, .during = [&] {
                         threadsLeft = 0;
                         EXPECT_TRUE(fireTimer());
                       }});
  runToEnd();

  EXPECT_EQ(outcome().status, SelectionFailure);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
}

TEST_F(Scarcity, TheReserveServesRunAfterRun) {
  for (std::size_t round = 1; round <= 20; ++round) {
    makeFor({"gw1"}, Connection, "gw1");
    threadsLeft = 0;
    runToEnd();
    ASSERT_TRUE(quiet());
    ASSERT_EQ(client.calls(), round);
  }
}

TEST_F(Scarcity, ARankingWithoutMemoryDeliversTheLastHeadendAndSaysWhy) {
  makeFor({"gw1", "gw2"}, Connection, "gw2");
  seams().beforeReading.set(
      [](const CCacheEntry&, doubles::Seams::Reading) { throw std::bad_alloc(); });
  runToEnd();

  EXPECT_EQ(outcome().status, MemoryFailed);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2"));
}

TEST_F(Scarcity, AConstructionWithoutMemoryReportsItAndGivesEverythingBack) {
  objectsLeft = 0;
  EXPECT_EQ(member<Callback>(make(Connection, "gw1", MemoryFailed)), nullptr);
  destroy();
  EXPECT_EQ(client.calls(), 0U);
}

}  // namespace
}  // namespace tests
