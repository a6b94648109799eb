// Threads: start, end, waiting, and deletion while they run.

#include "vpn/Common/Utility/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/common/counted.h"
#include "tests/unit/common/gate.h"
#include "tests/unit/common/heard_log.h"
#include "vpn/Common/Utility/ApiRunnable.h"

namespace {

class Worker : public CThread {
 public:
  explicit Worker(std::function<STATUSCODE()> body, std::size_t stackSize = 0)
      : CThread(stackSize), m_body(std::move(body)) {}
  STATUSCODE Run() override { return m_body(); }
  using CThread::keepAlive;

 private:
  std::function<STATUSCODE()> m_body;
  Counted m_counted;
};

class Task : public ApiRunnable {
 public:
  explicit Task(std::atomic<bool>& isGone) : m_isGone(isGone) {}
  ~Task() override { m_isGone = true; }
  void run() override {}

 private:
  std::atomic<bool>& m_isGone;
};

bool everythingIsGone() {
  return eventually([] { return CThread::RunningCount() == 0 && Counted::count() == 0; });
}

TEST(Thread, StartRunsTheBodyOnAThreadOfItsOwn) {
  std::thread::id ranOn;
  auto* const worker = new Worker([&ranOn]() -> STATUSCODE {
    ranOn = std::this_thread::get_id();
    return 0;
  });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  unsigned int exitCode = 99;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  EXPECT_EQ(exitCode, 0U);
  EXPECT_NE(ranOn, std::thread::id());
  EXPECT_NE(ranOn, std::this_thread::get_id());
  delete worker;
  EXPECT_TRUE(everythingIsGone());
}

TEST(Thread, TheExitCodeIsTheLow32BitsOfTheBodysResult) {
  auto* const worker = new Worker([]() -> STATUSCODE { return 0x12345678FE460019; });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  unsigned int exitCode = 0;
  ASSERT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  EXPECT_EQ(exitCode, 0xFE460019U);
  delete worker;
}

TEST(Thread, ItCanBeWaitedForMoreThanOnce) {
  auto* const worker = new Worker([]() -> STATUSCODE { return 5; });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  for (int i = 0; i < 3; ++i) {
    unsigned int exitCode = 0;
    EXPECT_EQ(worker->WaitForCompletion(exitCode, i == 0 ? CThread::Infinite : 0U), THREAD_SUCCESS);
    EXPECT_EQ(exitCode, 5U);
  }
  delete worker;
}

TEST(Thread, SeveralThreadsCanWaitForOne) {
  Gate gate;
  auto* const worker = new Worker([&gate]() -> STATUSCODE {
    gate.pass();
    return 5;
  });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  std::atomic<unsigned int> sum{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([worker, &sum] {
      unsigned int exitCode = 0;
      worker->WaitForCompletion(exitCode, CThread::Infinite);
      sum += exitCode;
    });
  }
  gate.open();
  for (std::thread& waiter : waiters) {
    waiter.join();
  }
  EXPECT_EQ(sum, 15U);
  delete worker;
}

TEST(Thread, WaitingForOneThatWasNeverStartedIsAnInvalidState) {
  auto* const worker = new Worker([]() -> STATUSCODE { return 0; });
  unsigned int exitCode = 99;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_ERROR_INVALID_STATE);
  EXPECT_EQ(worker->WaitForCompletion(exitCode, 0), THREAD_ERROR_INVALID_STATE);
  EXPECT_EQ(exitCode, 99U);
  delete worker;
}

TEST(Thread, AWaitThatRunsOutOfTimeSaysSoAndLeavesTheExitCodeAlone) {
  Gate gate;
  auto* const worker = new Worker([&gate]() -> STATUSCODE {
    gate.pass();
    return 3;
  });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  unsigned int exitCode = 99;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, 0), THREAD_ERROR_TIMEOUT);
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(worker->WaitForCompletion(exitCode, 20), THREAD_ERROR_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
  EXPECT_EQ(exitCode, 99U);
  gate.open();
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite - 1), THREAD_SUCCESS);
  EXPECT_EQ(exitCode, 3U);
  delete worker;
}

TEST(Thread, ItStartsOnlyOnce) {
  std::atomic<int> runs{0};
  auto* const worker = new Worker([&runs]() -> STATUSCODE { return ++runs; });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  EXPECT_EQ(worker->Start(), THREAD_ERROR_INVALID_STATE);
  unsigned int exitCode = 0;
  ASSERT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  EXPECT_EQ(worker->Start(), THREAD_ERROR_INVALID_STATE);
  EXPECT_EQ(runs, 1);
  delete worker;
}

TEST(Thread, AStackThatTheSystemCannotGiveIsReportedByStart) {
  auto* const worker = new Worker([]() -> STATUSCODE { return 0; }, std::size_t{1} << 60U);
  EXPECT_EQ(worker->Start(), THREAD_ERROR_CREATE_FAILED);
  unsigned int exitCode = 0;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_ERROR_INVALID_STATE);
  delete worker;
  EXPECT_TRUE(everythingIsGone());
}

std::size_t stackSizeOfThisThread() {
  pthread_attr_t attributes;
  std::size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
  }
  return size;
}

std::size_t stackSizeFor(std::size_t wish) {
  std::size_t size = 0;
  auto* const worker = new Worker(
      [&size]() -> STATUSCODE {
        size = stackSizeOfThisThread();
        return 0;
      },
      wish);
  EXPECT_EQ(worker->Start(), THREAD_SUCCESS);
  unsigned int exitCode = 0;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  delete worker;
  return size;
}

TEST(Thread, TheConstructorsArgumentIsTheStackSize) {
  constexpr std::size_t megabyte = std::size_t{1024} * 1024;
  EXPECT_GE(stackSizeFor(4 * megabyte), 4 * megabyte);
  EXPECT_GE(stackSizeFor(0), DefaultStackSize);
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
  EXPECT_LT(stackSizeFor(0), megabyte);
#endif
}

TEST(Thread, AStackTooSmallForTheSystemIsRaised) {
  EXPECT_GE(stackSizeFor(1), static_cast<std::size_t>(PTHREAD_STACK_MIN));
}

TEST(Thread, TheHostsSignalsAreBlockedInItAndFaultsAreNot) {
  sigset_t inThread;
  sigemptyset(&inThread);
  auto* const worker = new Worker(
      [&inThread]() -> STATUSCODE { return pthread_sigmask(SIG_SETMASK, nullptr, &inThread); });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  unsigned int exitCode = 1;
  ASSERT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  ASSERT_EQ(exitCode, 0U);
  for (const int asynchronous : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGALRM, SIGUSR1, SIGPIPE}) {
    EXPECT_EQ(sigismember(&inThread, asynchronous), 1) << asynchronous;
  }
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    EXPECT_EQ(sigismember(&inThread, fault), 0) << fault;
  }
  sigset_t here;
  pthread_sigmask(SIG_SETMASK, nullptr, &here);
  EXPECT_EQ(sigismember(&here, SIGINT), 0);
  delete worker;
}

TEST(Thread, ItIsNamedAfterTheSystem) {
  std::string name(16, '\0');
  auto* const worker = new Worker([&name]() -> STATUSCODE {
    return pthread_getname_np(pthread_self(), name.data(), name.size());
  });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  unsigned int exitCode = 1;
  ASSERT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  EXPECT_STREQ(name.c_str(), "ahs");
  delete worker;
}

unsigned int exitCodeOf(const std::function<STATUSCODE()>& body) {
  auto* const worker = new Worker(body);
  EXPECT_EQ(worker->Start(), THREAD_SUCCESS);
  unsigned int exitCode = 0;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  delete worker;
  EXPECT_TRUE(everythingIsGone());
  return exitCode;
}

TEST(Thread, AnExceptionThatLeavesTheBodyIsLoggedAndEndsTheThread) {
  const HeardLog log;
  EXPECT_EQ(exitCodeOf([]() -> STATUSCODE { throw std::runtime_error("out of luck"); }),
            0xFFFFFFFFU);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].severity, 'E');
  EXPECT_EQ(log.lines()[0].message, "thread ended by an exception: out of luck");
}

TEST(Thread, AnExceptionThatIsNoObjectIsCaughtToo) {
  const HeardLog log;
  EXPECT_EQ(exitCodeOf([]() -> STATUSCODE { throw 5; }), 0xFFFFFFFFU);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].message, "thread ended by an exception: of unknown type");
}

TEST(Thread, OneThatLeavesThroughPthreadExitHasEndedForItsWaiters) {
  const HeardLog log;
  EXPECT_EQ(exitCodeOf([]() -> STATUSCODE { pthread_exit(nullptr); }), 0xFFFFFFFFU);
  EXPECT_TRUE(log.lines().empty());
}

TEST(Thread, DeletingOneThatRunsReturnsAtOnceAndItGoesWhenItHasEnded) {
  Gate gate;
  auto* const worker = new Worker([&gate]() -> STATUSCODE {
    gate.pass();
    return 0;
  });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  delete worker;
  EXPECT_EQ(Counted::count(), 1);
  EXPECT_EQ(CThread::RunningCount(), 1U);
  gate.open();
  EXPECT_TRUE(everythingIsGone());
}

TEST(Thread, OneMayBeDeletedByItsOwnBody) {
  Worker* worker = nullptr;
  worker = new Worker([&worker]() -> STATUSCODE {
    delete worker;
    return Counted::count() == 1 ? 0 : 1;
  });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  EXPECT_TRUE(everythingIsGone());
}

TEST(Thread, DeletingOneThatWasNeverStartedDestroysItOnTheSpot) {
  auto* const worker = new Worker([]() -> STATUSCODE { return 0; });
  delete worker;
  EXPECT_EQ(Counted::count(), 0);
}

TEST(Thread, ItCanBeDeletedThroughEachOfItsBases) {
  Gate gate;
  const auto body = [&gate]() -> STATUSCODE {
    gate.pass();
    return 0;
  };
  auto* const first = new Worker(body);
  auto* const second = new Worker(body);
  ASSERT_EQ(first->Start(), THREAD_SUCCESS);
  ASSERT_EQ(second->Start(), THREAD_SUCCESS);
  delete static_cast<CThread*>(first);
  delete static_cast<IRunnable*>(second);
  EXPECT_EQ(Counted::count(), 2);
  gate.open();
  EXPECT_TRUE(everythingIsGone());
  const std::unique_ptr<IRunnable> owned(new Worker(body));
}

class WorkerThatCannotBeBuilt : public Worker {
 public:
  WorkerThatCannotBeBuilt() : Worker([]() -> STATUSCODE { return 0; }) {
    throw std::runtime_error("cannot be built");
  }
};

TEST(Thread, AConstructorThatThrowsFreesTheMemoryAndPassesItsExceptionOn) {
  EXPECT_THROW(new WorkerThatCannotBeBuilt, std::runtime_error);
  EXPECT_EQ(Counted::count(), 0);
}

TEST(Thread, CloneGivesNothing) {
  auto* const worker = new Worker([]() -> STATUSCODE { return 0; });
  EXPECT_EQ(worker->Clone(), nullptr);
  delete worker;
}

TEST(Thread, DestroyOnlyLogsThatItIsNotImplemented) {
  const HeardLog log;
  auto* const worker = new Worker([]() -> STATUSCODE { return 0; });
  worker->Destroy();
  EXPECT_EQ(Counted::count(), 1);
  delete worker;
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].function, "Destroy");
  EXPECT_EQ(log.lines()[0].file, "vpn/Common/Utility/Thread");
  EXPECT_EQ(log.lines()[0].severity, 'E');
  EXPECT_EQ(log.lines()[0].message, "IRunnable::Destroy not Implemented");
}

TEST(Thread, ItKeepsItsTaskUntilTheBodyHasReturned) {
  std::atomic<bool> isGone{false};
  Gate gate;
  bool wasThereInBody = false;
  auto* const task = new Task(isGone);
  auto* const worker = new Worker([&]() -> STATUSCODE {
    gate.pass();
    wasThereInBody = !isGone;
    return 0;
  });
  worker->keepAlive(*task);
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  delete task;
  EXPECT_FALSE(isGone);
  gate.open();
  unsigned int exitCode = 0;
  ASSERT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  EXPECT_TRUE(wasThereInBody);
  EXPECT_TRUE(isGone) << "a waiter must find the task given up";
  delete worker;
}

TEST(Thread, OneThatNeverStartsDoesNotKeepItsTask) {
  std::atomic<bool> isGone{false};
  auto* const task = new Task(isGone);
  auto* const worker = new Worker([]() -> STATUSCODE { return 0; });
  worker->keepAlive(*task);
  delete task;
  EXPECT_TRUE(isGone);
  delete worker;
}

TEST(Thread, WhoHasWaitedAlwaysFindsTheTaskGivenUp) {
  for (int round = 0; round < 500; ++round) {
    std::atomic<bool> isGone{false};
    auto* const task = new Task(isGone);
    auto* const worker = new Worker([]() -> STATUSCODE { return 0; });
    worker->keepAlive(*task);
    ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
    delete task;
    unsigned int exitCode = 0;
    ASSERT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
    ASSERT_TRUE(isGone);
    delete worker;
  }
  EXPECT_TRUE(everythingIsGone());
}

TEST(Thread, DeletionMayMeetTheEndAtAnyMoment) {
  std::minstd_rand random(20240501);
  for (int round = 0; round < 5000; ++round) {
    const auto inBody = static_cast<unsigned int>(random() % 20000);
    auto* const worker = new Worker([inBody]() -> STATUSCODE {
      spin(inBody);
      return 0;
    });
    ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
    spin(static_cast<unsigned int>(random() % 60000));
    if (round % 3 == 0) {
      unsigned int exitCode = 0;
      ASSERT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
    }
    delete worker;
  }
  EXPECT_TRUE(everythingIsGone());
}

TEST(Thread, AThousandRunAtOnce) {
  constexpr int count = 1000;
  Gate gate;
  std::vector<Worker*> workers;
  for (int i = 0; i < count; ++i) {
    workers.push_back(new Worker([&gate]() -> STATUSCODE {
      gate.pass();
      return 1;
    }));
    ASSERT_EQ(workers.back()->Start(), THREAD_SUCCESS);
  }
  EXPECT_EQ(CThread::RunningCount(), static_cast<unsigned int>(count));
  gate.open();
  unsigned int sum = 0;
  for (Worker* const worker : workers) {
    unsigned int exitCode = 0;
    ASSERT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
    sum += exitCode;
    delete worker;
  }
  EXPECT_EQ(sum, static_cast<unsigned int>(count));
  EXPECT_TRUE(everythingIsGone());
}

}  // namespace
