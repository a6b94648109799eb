// The lock of the client library, its scoped guard, and flags shared without a lock.

#include "vpn/include/Locks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "vpn/Common/Utility/MonotonicClock.h"

namespace {

using tests::eventually;

TEST(ManualLock, ItLetsOneThreadInAtATime) {
  for (const unsigned long spinCount : {0UL, 500UL}) {
    constexpr int turns = 20000;
    CManualLock lock(spinCount);
    long sum = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (int turn = 0; turn < turns; ++turn) {
          const CAutoLockT<CManualLock> guard(lock);
          ++sum;
        }
      });
    }
    threads.clear();  // waits for them
    EXPECT_EQ(sum, 4 * turns);
  }
}

/// Another thread that takes a lock and gives it back.
template <class Lock>
class Rival {
 public:
  explicit Rival(Lock& lock)
      : m_thread([this, &lock] {
          const CAutoLockT<Lock> guard(lock);
          m_gotIt = true;
        }) {}
  ~Rival() { m_thread.join(); }
  Rival(const Rival&) = delete;
  Rival& operator=(const Rival&) = delete;

  void expectToWait() const {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(m_gotIt);
  }
  void expectToGetIt() const {
    EXPECT_TRUE(eventually([this] { return m_gotIt.load(); }));
  }

 private:
  std::atomic<bool> m_gotIt{false};
  std::thread m_thread;
};

TEST(ManualLock, TheHolderMayTakeItAgainAndMustGiveItBackAsOften) AHS_NO_THREAD_SAFETY_ANALYSIS {
  CManualLock lock(500);
  lock.Lock();
  lock.Lock();
  const Rival rival(lock);
  lock.Unlock();
  rival.expectToWait();
  lock.Unlock();
  rival.expectToGetIt();
}

TEST(AutoLock, ItGivesTheLockBackOnEveryExit) {
  CManualLock lock(0);
  try {
    const CAutoLockT<CManualLock> guard(lock);
    throw std::runtime_error("an exit");
  } catch (const std::runtime_error&) {
  }
  const Rival rival(lock);
  rival.expectToGetIt();
}

struct Turns {
  CMonitor lock;
  int next AHS_GUARDED_BY(lock) = 0;

  /// Waits for the turn of `parity`, then passes the turn on.
  void take(int parity, int turns) {
    for (int turn = 0; turn < turns; ++turn) {
      const CAutoLockT<CMonitor> guard(lock);
      while (next % 2 != parity) {
        lock.wait();
      }
      ++next;
      lock.notifyAll();
    }
  }
};

TEST(Monitor, AWaitGivesTheLockBackAndEndsWithANotification) {
  constexpr int EachThreads = 500;
  Turns turns;
  std::thread other([&turns] { turns.take(1, EachThreads); });
  turns.take(0, EachThreads);
  other.join();
  const CAutoLockT<CMonitor> guard(turns.lock);
  EXPECT_EQ(turns.next, 2 * EachThreads);
}

TEST(Monitor, ATimedWaitEndsWithoutANotificationOnceItsLimitHasPassed) {
  CMonitor lock;
  const auto limit = MonotonicClock::now() + std::chrono::milliseconds(5);
  const CAutoLockT<CMonitor> guard(lock);
  while (MonotonicClock::now() < limit) {
    lock.waitUntil(limit);
  }
}

TEST(Monitor, AWaitThatHasEndedHoldsTheLock) AHS_NO_THREAD_SAFETY_ANALYSIS {
  CMonitor lock;
  lock.Lock();
  lock.waitUntil(MonotonicClock::now());
  const Rival rival(lock);
  rival.expectToWait();
  lock.Unlock();
}

TEST(SharedFlag, WhatOneThreadSetsAnotherReads) {
  bool flag = false;
  std::thread setter([&flag] { writeSharedFlag(flag, true); });
  EXPECT_TRUE(eventually([&flag] { return readSharedFlag(flag); }));
  setter.join();
  writeSharedFlag(flag, false);
  EXPECT_FALSE(readSharedFlag(flag));
}

}  // namespace
