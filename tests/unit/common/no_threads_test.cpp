// Objects when the system gives no thread: this program replaces startDetachedThread by a function
// that refuses on demand.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/Gate.h"
#include "tests/unit/common/give_up.h"
#include "tests/unit/common/heard_log.h"
#include "tests/unit/common/worker.h"
#include "vpn/Common/Utility/Descriptors.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/ReserveThread.h"
#include "vpn/Common/Utility/WorkerQueue.h"

using tests::Gate;

namespace {

std::atomic<bool> refuses{true};

/// Numbers of threads made by this program, and of those still running.
std::atomic<int> made{0};
std::atomic<int> existing{0};

struct Body {
  void* (*function)(void*);
  void* argument;
};

/// Counts the end of a thread, even an abnormal one.
struct Ended {
  ~Ended() { --existing; }
};

void* counted(void* body) {
  const Body own = *static_cast<Body*>(body);
  delete static_cast<Body*>(body);
  const Ended ended;
  return own.function(own.argument);
}

}  // namespace

int startDetachedThread(void* (*body)(void*), void* argument, std::size_t) noexcept {
  if (refuses) {
    return EAGAIN;
  }
  ++made;
  ++existing;
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, counted, new Body{body, argument});
  return error != 0 ? error : pthread_detach(thread);
}

namespace {

using testing::ElementsAre;
using tests::eventually;

constexpr char kNoThread[] =
    "Return code from pthread_create: 0xFE34000A (Resource temporarily unavailable)";

class WithoutThreads : public testing::Test {
 protected:
  void SetUp() override { refuses = true; }
};

/// Abandons a task; nobody may wait for it.
Task::Place& abandonTask() {
  static Task::Place destroyedOn;
  auto* const task = new Task(destroyedOn);
  task->enter();
  giveUp(task);
  task->leaveWithoutWaiting();
  return destroyedOn;
}

TEST_F(WithoutThreads, LeavingWithoutWaitingDestroysTheTaskOnTheCallingThread) {
  EXPECT_EQ(abandonTask().load(), std::this_thread::get_id());
  EXPECT_EQ(Counted::count(), 0);
}

TEST_F(WithoutThreads, AThreadThatDidNotComeAboutIsLoggedAndAsOneNeverStarted) {
  const HeardLog log;
  Task::Place destroyedOn;
  auto* const task = new Task(destroyedOn);
  auto worker = std::make_unique<Worker>([]() -> STATUSCODE { return 7; });
  EXPECT_EQ(worker->Start(), THREAD_ERROR_CREATE_FAILED);
  EXPECT_THAT(log.lines(), ElementsAre("E " + std::string(kNoThread)));
  EXPECT_EQ(CThread::RunningCount(), 0U);
  auto keeping = std::make_unique<Worker>([]() -> STATUSCODE { return 7; });
  keeping->keepAlive(*task);
  EXPECT_EQ(keeping->Start(), THREAD_ERROR_CREATE_FAILED);
  giveUp(task);
  EXPECT_NE(destroyedOn.load(), std::thread::id()) << "it does not keep its task";
  keeping.reset();
  unsigned int exitCode = 99;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_ERROR_INVALID_STATE);
  EXPECT_EQ(exitCode, 99U);
  refuses = false;
  EXPECT_EQ(worker->Start(), THREAD_SUCCESS) << "it can be started again";
  EXPECT_EQ(worker->finish(), 7U);
  worker.reset();
  EXPECT_TRUE(everythingIsGone());
}

/// Starts a thread that must run.
template <class Body>
std::unique_ptr<Worker> mustRun(Body body, STATUSCODE expected = THREAD_SUCCESS) {
  auto worker = std::make_unique<Worker>(body);
  worker->useReserve();
  EXPECT_EQ(worker->Start(), expected);
  return worker;
}

/// The reserve thread exists, and no other.
class WithAReserve : public WithoutThreads {
 protected:
  void SetUp() override {
    refuses = false;
    ASSERT_EQ(CReserveThread::create(), 0);
    refuses = true;
  }
  void TearDown() override {
    refuses = false;
    CReserveThread::removeHolder();
    EXPECT_TRUE(eventually([] { return existing == 0; }))
        << "the reserve ends with its last holder";
    EXPECT_EQ(CThread::RunningCount(), 0U);
  }
};

TEST_F(WithAReserve, AThreadThatMustRunDoesAndSaysSo) {
  const HeardLog log;
  std::thread::id ranOn;
  mustRun([&ranOn] { ranOn = std::this_thread::get_id(); })->finish();
  EXPECT_NE(ranOn, std::thread::id());
  EXPECT_NE(ranOn, std::this_thread::get_id());
  EXPECT_THAT(log.lines(),
              ElementsAre("W " + std::string(kNoThread) + ": the thread in reserve takes over"));
}

TEST_F(WithAReserve, ItIsForThreadsThatMustRunAndThatCannotBeHadInTheOrdinaryWay) {
  EXPECT_EQ(std::make_unique<Worker>([] {})->Start(), THREAD_ERROR_CREATE_FAILED);
  refuses = false;
  mustRun([] { EXPECT_EQ(existing, 2); })->finish();
}

TEST_F(WithAReserve, WhatWaitsIsServedInTheOrderItCame) {
  Gate gate;
  std::vector<int> order;
  std::vector<std::unique_ptr<Worker>> threads;
  for (int i = 0; i < 5; ++i) {
    threads.push_back(mustRun([&gate, &order, i] {
      gate.pass();
      order.push_back(i);
    }));
  }
  gate.open();
  for (const auto& thread : threads) {
    thread->finish();
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(WithAReserve, OneThatTakesItsTimeHoldsUpNobodyOnceThereAreThreadsAgain) {
  // The reserve thread creates its successor before it calls the body.
  Gate mayBegin;
  const auto first = mustRun([&] {
    mayBegin.pass();
    refuses = false;
  });
  Gate gate;
  Gate isIn;
  const auto slow = mustRun([&] {
    isIn.open();
    gate.pass();
  });
  mayBegin.open();
  isIn.pass();
  refuses = true;
  mustRun([] {})->finish();
  gate.open();
  first->finish();
  slow->finish();
}

TEST_F(WithAReserve, ABodyThatEndsItsThreadIsSucceeded) {
  const int before = made;
  const auto leaving = mustRun([] {
    refuses = false;  // no thread before the body, one after it
    pthread_exit(nullptr);
  });
  EXPECT_EQ(leaving->finish(), CThread::AbnormalExitCode);
  ASSERT_TRUE(eventually([before] { return made == before + 1; }));
  refuses = true;
  mustRun([] {})->finish();
}

TEST_F(WithAReserve, ABodyThatEndsTheLastThreadLeavesNoneAndTheNextHolderMakesOne) {
  mustRun([] { pthread_exit(nullptr); })->finish();
  ASSERT_TRUE(eventually([] { return existing == 0; })) << "which includes that it has said so";
  mustRun([] {}, THREAD_ERROR_CREATE_FAILED);
  refuses = false;
  ASSERT_EQ(CReserveThread::create(), 0);
  refuses = true;
  mustRun([] {})->finish();
  CReserveThread::removeHolder();
}

TEST_F(WithAReserve, ATaskKeepsTheReserveForWhatItEndsWith) {
  auto* const task = new Task;
  CReserveThread::removeHolder();  // the library stops meanwhile
  mustRun([] {})->finish();
  giveUp(task);
  EXPECT_TRUE(eventually([] { return existing == 0; }));
  CReserveThread::addHolder();  // for TearDown
}

TEST_F(WithAReserve, ATaskThatNobodyMayWaitForIsDestroyedOnIt) {
  const Task::Place& destroyedOn = abandonTask();
  EXPECT_TRUE(eventually([] { return Counted::count() == 0; }));
  EXPECT_NE(destroyedOn.load(), std::this_thread::get_id());
}

TEST_F(WithAReserve, TasksThatMeasureWaitForNoOtherOnesCallback) {
  auto* const first = new Task;
  auto* const second = new Task;
  refuses = false;
  first->keepThread();
  second->keepThread();
  refuses = true;
  Gate gate;
  const auto waits = mustRun([&gate] { gate.pass(); });
  mustRun([&gate] { gate.open(); })->finish();
  waits->finish();
  giveUp(first);
  giveUp(second);
}

/// Workers of one task; the first has a thread, and the others have none until it lets them.
class Crowd : public WithoutThreads {
 protected:
  void TearDown() override {
    giveUp(m_task);
    m_workers.clear();
    EXPECT_TRUE(everythingIsGone());
  }

  template <class Body>
  Worker& Start(Body body) {
    auto worker = std::make_unique<Worker>(body);
    worker->keepAlive(*m_task);
    EXPECT_EQ(worker->Start(), THREAD_SUCCESS);
    m_workers.push_back(std::move(worker));
    return *m_workers.back();
  }

  /// Starts the worker that gets the only thread, and what then waits behind it.
  template <class Body>
  void StartFirst(Body afterGate) {
    refuses = false;
    Gate isIn;
    Start([this, afterGate, &isIn] {
      isIn.open();
      m_gate.pass();
      afterGate();
    });
    isIn.pass();
    refuses = true;
  }

  std::vector<unsigned int> Finish() {
    m_gate.open();
    std::vector<unsigned int> codes;
    for (const auto& worker : m_workers) {
      codes.push_back(worker->finish());
    }
    return codes;
  }

  Task* const m_task = new Task;
  Gate m_gate;
  std::vector<std::unique_ptr<Worker>> m_workers;
};

TEST_F(Crowd, WhoGetsNoThreadTakesTheOneOfAWorkerThatHasEnded) {
  std::vector<unsigned int> order;
  StartFirst([] {});
  for (unsigned int i = 0; i < 5; ++i) {
    Start([&order, i]() -> STATUSCODE {
      order.push_back(i);
      return i;
    });
  }
  EXPECT_THAT(Finish(), ElementsAre(0, 0, 1, 2, 3, 4));
  EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4));
}

TEST_F(Crowd, WhoseTimeIsOverBeforeItsTurnDoesNotBegin) {
  StartFirst([] {});
  Start([] { ADD_FAILURE(); });
  EXPECT_EQ(CWorkerQueue::waitsFor(), Shortage::Threads);
  m_task->endTime();
  EXPECT_THAT(Finish(), ElementsAre(0, static_cast<unsigned int>(THREAD_ERROR_TIMEOUT)));
}

TEST_F(Crowd, AWorkerThatEndsItsThreadLeavesTheTurnToTheNext) {
  for (const bool isRefused : {true, false}) {
    StartFirst([isRefused] {
      refuses = isRefused;
      pthread_exit(nullptr);
    });
  }
  Start([] {});
  EXPECT_THAT(Finish(), ElementsAre(CThread::AbnormalExitCode, CThread::AbnormalExitCode, 0));
}

TEST_F(Crowd, TakesNoDescriptorsOfTheHosts) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit few{200, before.rlim_max};  // some of which are open
  setrlimit(RLIMIT_NOFILE, &few);
  refuses = false;
  ASSERT_TRUE(eventually([] { return existing == 0; }));
  for (int i = 0; i < 100; ++i) {
    Start([this] {
      CWorkerQueue::needFew();
      m_gate.pass();
    });
  }
  EXPECT_EQ(CWorkerQueue::waitsFor(), Shortage::Descriptors);
  EXPECT_LE(2 * existing, 200 - Descriptors::HostsShare);
  EXPECT_GE(existing, 20);
  EXPECT_EQ(Finish().size(), 100U);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(WithoutThreads, AnExecutionContextIsNotCreatedAndCanBeLater) {
  EXPECT_EQ(CExecutionContext::createInstance(API_INSTANCE), THREAD_ERROR_CREATE_FAILED);
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), nullptr);
  refuses = false;
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  CExecutionContext* const context = CExecutionContext::acquireInstance(API_INSTANCE);
  ASSERT_NE(context, nullptr);
  context->releaseInstance();
  context->releaseInstance();
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), nullptr);
}

}  // namespace
