// What becomes of objects when the system gives no thread: this program brings its own
// startDetachedThread, which refuses as long as it is told to.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "tests/unit/common/counted.h"
#include "tests/unit/common/give_up.h"
#include "tests/unit/common/heard_log.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/Thread.h"

namespace {

std::atomic<bool> refuses{true};

}  // namespace

int startDetachedThread(void* (*body)(void*), void* argument, std::size_t) noexcept {
  if (refuses) {
    return EAGAIN;
  }
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, body, argument);
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
      KeepAlive(*task);
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
