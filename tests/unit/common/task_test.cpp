// What threads work for: the task of who started them.

#include "vpn/Common/Utility/Task.h"

#include <gtest/gtest.h>

#include <future>
#include <utility>

#include "tests/unit/common/worker.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/TimerList.h"

namespace {

TEST(Task, IsThatOfTheInnermostScope) {
  const auto outer = std::make_shared<CTask>();
  const auto inner = std::make_shared<CTask>();
  EXPECT_EQ(CTask::current(), nullptr);
  {
    const CTask::Scope scope(outer);
    {
      const CTask::Scope innerScope(inner);
      EXPECT_EQ(CTask::current(), inner);
    }
    EXPECT_EQ(CTask::current(), outer);
    const CTask::Scope none(nullptr);
    EXPECT_EQ(CTask::current(), nullptr);
  }
  EXPECT_EQ(CTask::current(), nullptr);
}

TEST(Task, IsInheritedByThreadsThatThreadsStart) {
  const auto task = std::make_shared<CTask>();
  std::shared_ptr<CTask> seen;
  {
    const CTask::Scope scope(task);
    started([&seen] { started([&seen] { seen = CTask::current(); })->finish(); })->finish();
  }
  EXPECT_EQ(seen, task);
  started([&seen] { seen = CTask::current(); })->finish();
  EXPECT_EQ(seen, nullptr) << "a thread that is started by one without a task";
}

TEST(Task, OfATimersCallbackIsThatOfTheThreadWhichArmedIt) {
  using Promise = std::promise<std::shared_ptr<CTask>>;
  const auto task = std::make_shared<CTask>();
  Promise seen;
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  CExecutionContext* const context = CExecutionContext::acquireInstance(API_INSTANCE);
  {
    STATUSCODE status = -1;
    const auto tell = [](void* promise, unsigned long) {
      static_cast<Promise*>(promise)->set_value(CTask::current());
    };
    CTimer timer(status, &context->GetTimerList(), tell, &seen, 0);
    const CTask::Scope scope(task);
    ASSERT_EQ(timer.StartTimer(1), TIMER_SUCCESS);
    EXPECT_EQ(seen.get_future().get(), task);
  }
  context->releaseInstance();
  context->releaseInstance();
  EXPECT_EQ(task.use_count(), 1) << "the timer thread has let it go";
}

TEST(Task, LivesUntilTheLastThreadHasLeftIt) {
  auto task = std::make_shared<CTask>();
  const std::weak_ptr<CTask> watched = task;
  std::promise<void> goOn;
  const auto worker = std::make_unique<Worker>([&goOn] { goOn.get_future().wait(); });
  {
    const CTask::Scope scope(std::move(task));
    ASSERT_EQ(worker->Start(), THREAD_SUCCESS);
  }
  EXPECT_FALSE(watched.expired());
  goOn.set_value();
  worker->finish();
  EXPECT_TRUE(tests::eventually([] { return CThread::RunningCount() == 0; }));
  EXPECT_TRUE(watched.expired());
}

}  // namespace
