// Timers on a list that a thread of the test services.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/unit/common/counted.h"
#include "tests/unit/common/gate.h"
#include "tests/unit/common/heard_log.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/Clock.h"
#include "vpn/Common/Utility/TimerList.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

/// A list and the thread that services it.
class ServicedList {
 public:
  ServicedList() : m_thread([this] { m_list.service(); }) {}
  ~ServicedList() { end(); }
  ServicedList(const ServicedList&) = delete;
  ServicedList& operator=(const ServicedList&) = delete;

  void end() {
    m_list.close();
    if (m_thread.joinable()) {
      m_thread.join();
    }
  }
  CTimerList* list() { return &m_list; }
  std::thread::id threadId() const { return m_thread.get_id(); }

 private:
  CTimerList m_list;
  std::thread m_thread;
};

/// What callbacks leave behind, in their order.
class Calls {
 public:
  static void record(void* calls, unsigned long value) { static_cast<Calls*>(calls)->add(value); }

  void add(unsigned long value) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_values.push_back(value);
    m_last = SteadyClock::now();
    m_lastThread = std::this_thread::get_id();
  }
  std::vector<unsigned long> values() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_values;
  }
  SteadyClock::time_point last() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_last;
  }
  std::thread::id lastThread() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_lastThread;
  }
  bool waitFor(std::size_t count) const {
    return eventually([this, count] { return values().size() >= count; });
  }

 private:
  mutable std::mutex m_lock;
  std::vector<unsigned long> m_values;
  SteadyClock::time_point m_last;
  std::thread::id m_lastThread;
};

std::unique_ptr<CTimer> timerFor(CTimerList* list, Calls& calls, unsigned long value) {
  STATUSCODE status = -1;
  auto timer = std::make_unique<CTimer>(status, list, Calls::record, &calls, value);
  EXPECT_EQ(status, TIMER_SUCCESS);
  return timer;
}

TEST(Timer, ItCallsBackOnceOnTheListsThreadWithBothValues) {
  Calls calls;
  ServicedList serviced;
  const auto timer = timerFor(serviced.list(), calls, 4711);
  ASSERT_EQ(timer->StartTimer(1), TIMER_SUCCESS);
  ASSERT_TRUE(calls.waitFor(1));
  EXPECT_EQ(calls.values(), std::vector<unsigned long>{4711});
  EXPECT_EQ(calls.lastThread(), serviced.threadId());
  // Another timer that expires later shows that the first does not fire again.
  const auto later = timerFor(serviced.list(), calls, 2);
  ASSERT_EQ(later->StartTimer(20), TIMER_SUCCESS);
  ASSERT_TRUE(calls.waitFor(2));
  EXPECT_EQ(calls.values(), (std::vector<unsigned long>{4711, 2}));
}

TEST(Timer, ItNeverFiresEarly) {
  for (const unsigned long milliseconds : {0UL, 1UL, 2UL, 7UL, 30UL}) {
    Calls calls;
    ServicedList serviced;
    const auto timer = timerFor(serviced.list(), calls, 1);
    const SteadyClock::time_point before = SteadyClock::now();
    ASSERT_EQ(timer->StartTimer(milliseconds), TIMER_SUCCESS);
    ASSERT_TRUE(calls.waitFor(1));
    EXPECT_GE(calls.last() - before, std::chrono::milliseconds(milliseconds));
  }
}

TEST(Timer, TimersFireInTheOrderOfTheirExpiry) {
  Calls calls;
  CTimerList list;
  const auto third = timerFor(&list, calls, 3);
  const auto first = timerFor(&list, calls, 1);
  const auto second = timerFor(&list, calls, 2);
  SteadyClock::time_point start;
  do {  // held up in between, the third one would be armed for an earlier moment than the second
    start = SteadyClock::now();
    ASSERT_EQ(third->StartTimer(15), TIMER_SUCCESS);
    ASSERT_EQ(first->StartTimer(0), TIMER_SUCCESS);
    ASSERT_EQ(second->StartTimer(5), TIMER_SUCCESS);
  } while (SteadyClock::now() - start >= std::chrono::milliseconds(10));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::thread service([&list] { list.service(); });
  EXPECT_TRUE(calls.waitFor(3));
  list.close();
  service.join();
  EXPECT_EQ(calls.values(), (std::vector<unsigned long>{1, 2, 3}));
}

TEST(Timer, AnEarlierTimerOvertakesTheOneThatIsWaitedFor) {
  Calls calls;
  ServicedList serviced;
  const auto late = timerFor(serviced.list(), calls, 2);
  ASSERT_EQ(late->StartTimer(60000), TIMER_SUCCESS);
  // Long enough for the list's thread to sleep; if it is held up, nothing is shown.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto soon = timerFor(serviced.list(), calls, 1);
  ASSERT_EQ(soon->StartTimer(1), TIMER_SUCCESS);
  ASSERT_TRUE(calls.waitFor(1));
  EXPECT_EQ(calls.values(), std::vector<unsigned long>{1});
}

TEST(Timer, OneThatIsNotStartedDoesNotFire) {
  Calls calls;
  ServicedList serviced;
  const auto idle = timerFor(serviced.list(), calls, 1);
  const auto started = timerFor(serviced.list(), calls, 2);
  ASSERT_EQ(started->StartTimer(2), TIMER_SUCCESS);
  ASSERT_TRUE(calls.waitFor(1));
  EXPECT_EQ(calls.values(), std::vector<unsigned long>{2});
}

TEST(Timer, DeletingItTakesItOffTheList) {
  Calls calls;
  CTimerList list;
  auto deleted = timerFor(&list, calls, 1);
  ASSERT_EQ(deleted->StartTimer(0), TIMER_SUCCESS);
  deleted.reset();
  const auto fence = timerFor(&list, calls, 2);
  ASSERT_EQ(fence->StartTimer(5), TIMER_SUCCESS);
  std::thread service([&list] { list.service(); });
  EXPECT_TRUE(calls.waitFor(1));
  list.close();
  service.join();
  EXPECT_EQ(calls.values(), std::vector<unsigned long>{2});
}

TEST(Timer, StartingItAgainArmsItAnew) {
  Calls calls;
  ServicedList serviced;
  const auto timer = timerFor(serviced.list(), calls, 1);
  ASSERT_EQ(timer->StartTimer(60000), TIMER_SUCCESS);
  ASSERT_EQ(timer->StartTimer(1), TIMER_SUCCESS);
  ASSERT_TRUE(calls.waitFor(1));
  ASSERT_EQ(timer->StartTimer(1), TIMER_SUCCESS);
  ASSERT_TRUE(calls.waitFor(2));
  const auto fence = timerFor(serviced.list(), calls, 2);
  ASSERT_EQ(fence->StartTimer(5), TIMER_SUCCESS);
  ASSERT_TRUE(calls.waitFor(3));
  EXPECT_EQ(calls.values(), (std::vector<unsigned long>{1, 1, 2}));
}

TEST(Timer, OneThatIsStartedTwiceBeforeItExpiresFiresOnce) {
  Calls calls;
  CTimerList list;
  const auto timer = timerFor(&list, calls, 1);
  const auto fence = timerFor(&list, calls, 2);
  ASSERT_EQ(timer->StartTimer(0), TIMER_SUCCESS);
  ASSERT_EQ(timer->StartTimer(0), TIMER_SUCCESS);
  ASSERT_EQ(fence->StartTimer(1), TIMER_SUCCESS);
  std::thread service([&list] { list.service(); });
  EXPECT_TRUE(calls.waitFor(2));
  list.close();
  service.join();
  EXPECT_EQ(calls.values(), (std::vector<unsigned long>{1, 2}));
}

TEST(Timer, AClosedListRefusesTimersAndFiresNoneOfItsOwn) {
  Calls calls;
  CTimerList list;
  const auto armed = timerFor(&list, calls, 1);
  const auto late = timerFor(&list, calls, 2);
  ASSERT_EQ(armed->StartTimer(0), TIMER_SUCCESS);
  list.close();
  EXPECT_EQ(late->StartTimer(0), TIMER_ERROR_LIST_CLOSED);
  list.service();
  EXPECT_TRUE(calls.values().empty());
}

TEST(Timer, ItMayOutliveItsList) {
  Calls calls;
  auto list = std::make_unique<CTimerList>();
  const auto armed = timerFor(list.get(), calls, 1);
  const auto idle = timerFor(list.get(), calls, 2);
  ASSERT_EQ(armed->StartTimer(1), TIMER_SUCCESS);
  list.reset();
  EXPECT_EQ(idle->StartTimer(1), TIMER_ERROR_LIST_CLOSED);
  EXPECT_TRUE(calls.values().empty());
}

struct Deletion {
  CTimer* timer = nullptr;
  std::atomic<bool> done{false};

  static void run(void* self, unsigned long) {
    auto* const deletion = static_cast<Deletion*>(self);
    delete deletion->timer;
    deletion->done = true;
  }
};

TEST(Timer, ItMayBeDeletedByItsOwnCallback) {
  Deletion deletion;
  ServicedList serviced;
  STATUSCODE status = -1;
  deletion.timer = new CTimer(status, serviced.list(), Deletion::run, &deletion, 0);
  ASSERT_EQ(status, TIMER_SUCCESS);
  ASSERT_EQ(deletion.timer->StartTimer(1), TIMER_SUCCESS);
  EXPECT_TRUE(eventually([&deletion] { return deletion.done.load(); }));
}

struct BlockedCallback {
  std::mutex lock;
  std::atomic<bool> entered{false};
  std::atomic<bool> left{false};

  static void run(void* self, unsigned long) {
    auto* const callback = static_cast<BlockedCallback*>(self);
    callback->entered = true;
    const std::lock_guard<std::mutex> guard(callback->lock);
    callback->left = true;
  }
};

TEST(Timer, DeletingItDoesNotWaitForACallbackThatWantsTheDeletersLock) {
  BlockedCallback callback;
  ServicedList serviced;
  {
    const std::lock_guard<std::mutex> guard(callback.lock);
    STATUSCODE status = -1;
    auto timer =
        std::make_unique<CTimer>(status, serviced.list(), BlockedCallback::run, &callback, 0);
    ASSERT_EQ(timer->StartTimer(0), TIMER_SUCCESS);
    ASSERT_TRUE(eventually([&callback] { return callback.entered.load(); }));
    timer.reset();
    EXPECT_FALSE(callback.left);
  }
  EXPECT_TRUE(eventually([&callback] { return callback.left.load(); }));
}

void throwError(void*, unsigned long) { throw std::runtime_error("out of luck"); }
void throwNumber(void*, unsigned long) { throw 5; }

TEST(Timer, AnExceptionThatLeavesACallbackIsLoggedAndLaterTimersFire) {
  const HeardLog log;
  Calls calls;
  ServicedList serviced;
  STATUSCODE status = -1;
  CTimer first(status, serviced.list(), throwError, nullptr, 0);
  CTimer second(status, serviced.list(), throwNumber, nullptr, 0);
  const auto third = timerFor(serviced.list(), calls, 3);
  ASSERT_EQ(first.StartTimer(0), TIMER_SUCCESS);
  ASSERT_EQ(second.StartTimer(0), TIMER_SUCCESS);
  ASSERT_EQ(third->StartTimer(2), TIMER_SUCCESS);
  ASSERT_TRUE(calls.waitFor(1));
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[0].severity, 'E');
  EXPECT_EQ(log.lines()[0].message, "timer callback ended by an exception: out of luck");
  EXPECT_EQ(log.lines()[1].message, "timer callback ended by an exception: of unknown type");
}

/// A task with a timer, as a run has one.
class TimedTask : public ApiRunnable {
 public:
  TimedTask(CTimerList* list, std::shared_ptr<Gate> inCallback)
      : m_inCallback(std::move(inCallback)) {
    STATUSCODE status = -1;
    m_timer = std::make_unique<CTimer>(status, list, expired, this, 0);
    m_timer->keepAlive(*this);
    EXPECT_EQ(status, TIMER_SUCCESS);
  }
  void run() override {}
  void start(unsigned long milliseconds) {
    EXPECT_EQ(m_timer->StartTimer(milliseconds), TIMER_SUCCESS);
  }
  static std::atomic<int>& entered() {
    static std::atomic<int> count{0};
    return count;
  }
  static std::atomic<std::thread::id>& destroyedOn() {
    static std::atomic<std::thread::id> id;
    return id;
  }
  ~TimedTask() override { destroyedOn() = std::this_thread::get_id(); }

 private:
  static void expired(void* self, unsigned long) {
    auto* const task = static_cast<TimedTask*>(self);
    ++entered();
    if (task->m_inCallback != nullptr) {
      task->m_inCallback->pass();
    }
    task->m_uses = task->m_uses + 1;
  }

  Counted m_counted;
  const std::shared_ptr<Gate> m_inCallback;
  std::unique_ptr<CTimer> m_timer;
  int m_uses = 0;
};

TEST(Timer, ItKeepsItsTaskWhileTheCallbackRuns) {
  TimedTask::entered() = 0;
  ServicedList serviced;
  const auto gate = std::make_shared<Gate>();
  auto* const task = new TimedTask(serviced.list(), gate);
  task->start(0);
  ASSERT_TRUE(eventually([] { return TimedTask::entered() == 1; }));
  delete task;
  EXPECT_EQ(Counted::count(), 1);
  gate->open();
  EXPECT_TRUE(eventually([] { return Counted::count() == 0; }));
  EXPECT_NE(TimedTask::destroyedOn().load(), serviced.threadId());
}

TEST(Timer, ItDoesNotKeepItsTaskWhileItWaits) {
  TimedTask::entered() = 0;
  ServicedList serviced;
  auto* const task = new TimedTask(serviced.list(), nullptr);
  task->start(60000);
  delete task;
  EXPECT_EQ(Counted::count(), 0);
  EXPECT_EQ(TimedTask::entered(), 0);
}

/// Stays in its destructor until its timer's time has surely come; no timer fires before that.
class TaskThatGoesSlowly : public ApiRunnable {
 public:
  TaskThatGoesSlowly(CTimerList* list, Calls& calls) : m_list(list), m_calls(calls) {
    m_timer = timerFor(list, calls, 1);
    m_timer->keepAlive(*this);
    EXPECT_EQ(m_timer->StartTimer(0), TIMER_SUCCESS);
  }
  ~TaskThatGoesSlowly() override {
    const auto fence = timerFor(m_list, m_calls, 2);
    EXPECT_EQ(fence->StartTimer(5), TIMER_SUCCESS);
    std::thread service([this] { m_list->service(); });
    EXPECT_TRUE(m_calls.waitFor(1));
    m_list->close();
    service.join();
  }
  void run() override {}

 private:
  CTimerList* const m_list;
  Calls& m_calls;
  std::unique_ptr<CTimer> m_timer;
};

TEST(Timer, ATaskThatIsBeingDestroyedIsNotCalledBack) {
  Calls calls;
  CTimerList list;
  delete new TaskThatGoesSlowly(&list, calls);
  EXPECT_EQ(calls.values(), std::vector<unsigned long>{2});
}

TEST(Timer, DeletionOfATaskMayMeetItsExpiryAtAnyMoment) {
  TimedTask::entered() = 0;
  ServicedList serviced;
  std::minstd_rand random(20240502);
  for (int round = 0; round < 4000; ++round) {
    auto* const task = new TimedTask(serviced.list(), nullptr);
    task->start(round % 4 == 0 ? 1 : 0);
    if (round % 2 == 0) {
      spin(static_cast<unsigned int>(random() % 20000));
    } else {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 100));
    }
    delete task;
  }
  EXPECT_TRUE(eventually([] { return Counted::count() == 0; }));
  EXPECT_GT(TimedTask::entered(), 0);
}

TEST(Timer, ManyThreadsMayArmAndDeleteTimersOfOneList) {
  Calls calls;
  ServicedList serviced;
  std::vector<std::thread> threads;
  for (unsigned int id = 0; id < 4; ++id) {
    threads.emplace_back([&serviced, &calls, id] {
      std::minstd_rand random(id + 1);
      for (int round = 0; round < 500; ++round) {
        const auto timer = timerFor(serviced.list(), calls, id);
        EXPECT_EQ(timer->StartTimer(random() % 2), TIMER_SUCCESS);
        if (random() % 2 == 0) {
          EXPECT_EQ(timer->StartTimer(0), TIMER_SUCCESS);
        }
        if (random() % 8 == 0) {
          std::this_thread::sleep_for(std::chrono::microseconds(random() % 1500));
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const auto last = timerFor(serviced.list(), calls, 99);
  ASSERT_EQ(last->StartTimer(0), TIMER_SUCCESS);
  ASSERT_TRUE(eventually([&calls] { return calls.values().back() == 99; }));
}

TEST(Clock, ItNeverGoesBackAndAdvancesWithTheMonotonicClock) {
  const auto before = SteadyClock::now();
  const unsigned long start = GetCurrentTimeMillis();
  std::this_thread::sleep_for(std::chrono::milliseconds(15));
  const unsigned long end = GetCurrentTimeMillis();
  const auto after = SteadyClock::now();
  EXPECT_GE(end - start, 14UL);
  const auto longest =
      std::chrono::duration_cast<std::chrono::milliseconds>(after - before).count() + 1;
  EXPECT_LE(end - start, static_cast<unsigned long>(longest));
}

}  // namespace
