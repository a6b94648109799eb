// The process's execution context: counted acquisitions, and its end.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/Gate.h"
#include "tests/unit/common/counted.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/InstanceSmartPtr.h"

using tests::Gate;

namespace {

using tests::eventually;

void count(void* counter, unsigned long) { ++*static_cast<std::atomic<int>*>(counter); }

class ExecutionContext : public testing::Test {
 protected:
  static CExecutionContext* acquired() { return CExecutionContext::acquireInstance(API_INSTANCE); }

  /// Creates it. @return it with one more acquisition.
  static CExecutionContext* created() {
    EXPECT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
    return acquired();
  }
  ~ExecutionContext() override {
    EXPECT_TRUE(eventually([] { return CThread::RunningCount() == 0; }));
    EXPECT_EQ(acquired(), nullptr);
  }

  STATUSCODE status = -1;
  std::atomic<int> fired{0};
};

TEST_F(ExecutionContext, ItExistsFromItsCreationUntilItsLastRelease) {
  EXPECT_EQ(acquired(), nullptr);
  CExecutionContext* const first = created();
  EXPECT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(acquired(), first);
  first->releaseInstance();
  first->releaseInstance();
  EXPECT_EQ(CThread::RunningCount(), 1U);
  first->releaseInstance();
}

TEST_F(ExecutionContext, ItServicesTimersUntilItsEndAndIsOutlivedByThem) {
  CExecutionContext* const context = created();
  CTimer timer(status, &context->GetTimerList(), count, &fired, 0);
  ASSERT_EQ(status, TIMER_SUCCESS);
  ASSERT_EQ(timer.StartTimer(1), TIMER_SUCCESS);
  EXPECT_TRUE(eventually([this] { return fired == 1; }));
  ASSERT_EQ(timer.StartTimer(60000), TIMER_SUCCESS);
  context->releaseInstance();
  context->releaseInstance();
  EXPECT_TRUE(eventually([] { return CThread::RunningCount() == 0; }));
  EXPECT_EQ(fired, 1);
  EXPECT_EQ(timer.StartTimer(0), TIMER_ERROR_LIST_CLOSED);
}

struct SlowCallback {
  Gate entered;
  Gate gate;
  bool foundAContext = true;

  static void run(void* self, unsigned long) {
    auto* const callback = static_cast<SlowCallback*>(self);
    callback->entered.open();
    callback->gate.pass();
    callback->foundAContext = CExecutionContext::acquireInstance(API_INSTANCE) != nullptr;
  }
};

TEST_F(ExecutionContext, TheLastReleaseWaitsForACallbackUnderWay) {
  CExecutionContext* const context = created();
  SlowCallback callback;
  CTimer timer(status, &context->GetTimerList(), SlowCallback::run, &callback, 0);
  CTimer late(status, &context->GetTimerList(), SlowCallback::run, &callback, 0);
  ASSERT_EQ(timer.StartTimer(0), TIMER_SUCCESS);
  callback.entered.pass();
  context->releaseInstance();

  std::atomic<bool> released{false};
  std::thread releaser([&released, context] {
    context->releaseInstance();
    released = true;
  });
  // Once the release has begun, the list accepts no timer.
  EXPECT_TRUE(eventually([&late] { return late.StartTimer(60000) == TIMER_ERROR_LIST_CLOSED; }));
  EXPECT_EQ(acquired(), nullptr);
  EXPECT_FALSE(released);
  callback.gate.open();
  releaser.join();
  EXPECT_FALSE(callback.foundAContext) << "it has come to its end";
}

TEST_F(ExecutionContext, TheLastReleaseOnTheTimerThreadWaitsForNothing) {
  CExecutionContext* const context = created();
  const auto release = [](void* self, unsigned long) {
    static_cast<CExecutionContext*>(self)->releaseInstance();
  };
  CTimer timer(status, &context->GetTimerList(), release, context, 0);
  context->releaseInstance();
  ASSERT_EQ(timer.StartTimer(1), TIMER_SUCCESS);
  EXPECT_TRUE(eventually([] { return CThread::RunningCount() == 0; }));
}

TEST_F(ExecutionContext, ItMayBeCreatedAndReleasedAgainAndAgainByManyThreads) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 200; ++round) {
        const bool isOurs =
            CExecutionContext::createInstance(API_INSTANCE) == EXECUTIONCONTEXT_SUCCESS;
        if (CExecutionContext* const context = acquired(); context != nullptr) {
          STATUSCODE own = -1;
          const CTimer timer(own, &context->GetTimerList(), count, nullptr, 0);
          EXPECT_EQ(own, TIMER_SUCCESS);
          context->releaseInstance();
          if (isOurs) {
            context->releaseInstance();
          }
        }
      }
    });
  }
}

TEST_F(ExecutionContext, ASmartPointerReleasesItAtTheEndOfItsScope) {
  using Pointer = CInstanceSmartPtr<CExecutionContext>;
  EXPECT_EQ(Pointer(API_INSTANCE), nullptr);
  CExecutionContext* const context = created();
  const Pointer instance(API_INSTANCE);
  EXPECT_EQ(&*instance, context);
  context->releaseInstance();
  context->releaseInstance();
}

}  // namespace
