// What becomes of objects when the system gives no thread: this program brings its own
// startDetachedThread, which refuses as long as it is told to.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/common/counted.h"
#include "tests/unit/common/gate.h"
#include "tests/unit/common/give_up.h"
#include "tests/unit/common/heard_log.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/ReserveThread.h"
#include "vpn/Common/Utility/Thread.h"

namespace {

std::atomic<bool> refuses{true};

/// Threads made by this program: in all, and those not yet ended.
std::atomic<int> made{0};
std::atomic<int> existing{0};

struct Body {
  void* (*function)(void*);
  void* argument;
};

/// Counts the end of a thread however it ends.
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

class Task : public ApiRunnable {
 public:
  explicit Task(std::thread::id& destroyedOn) : m_destroyedOn(destroyedOn) {}
  ~Task() override { m_destroyedOn = std::this_thread::get_id(); }
  void run() override {}

 private:
  std::thread::id& m_destroyedOn;
  Counted m_counted;
};

class Worker : public CThread {
 public:
  explicit Worker(ApiRunnable* task = nullptr) {
    if (task != nullptr) {
      keepAlive(*task);
    }
  }
  STATUSCODE Run() override { return 7; }

 private:
  Counted m_counted;
};

class WithoutThreads : public testing::Test {
 protected:
  void SetUp() override { refuses = true; }
};

TEST_F(WithoutThreads, LeavingWithoutWaitingDestroysTheTaskOnTheCallingThread) {
  std::thread::id destroyedOn;
  auto* const task = new Task(destroyedOn);
  task->enter();
  giveUp(task);
  task->leaveWithoutWaiting();
  EXPECT_EQ(Counted::count(), 0);
  EXPECT_EQ(destroyedOn, std::this_thread::get_id());
}

TEST_F(WithoutThreads, StartReportsAndLogsThatThereIsNone) {
  const HeardLog log;
  auto* const worker = new Worker;
  EXPECT_EQ(worker->Start(), THREAD_ERROR_CREATE_FAILED);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].severity, 'E');
  EXPECT_EQ(log.lines()[0].message,
            "Return code from pthread_create: 0xFE34000A (Resource temporarily unavailable)");
  EXPECT_EQ(CThread::RunningCount(), 0U);
  delete worker;
  EXPECT_EQ(Counted::count(), 0);
}

TEST_F(WithoutThreads, AThreadThatDidNotComeAboutIsAsOneNeverStarted) {
  auto* const worker = new Worker;
  ASSERT_EQ(worker->Start(), THREAD_ERROR_CREATE_FAILED);
  unsigned int exitCode = 99;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_ERROR_INVALID_STATE);
  EXPECT_EQ(exitCode, 99U);

  refuses = false;
  EXPECT_EQ(worker->Start(), THREAD_SUCCESS);
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  EXPECT_EQ(exitCode, 7U);
  delete worker;
  EXPECT_TRUE(eventually([] { return CThread::RunningCount() == 0 && Counted::count() == 0; }));
}

TEST_F(WithoutThreads, AThreadThatDidNotComeAboutDoesNotKeepItsTask) {
  std::thread::id destroyedOn;
  auto* const task = new Task(destroyedOn);
  auto* const worker = new Worker(task);
  ASSERT_EQ(worker->Start(), THREAD_ERROR_CREATE_FAILED);
  giveUp(task);
  EXPECT_EQ(Counted::count(), 1);
  delete worker;
  EXPECT_EQ(Counted::count(), 0);
}

/// A thread that is to run at any price.
class MustRun : public CThread {
 public:
  explicit MustRun(std::function<void()> body) : m_body(std::move(body)) { useReserve(); }
  STATUSCODE Run() override {
    m_body();
    return 7;
  }
  /// Waits for the end and deletes the object. @return the exit code.
  static unsigned int finish(MustRun* thread) {
    unsigned int exitCode = 0;
    EXPECT_EQ(thread->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
    delete thread;
    return exitCode;
  }

 private:
  const std::function<void()> m_body;
};

/// There is one thread in reserve and no other.
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
  auto* const thread = new MustRun([&ranOn] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(thread->Start(), THREAD_SUCCESS);
  EXPECT_EQ(MustRun::finish(thread), 7U);
  EXPECT_NE(ranOn, std::thread::id());
  EXPECT_NE(ranOn, std::this_thread::get_id());
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].severity, 'W');
  EXPECT_EQ(log.lines()[0].message,
            "Return code from pthread_create: 0xFE34000A (Resource temporarily unavailable): "
            "the thread in reserve takes over");
}

TEST_F(WithAReserve, OtherThreadsDoNotUseIt) {
  auto* const worker = new Worker;
  EXPECT_EQ(worker->Start(), THREAD_ERROR_CREATE_FAILED);
  delete worker;
}

TEST_F(WithAReserve, AThreadCanBeHadInTheOrdinaryWayFirst) {
  refuses = false;
  auto* const thread = new MustRun([] { EXPECT_EQ(existing, 2); });
  EXPECT_EQ(thread->Start(), THREAD_SUCCESS);
  MustRun::finish(thread);
}

TEST_F(WithAReserve, WhatWaitsIsServedInTheOrderItCame) {
  Gate gate;
  std::vector<int> order;
  std::vector<MustRun*> threads;
  for (int i = 0; i < 5; ++i) {
    threads.push_back(new MustRun([&gate, &order, i] {
      gate.pass();
      order.push_back(i);
    }));
    EXPECT_EQ(threads.back()->Start(), THREAD_SUCCESS);
  }
  gate.open();
  for (MustRun* const thread : threads) {
    MustRun::finish(thread);
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(WithAReserve, OneThatTakesItsTimeHoldsUpNobodyOnceThereAreThreadsAgain) {
  Gate gate;
  Gate isIn;
  auto* const slow = new MustRun([&] {
    isIn.open();
    gate.pass();
  });
  // The reserve itself makes its successor, before it calls the body.
  Gate mayBegin;
  auto* const first = new MustRun([&] {
    mayBegin.pass();
    refuses = false;
  });
  EXPECT_EQ(first->Start(), THREAD_SUCCESS);
  EXPECT_EQ(slow->Start(), THREAD_SUCCESS);
  mayBegin.open();
  isIn.pass();
  refuses = true;
  auto* const next = new MustRun([] {});
  EXPECT_EQ(next->Start(), THREAD_SUCCESS);
  EXPECT_EQ(MustRun::finish(next), 7U);
  gate.open();
  MustRun::finish(first);
  MustRun::finish(slow);
}

TEST_F(WithAReserve, ABodyThatEndsItsThreadIsSucceeded) {
  const int before = made;
  auto* const leaving = new MustRun([] {
    refuses = false;  // none could be had before the body, one can be had after it
    pthread_exit(nullptr);
  });
  EXPECT_EQ(leaving->Start(), THREAD_SUCCESS);
  EXPECT_EQ(MustRun::finish(leaving), CThread::AbnormalExitCode);
  ASSERT_TRUE(eventually([before] { return made == before + 1; }));
  refuses = true;
  auto* const next = new MustRun([] {});
  EXPECT_EQ(next->Start(), THREAD_SUCCESS);
  EXPECT_EQ(MustRun::finish(next), 7U);
}

TEST_F(WithAReserve, ABodyThatEndsTheLastThreadLeavesNoneAndTheNextHolderMakesOne) {
  auto* const leaving = new MustRun([] { pthread_exit(nullptr); });
  EXPECT_EQ(leaving->Start(), THREAD_SUCCESS);
  MustRun::finish(leaving);
  ASSERT_TRUE(eventually([] { return existing == 0; })) << "which includes that it has said so";
  auto* const next = new MustRun([] {});
  EXPECT_EQ(next->Start(), THREAD_ERROR_CREATE_FAILED);
  refuses = false;
  ASSERT_EQ(CReserveThread::create(), 0);
  refuses = true;
  EXPECT_EQ(next->Start(), THREAD_SUCCESS);
  EXPECT_EQ(MustRun::finish(next), 7U);
  CReserveThread::removeHolder();
}

TEST_F(WithAReserve, ATaskKeepsTheReserveForWhatItEndsWith) {
  std::thread::id destroyedOn;
  auto* const task = new Task(destroyedOn);
  CReserveThread::removeHolder();  // the library is taken down meanwhile
  auto* const thread = new MustRun([] {});
  EXPECT_EQ(thread->Start(), THREAD_SUCCESS);
  EXPECT_EQ(MustRun::finish(thread), 7U);
  giveUp(task);
  EXPECT_TRUE(eventually([] { return existing == 0; }));
  CReserveThread::addHolder();  // for TearDown
}

TEST_F(WithAReserve, ATaskThatNobodyMayWaitForIsDestroyedOnIt) {
  std::thread::id destroyedOn;
  auto* const task = new Task(destroyedOn);
  task->enter();
  giveUp(task);
  task->leaveWithoutWaiting();
  EXPECT_TRUE(eventually([] { return Counted::count() == 0; }));
  EXPECT_NE(destroyedOn, std::this_thread::get_id());
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
