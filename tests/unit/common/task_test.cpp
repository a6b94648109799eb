// What threads work for: the task of who started them.

#include "vpn/Common/Utility/Task.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <utility>

#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/Common/Utility/TimerList.h"

namespace {

class Working : public CThread {
 public:
  explicit Working(std::function<void()> work) : m_work(std::move(work)) {}
  STATUSCODE Run() override {
    m_work();
    return 0;
  }

 private:
  const std::function<void()> m_work;
};

/// Runs `work` on a thread that this one starts.
void onAnotherThread(const std::function<void()>& work) {
  auto* const thread = new Working(work);
  unsigned int exitCode = 0;
  EXPECT_EQ(thread->Start(), THREAD_SUCCESS);
  EXPECT_EQ(thread->WaitForCompletion(exitCode, CThread::Infinite), THREAD_SUCCESS);
  delete thread;
}

}  // namespace

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
    onAnotherThread([&seen] { onAnotherThread([&seen] { seen = CTask::current(); }); });
  }
  EXPECT_EQ(seen, task);
  onAnotherThread([&seen] { seen = CTask::current(); });
  EXPECT_EQ(seen, nullptr) << "a thread that is started by one without a task";
}

TEST(Task, OfATimersCallbackIsThatOfTheThreadWhichArmedIt) {
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  CExecutionContext* const context = CExecutionContext::acquireInstance(API_INSTANCE);
  const auto task = std::make_shared<CTask>();
  std::promise<std::shared_ptr<CTask>> seen;
  STATUSCODE status = -1;
  {
    CTimer timer(
        status, &context->GetTimerList(),
        [](void* promise, unsigned long) {
          static_cast<std::promise<std::shared_ptr<CTask>>*>(promise)->set_value(CTask::current());
        },
        &seen, 0);
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
  auto* const thread = new Working([&goOn] { goOn.get_future().wait(); });
  {
    const CTask::Scope scope(std::move(task));
    ASSERT_EQ(thread->Start(), THREAD_SUCCESS);
  }
  EXPECT_FALSE(watched.expired());
  goOn.set_value();
  unsigned int exitCode = 0;
  thread->WaitForCompletion(exitCode, CThread::Infinite);
  delete thread;
  while (CThread::RunningCount() > 0) {
  }
  EXPECT_TRUE(watched.expired());
}
