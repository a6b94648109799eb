// A run when the system gives no thread or no memory at one of its steps. The client hears of it
// all the same, once, on a thread that is neither the run's nor the timer's; what can still be
// measured is measured. This program brings its own way to create threads and to allocate them.

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <stdexcept>
#include <thread>

#include "tests/unit/selection/selection_fixture.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/ReserveThread.h"

namespace {

// The number of threads, and of objects of threads, that can still be had.
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

using doubles::preferences;
using doubles::probes;
using doubles::seams;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr long AddedToCache = 0xFE530010;
constexpr long NoMemory = 0xFE530004;
constexpr long SelectionFailure = 0xFE53000F;

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

  /// After the run has ended: one call, on a thread of its own.
  Client::Outcome outcome() {
    EXPECT_TRUE(quiet());
    EXPECT_NE(client.only().thread, runThreadId);
    EXPECT_NE(client.only().thread, timerThreadId);
    return client.only();
  }
};

TEST_F(Scarcity, AResultsThreadThatCannotBeCreatedCallsTheClientOnTheThreadInReserve) {
  preferences().useAddresses({"gw1", "gw2"});
  probes().answer("gw1", {{.rtt = 20}});
  probes().answer("gw2", {{.rtt = 10}});
  make();
  threadsLeft = 2;  // the workers'
  runToEnd();

  EXPECT_EQ(outcome().status, AddedToCache);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2", "gw1"));
}

TEST_F(Scarcity, ATimerThatEndsTheRunWithoutAThreadForTheResultsUsesTheReserveToo) {
  preferences().useAddresses({"gw1"});
  make(Connection, "gw1");
  probes().answerTest({.rtt = 3, .during = [&] {
                         threadsLeft = 0;
                         EXPECT_TRUE(fireTimer());
                       }});
  runToEnd();

  EXPECT_EQ(outcome().status, SelectionFailure);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
}

TEST_F(Scarcity, AWorkerThatCannotBeCreatedLeavesTheOthersToChooseFrom) {
  preferences().useAddresses({"gw1", "gw2", "gw3"});
  make();
  int started = 0;
  seams().setAfterStart([&started](CThread&) {
    ++started;
    threadsLeft = started == 1 ? 0 : Plenty;  // the second worker finds none
  });
  runToEnd();

  EXPECT_EQ(outcome().status, AddedToCache);
  EXPECT_THAT(client.only().headends, UnorderedElementsAre("gw1", "gw3"));
  EXPECT_EQ(
      doubles::log().count("startPingThreads W CSelectionThread::WaitForCompletion 0xFE34000D"),
      1U);
}

TEST_F(Scarcity, WithoutAnyThreadTheLastHeadendIsDeliveredOnTheThreadInReserve) {
  preferences().useAddresses({"gw1", "gw2"});
  make(Connection, "gw2");
  threadsLeft = 0;
  runToEnd();

  EXPECT_EQ(outcome().status, SelectionFailure);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2"));
}

TEST_F(Scarcity, TheReserveServesRunAfterRun) {
  preferences().useAddresses({"gw1"});
  for (std::size_t round = 1; round <= 20; ++round) {
    make(Connection, "gw1");
    threadsLeft = 0;
    runToEnd();
    ASSERT_TRUE(quiet());
    ASSERT_EQ(client.calls(), round);
  }
}

TEST_F(Scarcity, AWorkerWithoutMemoryLeavesTheOthersToChooseFrom) {
  preferences().useAddresses({"gw1", "gw2", "gw3"});
  make();
  int started = 0;
  seams().setAfterStart([&started](CThread&) {
    ++started;
    objectsLeft = started == 1 ? 0 : Plenty;
  });
  // What follows the failed one has its memory again.
  doubles::log().setHook([](const doubles::LogLine& line) {
    if (line.message == "CSelectionThread") {
      objectsLeft = Plenty;
    }
  });
  runToEnd();

  EXPECT_EQ(outcome().status, AddedToCache);
  EXPECT_THAT(client.only().headends, UnorderedElementsAre("gw1", "gw3"));
  EXPECT_EQ(doubles::log().count("startPingThreads W CSelectionThread 0xFE530004"), 1U);
}

TEST_F(Scarcity, AResultsThreadWithoutMemoryIsReplacedByTheOneThatTheRunBroughtAlong) {
  preferences().useAddresses({"gw1", "gw2"});
  make(Connection, "gw2");
  objectsLeft = 2;  // the workers'
  runToEnd();

  EXPECT_EQ(outcome().status, NoMemory);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2"));
  EXPECT_EQ(client.only().reason, Connection);
  EXPECT_EQ(client.only().extraInfo, "");
}

TEST_F(Scarcity, NeitherThreadsNorMemoryStillGivesOneCall) {
  preferences().useAddresses({"gw1"});
  make(Reconnection, "gw1");
  threadsLeft = 0;
  objectsLeft = 0;
  runToEnd();

  EXPECT_EQ(outcome().status, NoMemory);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
  EXPECT_EQ(client.only().reason, Reconnection);
}

TEST_F(Scarcity, ARankingWithoutMemoryDeliversTheLastHeadendAndSaysWhy) {
  preferences().useAddresses({"gw1", "gw2"});
  make(Connection, "gw2");
  seams().setBeforeReading(
      [](const CCacheEntry&, doubles::Seams::Reading) { throw std::bad_alloc(); });
  runToEnd();

  EXPECT_EQ(outcome().status, NoMemory);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2"));
}

TEST_F(Scarcity, ATestProbeWithoutMemoryEndsTheRunWithTheLastHeadend) {
  preferences().useAddresses({"gw1", "gw2"});
  probes().answerTest({.during = [] { throw std::bad_alloc(); }});
  make(Connection, "gw2");
  runToEnd();

  EXPECT_EQ(outcome().status, NoMemory);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2"));
  EXPECT_EQ(doubles::log().count("run W CHeadendSelection::selectHeadend 0xFE530004"), 1U);
}

TEST_F(Scarcity, AConstructionWithoutMemoryReportsItAndGivesEverythingBack) {
  preferences().useAddresses({"gw1"});
  objectsLeft = 0;
  long status = -1;
  auto* const refused = new CHeadendSelection(&client, "gw1", Connection, status);
  EXPECT_EQ(status, NoMemory);
  EXPECT_EQ(member<Callback>(*refused), nullptr);
  delete refused;
  EXPECT_EQ(client.calls(), 0U);
}

}  // namespace
}  // namespace tests
