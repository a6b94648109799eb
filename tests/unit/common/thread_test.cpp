// Threads: start, end, waiting, and deletion while they run.

#include "vpn/Common/Utility/Thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Gate.h"
#include "tests/unit/common/give_up.h"
#include "tests/unit/common/heard_log.h"
#include "tests/unit/common/worker.h"

using tests::Gate;

namespace {

TEST(Thread, StartRunsTheBodyOnceOnAThreadOfItsOwn) {
  std::vector<std::thread::id> ranOn;
  const auto worker = started([&ranOn] { ranOn.push_back(std::this_thread::get_id()); });
  EXPECT_EQ(worker->Start(), THREAD_ERROR_INVALID_STATE);
  EXPECT_EQ(worker->finish(), 0U);
  EXPECT_EQ(worker->Start(), THREAD_ERROR_INVALID_STATE);
  ASSERT_EQ(ranOn.size(), 1U);
  EXPECT_NE(ranOn[0], std::this_thread::get_id());
}

TEST(Thread, TheExitCodeIsTheLow32BitsOfTheBodysResultAsOftenAsItIsWaitedFor) {
  const auto worker = started([]() -> STATUSCODE { return 0x12345678FE460019; });
  EXPECT_EQ(worker->finish(), 0xFE460019U);
  unsigned int exitCode = 0;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, 0), THREAD_SUCCESS);
  EXPECT_EQ(exitCode, 0xFE460019U);
}

TEST(Thread, SeveralThreadsCanWaitForOne) {
  Gate gate;
  const auto worker = started([&gate]() -> STATUSCODE {
    gate.pass();
    return 5;
  });
  std::atomic<unsigned int> sum{0};
  {
    const auto wait = [&] { sum += worker->finish(); };
    const std::jthread waiters[] = {std::jthread(wait), std::jthread(wait), std::jthread(wait)};
    gate.open();
  }
  EXPECT_EQ(sum, 15U);
}

TEST(Thread, WaitingForOneThatWasNeverStartedIsAnInvalidState) {
  Worker* const worker = new Worker([] {});
  unsigned int exitCode = 99;
  for (const unsigned int limit : {CThread::Infinite, 0U}) {
    EXPECT_EQ(worker->WaitForCompletion(exitCode, limit), THREAD_ERROR_INVALID_STATE);
  }
  EXPECT_EQ(exitCode, 99U);
  delete worker;
  EXPECT_EQ(Counted::count(), 0) << "it goes on the spot";
}

TEST(Thread, AWaitThatRunsOutOfTimeSaysSoAndLeavesTheExitCodeAlone) {
  Gate gate;
  const auto worker = started([&gate]() -> STATUSCODE {
    gate.pass();
    return 3;
  });
  unsigned int exitCode = 99;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, 0), THREAD_ERROR_TIMEOUT);
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(worker->WaitForCompletion(exitCode, 20), THREAD_ERROR_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
  EXPECT_EQ(exitCode, 99U);
  gate.open();
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite - 1), THREAD_SUCCESS);
  EXPECT_EQ(exitCode, 3U);
}

TEST(Thread, AStackThatTheSystemCannotGiveIsReportedByStart) {
  const auto worker = std::make_unique<Worker>([] {}, std::size_t{1} << 60U);
  EXPECT_EQ(worker->Start(), THREAD_ERROR_CREATE_FAILED);
  unsigned int exitCode = 0;
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), THREAD_ERROR_INVALID_STATE);
}

std::size_t stackSizeFor(std::size_t wish) {
  std::size_t size = 0;
  started(
      [&size] {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
          pthread_attr_getstacksize(&attributes, &size);
          pthread_attr_destroy(&attributes);
        }
      },
      wish)
      ->finish();
  return size;
}

TEST(Thread, TheConstructorsArgumentIsTheStackSizeUnlessItIsTooSmall) {
  constexpr std::size_t megabyte = std::size_t{1024} * 1024;
  EXPECT_GE(stackSizeFor(4 * megabyte), 4 * megabyte);
  EXPECT_GE(stackSizeFor(0), DefaultStackSize);
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
  EXPECT_LT(stackSizeFor(0), megabyte);
#endif
  EXPECT_GE(stackSizeFor(1), static_cast<std::size_t>(PTHREAD_STACK_MIN));
}

TEST(Thread, TheHostsSignalsAreBlockedInItAndFaultsAreNot) {
  sigset_t inThread;
  sigemptyset(&inThread);
  EXPECT_EQ(started([&inThread]() -> STATUSCODE {
              return pthread_sigmask(SIG_SETMASK, nullptr, &inThread);
            })->finish(),
            0U);
  for (const int asynchronous : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGALRM, SIGUSR1, SIGPIPE}) {
    EXPECT_EQ(sigismember(&inThread, asynchronous), 1) << asynchronous;
  }
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    EXPECT_EQ(sigismember(&inThread, fault), 0) << fault;
  }
  sigset_t here;
  pthread_sigmask(SIG_SETMASK, nullptr, &here);
  EXPECT_EQ(sigismember(&here, SIGINT), 0);
}

TEST(Thread, ItIsNamedAfterTheSystem) {
  std::string name(16, '\0');
  started([&name] { pthread_getname_np(pthread_self(), name.data(), name.size()); })->finish();
  EXPECT_STREQ(name.c_str(), "ahs");
}

TEST(Thread, AnExceptionThatLeavesTheBodyIsLoggedAndEndsTheThread) {
  const HeardLog log;
  EXPECT_EQ(started([] { throw std::runtime_error("out of luck"); })->finish(), 0xFFFFFFFFU);
  EXPECT_EQ(started([] { throw 5; })->finish(), 0xFFFFFFFFU);
  EXPECT_THAT(log.lines(), testing::ElementsAre("E thread ended by an exception: out of luck",
                                                "E thread ended by an exception: of unknown type"));
}

TEST(Thread, OneThatLeavesThroughPthreadExitHasEndedForItsWaiters) {
  const HeardLog log;
  EXPECT_EQ(started([] { pthread_exit(nullptr); })->finish(), 0xFFFFFFFFU);
  EXPECT_TRUE(log.lines().empty());
}

TEST(Thread, DeletingOneThatRunsReturnsAtOnceAndItGoesWhenItHasEnded) {
  EXPECT_TRUE(everythingIsGone());
  Gate gate;
  const auto body = [&gate] { gate.pass(); };
  Worker* const first = started(body).release();
  Worker* const second = started(body).release();
  delete static_cast<CThread*>(first);
  delete static_cast<IRunnable*>(second);
  EXPECT_EQ(Counted::count(), 2);
  EXPECT_EQ(CThread::RunningCount(), 2U);
  gate.open();
  EXPECT_TRUE(everythingIsGone());
}

TEST(Thread, OneMayBeDeletedByItsOwnBody) {
  std::unique_ptr<Worker> worker;
  worker = std::make_unique<Worker>([&worker] { worker.reset(); });
  ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  EXPECT_TRUE(everythingIsGone());
}

class WorkerThatCannotBeBuilt : public Worker {
 public:
  WorkerThatCannotBeBuilt() : Worker([] {}) { throw std::runtime_error("cannot be built"); }
};

TEST(Thread, AConstructorThatThrowsFreesTheMemoryAndPassesItsExceptionOn) {
  EXPECT_THROW(new WorkerThatCannotBeBuilt, std::runtime_error);
  EXPECT_TRUE(everythingIsGone());
}

TEST(Thread, CloneGivesNothingAndDestroyOnlyLogsThatItIsNotImplemented) {
  const HeardLog log;
  const auto worker = std::make_unique<Worker>([] {});
  EXPECT_EQ(worker->Clone(), nullptr);
  worker->Destroy();
  EXPECT_EQ(worker->Start(), THREAD_SUCCESS);
  EXPECT_THAT(log.lines(), testing::ElementsAre("E IRunnable::Destroy not Implemented"));
}

TEST(Thread, ItKeepsItsTaskUntilTheBodyHasReturnedIfItStarts) {
  for (const bool starts : {true, false}) {
    Task::Place destroyedOn;
    Gate gate;
    const auto isGone = [&] { return destroyedOn.load() != std::thread::id(); };
    bool wasThereInBody = false;
    auto* const task = new Task(destroyedOn);
    const auto worker = std::make_unique<Worker>([&] {
      gate.pass();
      wasThereInBody = !isGone();
    });
    worker->keepAlive(*task);
    EXPECT_EQ(starts ? worker->Start() : THREAD_SUCCESS, THREAD_SUCCESS);
    giveUp(task);
    EXPECT_EQ(isGone(), !starts);
    gate.open();
    if (starts) {
      worker->finish();
      EXPECT_TRUE(wasThereInBody);
    }
    EXPECT_TRUE(isGone());
  }
}

TEST(Thread, WhoHasWaitedAlwaysFindsTheTaskGivenUp) {
  for (int round = 0; round < 500; ++round) {
    Task::Place destroyedOn;
    auto* const task = new Task(destroyedOn);
    const auto worker = std::make_unique<Worker>([] {});
    worker->keepAlive(*task);
    ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
    giveUp(task);
    worker->finish();
    ASSERT_NE(destroyedOn.load(), std::thread::id());
  }
  EXPECT_TRUE(everythingIsGone());
}

}  // namespace
