// The process's execution context: counted acquisitions, and its end.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "tests/unit/common/counted.h"
#include "tests/unit/common/gate.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/InstanceSmartPtr.h"

namespace {

bool noThreadIsLeft() {
  return eventually([] { return CThread::RunningCount() == 0; });
}

void count(void* counter, unsigned long) { ++*static_cast<std::atomic<int>*>(counter); }

TEST(ExecutionContext, ThereIsNoneBeforeItIsCreated) {
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), nullptr);
}

TEST(ExecutionContext, ItExistsUntilItsLastRelease) {
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  EXPECT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS);
  CExecutionContext* const first = CExecutionContext::acquireInstance(API_INSTANCE);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), first);
  first->releaseInstance();
  first->releaseInstance();
  EXPECT_EQ(CThread::RunningCount(), 1U);
  first->releaseInstance();
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), nullptr);
  EXPECT_TRUE(noThreadIsLeft());
}

TEST(ExecutionContext, ItServicesTimersWhileItsUserIsBlocked) {
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  {
    std::atomic<int> fired{0};
    CInstanceSmartPtr<CExecutionContext> context(API_INSTANCE);
    ASSERT_FALSE(context == nullptr);
    STATUSCODE status = -1;
    CTimer timer(status, &context->GetTimerList(), count, &fired, 0);
    ASSERT_EQ(status, TIMER_SUCCESS);
    ASSERT_EQ(timer.StartTimer(1), TIMER_SUCCESS);
    EXPECT_TRUE(eventually([&fired] { return fired == 1; }));
  }
  CExecutionContext* const context = CExecutionContext::acquireInstance(API_INSTANCE);
  ASSERT_NE(context, nullptr);
  context->releaseInstance();
  context->releaseInstance();
  EXPECT_TRUE(noThreadIsLeft());
}

TEST(ExecutionContext, ATimerThatIsArmedAtTheEndNeverFiresAndMayOutliveIt) {
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  CExecutionContext* const context = CExecutionContext::acquireInstance(API_INSTANCE);
  ASSERT_NE(context, nullptr);
  std::atomic<int> fired{0};
  STATUSCODE status = -1;
  CTimer timer(status, &context->GetTimerList(), count, &fired, 0);
  ASSERT_EQ(timer.StartTimer(60000), TIMER_SUCCESS);
  context->releaseInstance();
  context->releaseInstance();
  EXPECT_TRUE(noThreadIsLeft());
  EXPECT_EQ(fired, 0);
  EXPECT_EQ(timer.StartTimer(0), TIMER_ERROR_LIST_CLOSED);
}

struct SlowCallback {
  Gate gate;
  std::atomic<bool> entered{false};
  std::atomic<bool> left{false};
  std::atomic<bool> foundAContext{true};

  static void run(void* self, unsigned long) {
    auto* const callback = static_cast<SlowCallback*>(self);
    callback->entered = true;
    callback->gate.pass();
    callback->foundAContext = CExecutionContext::acquireInstance(API_INSTANCE) != nullptr;
    callback->left = true;
  }
};

TEST(ExecutionContext, TheLastReleaseWaitsForACallbackUnderWay) {
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  CExecutionContext* const context = CExecutionContext::acquireInstance(API_INSTANCE);
  ASSERT_NE(context, nullptr);
  SlowCallback callback;
  STATUSCODE status = -1;
  CTimer timer(status, &context->GetTimerList(), SlowCallback::run, &callback, 0);
  CTimer late(status, &context->GetTimerList(), SlowCallback::run, &callback, 0);
  ASSERT_EQ(timer.StartTimer(0), TIMER_SUCCESS);
  ASSERT_TRUE(eventually([&callback] { return callback.entered.load(); }));
  context->releaseInstance();

  std::atomic<bool> released{false};
  std::thread releaser([&released, context] {
    context->releaseInstance();
    released = true;
  });
  // A list that takes no timer shows that the release has begun.
  EXPECT_TRUE(eventually([&late] { return late.StartTimer(60000) == TIMER_ERROR_LIST_CLOSED; }));
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), nullptr);
  EXPECT_FALSE(released);
  callback.gate.open();
  releaser.join();
  EXPECT_TRUE(callback.left);
  EXPECT_FALSE(callback.foundAContext);
  EXPECT_TRUE(noThreadIsLeft());
}

struct ReleasingCallback {
  CExecutionContext* context = nullptr;
  std::atomic<bool> done{false};

  static void run(void* self, unsigned long) {
    auto* const callback = static_cast<ReleasingCallback*>(self);
    callback->context->releaseInstance();
    callback->done = true;
  }
};

TEST(ExecutionContext, TheLastReleaseOnTheTimerThreadWaitsForNothing) {
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  ReleasingCallback callback;
  callback.context = CExecutionContext::acquireInstance(API_INSTANCE);
  ASSERT_NE(callback.context, nullptr);
  STATUSCODE status = -1;
  CTimer timer(status, &callback.context->GetTimerList(), ReleasingCallback::run, &callback, 0);
  callback.context->releaseInstance();
  ASSERT_EQ(timer.StartTimer(1), TIMER_SUCCESS);
  EXPECT_TRUE(eventually([&callback] { return callback.done.load(); }));
  EXPECT_TRUE(noThreadIsLeft());
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), nullptr);
}

TEST(ExecutionContext, ItMayBeCreatedAndReleasedAgainAndAgainByManyThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 200; ++round) {
        const bool created =
            CExecutionContext::createInstance(API_INSTANCE) == EXECUTIONCONTEXT_SUCCESS;
        CExecutionContext* const context = CExecutionContext::acquireInstance(API_INSTANCE);
        if (context != nullptr) {
          std::atomic<int> fired{0};
          STATUSCODE status = -1;
          const CTimer timer(status, &context->GetTimerList(), count, &fired, 0);
          EXPECT_EQ(status, TIMER_SUCCESS);
          context->releaseInstance();
        }
        if (created) {
          context->releaseInstance();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(noThreadIsLeft());
  EXPECT_EQ(CExecutionContext::acquireInstance(API_INSTANCE), nullptr);
}

/// A counted singleton, as CInstanceSmartPtr wants one.
class Singleton {
 public:
  static Singleton* acquireInstance(bool exists) {
    acquisitions() += exists ? 1 : 0;
    static Singleton singleton;
    return exists ? &singleton : nullptr;
  }
  void releaseInstance() { --acquisitions(); }
  static int& acquisitions() {
    static int count = 0;
    return count;
  }
};

TEST(InstanceSmartPtr, ItReleasesWhatItHasAcquiredAtTheEndOfItsScope) {
  {
    const CInstanceSmartPtr<Singleton> instance(true);
    EXPECT_FALSE(instance == nullptr);
    EXPECT_TRUE(instance != nullptr);
    EXPECT_EQ(&*instance, instance.operator->());
    EXPECT_EQ(Singleton::acquisitions(), 1);
  }
  EXPECT_EQ(Singleton::acquisitions(), 0);
}

TEST(InstanceSmartPtr, ItReleasesNothingWhenTheAcquisitionFailed) {
  {
    const CInstanceSmartPtr<Singleton> instance(false);
    EXPECT_TRUE(instance == nullptr);
  }
  EXPECT_EQ(Singleton::acquisitions(), 0);
}

}  // namespace
