// Timers on a list that the test's thread services.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/Gate.h"
#include "tests/unit/common/give_up.h"
#include "tests/unit/common/heard_log.h"
#include "tests/unit/common/worker.h"
#include "vpn/Common/Utility/Clock.h"
#include "vpn/Common/Utility/TimerList.h"

using tests::Gate;

namespace {

using tests::eventually;
using SteadyClock = std::chrono::steady_clock;
using Values = std::vector<unsigned long>;
using namespace std::chrono_literals;

/// A list, a thread that services it on demand, and timers that record their calls.
class Timer : public testing::Test {
 protected:
  struct Call {
    unsigned long value;
    SteadyClock::time_point time;
    std::thread::id thread;
  };

  ~Timer() override { end(); }

  void serve() {
    service = std::thread([this] { list->service(); });
  }
  void end() {
    list->close();
    if (service.joinable()) {
      service.join();
    }
  }
  static void record(void* self, unsigned long value) {
    auto* const test = static_cast<Timer*>(self);
    const std::lock_guard<std::mutex> guard(test->lock);
    test->calls.push_back({value, SteadyClock::now(), std::this_thread::get_id()});
  }
  std::unique_ptr<CTimer> timer(unsigned long value, timercb callback = record,
                                void* argument = nullptr) {
    STATUSCODE status = -1;
    auto made = std::make_unique<CTimer>(status, list.get(), callback,
                                         argument != nullptr ? argument : this, value);
    EXPECT_EQ(status, TIMER_SUCCESS);
    return made;
  }
  std::unique_ptr<CTimer> armed(unsigned long value, unsigned long milliseconds,
                                timercb callback = record, void* argument = nullptr) {
    auto made = timer(value, callback, argument);
    EXPECT_EQ(made->StartTimer(milliseconds), TIMER_SUCCESS);
    return made;
  }
  Values values() {
    const std::lock_guard<std::mutex> guard(lock);
    Values all;
    for (const Call& call : calls) {
      all.push_back(call.value);
    }
    return all;
  }
  void expectCalls(const Values& expected) {
    EXPECT_TRUE(eventually([&] { return values().size() >= expected.size(); }));
    EXPECT_EQ(values(), expected);
  }
  Call lastCall() {
    const std::lock_guard<std::mutex> guard(lock);
    return calls.back();
  }

  std::unique_ptr<CTimerList> list = std::make_unique<CTimerList>();
  std::thread service;

 private:
  std::mutex lock;
  std::vector<Call> calls;
};

TEST_F(Timer, ItCallsBackOnceOnTheListsThreadWithBothValues) {
  serve();
  const auto first = armed(4711, 1);
  expectCalls({4711});
  EXPECT_EQ(lastCall().thread, service.get_id());
  // A later expiry of another timer proves that the first does not fire again.
  const auto later = armed(2, 20);
  expectCalls({4711, 2});
}

TEST_F(Timer, ItNeverFiresEarly) {
  serve();
  Values expected;
  for (const unsigned long milliseconds : {0UL, 1UL, 2UL, 7UL, 30UL}) {
    const SteadyClock::time_point before = SteadyClock::now();
    const auto one = armed(milliseconds, milliseconds);
    expected.push_back(milliseconds);
    expectCalls(expected);
    EXPECT_GE(lastCall().time - before, std::chrono::milliseconds(milliseconds));
  }
}

TEST_F(Timer, TimersFireInTheOrderOfTheirExpiry) {
  const auto third = timer(3);
  const auto first = timer(1);
  const auto second = timer(2);
  SteadyClock::time_point start;
  do {  // after a delay the third timer would expire before the second
    start = SteadyClock::now();
    ASSERT_EQ(third->StartTimer(15), TIMER_SUCCESS);
    ASSERT_EQ(first->StartTimer(0), TIMER_SUCCESS);
    ASSERT_EQ(second->StartTimer(5), TIMER_SUCCESS);
  } while (SteadyClock::now() - start >= 10ms);
  std::this_thread::sleep_for(20ms);
  serve();
  expectCalls({1, 2, 3});
}

TEST_F(Timer, AnEarlierTimerOvertakesTheOneThatIsWaitedFor) {
  serve();
  const auto late = armed(2, 60000);
  // Long enough for the list's thread to fall asleep; if it is late, the test proves nothing.
  std::this_thread::sleep_for(50ms);
  const auto soon = armed(1, 1);
  expectCalls({1});
}

TEST_F(Timer, OneThatIsNotStartedOrHasBeenDeletedDoesNotFire) {
  const auto idle = timer(1);
  armed(2, 0).reset();
  const auto fence = armed(3, 5);
  serve();
  expectCalls({3});
}

TEST_F(Timer, StartingItAgainArmsItAnewAndOnce) {
  const auto again = armed(1, 60000);
  ASSERT_EQ(again->StartTimer(0), TIMER_SUCCESS);
  ASSERT_EQ(again->StartTimer(0), TIMER_SUCCESS);
  const auto fence = armed(2, 1);
  serve();
  expectCalls({1, 2});
  ASSERT_EQ(again->StartTimer(1), TIMER_SUCCESS);
  expectCalls({1, 2, 1});
}

TEST_F(Timer, AListThatIsClosedOrGoneRefusesTimersAndFiresNoneOfItsOwn) {
  const auto due = armed(1, 0);
  const auto late = timer(2);
  list->close();
  EXPECT_EQ(late->StartTimer(0), TIMER_ERROR_LIST_CLOSED);
  list->service();
  list = std::make_unique<CTimerList>();
  EXPECT_EQ(late->StartTimer(0), TIMER_ERROR_LIST_CLOSED);
  expectCalls({});
}

TEST_F(Timer, ItMayBeDeletedByItsOwnCallback) {
  static std::unique_ptr<CTimer> own;
  own = timer(0, [](void* self, unsigned long) {
    own.reset();
    record(self, 1);
  });
  ASSERT_EQ(own->StartTimer(1), TIMER_SUCCESS);
  serve();
  expectCalls({1});
}

TEST_F(Timer, DeletingItDoesNotWaitForItsCallback) {
  struct Callback {
    Gate entered;
    Gate deleted;
    std::atomic<bool> left{false};
  } callback;
  serve();
  auto blocked = armed(
      0, 0,
      [](void* self, unsigned long) {
        auto* const own = static_cast<Callback*>(self);
        own->entered.open();
        own->deleted.pass();
        own->left = true;
      },
      &callback);
  callback.entered.pass();
  blocked.reset();
  EXPECT_FALSE(callback.left);
  callback.deleted.open();
  EXPECT_TRUE(eventually([&callback] { return callback.left.load(); }));
  end();
}

TEST_F(Timer, AnExceptionThatLeavesACallbackIsLoggedAndLaterTimersFire) {
  const HeardLog log;
  const auto first =
      armed(0, 0, [](void*, unsigned long) { throw std::runtime_error("out of luck"); });
  const auto second = armed(0, 0, [](void*, unsigned long) { throw 5; });
  const auto third = armed(3, 2);
  serve();
  expectCalls({3});
  EXPECT_THAT(log.lines(),
              testing::ElementsAre("E timer callback ended by an exception: out of luck",
                                   "E timer callback ended by an exception: of unknown type"));
}

/// A task with a timer, like a run; its callback waits at a gate.
class TimedTask : public Task {
 public:
  TimedTask(CTimerList* list, unsigned long milliseconds, Gate& gate, Place& calledOn,
            Place& destroyedOn)
      : Task(destroyedOn), m_gate(gate), m_calledOn(calledOn) {
    STATUSCODE status = -1;
    m_timer = std::make_unique<CTimer>(status, list, expired, this, 0);
    m_timer->keepAlive(*this);
    EXPECT_EQ(m_timer->StartTimer(milliseconds), TIMER_SUCCESS);
  }

 private:
  static void expired(void* self, unsigned long) {
    auto* const task = static_cast<TimedTask*>(self);
    task->m_calledOn = std::this_thread::get_id();
    task->m_gate.pass();
    task->m_uses = task->m_uses + 1;
  }

  Gate& m_gate;
  Place& m_calledOn;
  std::unique_ptr<CTimer> m_timer;
  int m_uses = 0;
};

TEST_F(Timer, ItKeepsItsTaskWhileTheCallbackRunsAndNotWhileItWaits) {
  serve();
  for (const unsigned long milliseconds : {0UL, 60000UL}) {
    Gate gate;
    Task::Place calledOn;
    Task::Place destroyedOn;
    auto* const task = new TimedTask(list.get(), milliseconds, gate, calledOn, destroyedOn);
    if (milliseconds == 0) {
      ASSERT_TRUE(eventually([&] { return calledOn.load() == service.get_id(); }));
    }
    giveUp(task);
    EXPECT_EQ(Counted::count(), milliseconds == 0 ? 1 : 0);
    gate.open();
    EXPECT_TRUE(eventually([] { return Counted::count() == 0; }));
    EXPECT_NE(destroyedOn.load(), service.get_id());
  }
  end();
}

/// Its destructor lasts past the expiry of its timer, which must not fire.
class TaskThatGoesSlowly : public Task {
 public:
  TaskThatGoesSlowly(std::unique_ptr<CTimer> own, std::function<void()> inDestructor)
      : m_timer(std::move(own)), m_inDestructor(std::move(inDestructor)) {
    m_timer->keepAlive(*this);
    EXPECT_EQ(m_timer->StartTimer(0), TIMER_SUCCESS);
  }
  ~TaskThatGoesSlowly() override { m_inDestructor(); }

 private:
  const std::unique_ptr<CTimer> m_timer;
  const std::function<void()> m_inDestructor;
};

TEST_F(Timer, ATaskThatIsBeingDestroyedIsNotCalledBack) {
  delete new TaskThatGoesSlowly(timer(1), [this] {
    const auto fence = armed(2, 5);
    serve();
    expectCalls({2});
    end();
  });
  expectCalls({2});
}

TEST(Clock, ItNeverGoesBackAndAdvancesWithTheMonotonicClock) {
  const auto before = SteadyClock::now();
  const unsigned long start = GetCurrentTimeMillis();
  std::this_thread::sleep_for(15ms);
  const auto passed = std::chrono::milliseconds(GetCurrentTimeMillis() - start);
  EXPECT_GE(passed, 14ms);
  EXPECT_LE(passed, SteadyClock::now() - before + 1ms);
}

}  // namespace
