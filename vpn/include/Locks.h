#pragma once

/// @file
/// Locks whose use clang can check.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "vpn/include/ThreadAnnotations.h"

/// A recursive lock: the thread that holds it may take it again and must give it back as often.
/// Every operation may be called from any thread; `Unlock` only by the thread that holds the lock.
class AHS_CAPABILITY("mutex") CManualLock {
 public:
  /// @param spinCount how often a waiting thread tries again before it sleeps. Where locks are held
  ///        for a few hundred instructions, that saves two context switches.
  explicit CManualLock(unsigned long spinCount = 0);
  ~CManualLock();  // NOLINT(performance-trivially-destructible): on other systems it may do work

  CManualLock(const CManualLock&) = delete;
  CManualLock& operator=(const CManualLock&) = delete;

  /// Takes the lock, waiting as long as another thread holds it.
  void Lock() AHS_ACQUIRE();

  /// Gives the lock back once.
  void Unlock() AHS_RELEASE();

 private:
  std::recursive_mutex m_mutex;
  const unsigned long m_spinCount;
};

/// A monitor: a lock with the condition that its holders wait for. It is not recursive. A thread
/// that changes what others may wait for calls `notifyAll` with the lock held. A wait may also end
/// without a reason. Every operation may be called from any thread; waits and `Unlock` only by the
/// thread that holds the lock.
class AHS_CAPABILITY("mutex") CMonitor {
 public:
  CMonitor();
  ~CMonitor();  // NOLINT(performance-trivially-destructible): as for CManualLock

  CMonitor(const CMonitor&) = delete;
  CMonitor& operator=(const CMonitor&) = delete;

  void Lock() AHS_ACQUIRE();
  void Unlock() AHS_RELEASE();

  /// Gives the lock back, sleeps until it is notified, and takes the lock again.
  void wait() AHS_REQUIRES(this);

  /// As `wait`, but at most until `limit` on the clock of the caller's choice.
  template <class Clock, class Duration>
  void waitUntil(const std::chrono::time_point<Clock, Duration>& limit) AHS_REQUIRES(this) {
    std::unique_lock<std::mutex> held(m_mutex, std::adopt_lock);
    m_changed.wait_until(held, limit);
    held.release();
  }

  /// Ends the waits of all other threads.
  void notifyAll() AHS_REQUIRES(this);

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
};

/// Holds a lock for the length of a scope: taken on construction, given back on every exit.
template <class LockT>
class AHS_SCOPED_CAPABILITY CAutoLockT {
 public:
  /// Takes `lock`, which must outlive the object.
  explicit CAutoLockT(LockT& lock) AHS_ACQUIRE(lock) : m_lock(lock) { m_lock.Lock(); }
  ~CAutoLockT() AHS_RELEASE() { m_lock.Unlock(); }

  CAutoLockT(const CAutoLockT&) = delete;
  CAutoLockT& operator=(const CAutoLockT&) = delete;

 private:
  LockT& m_lock;
};

/// Reads a plain flag that another thread may be setting. No ordering with other memory is implied.
inline bool readSharedFlag(const bool& flag) {
  // std::atomic_ref takes no const object before C++26; a relaxed load does not write to it.
  return std::atomic_ref<bool>(const_cast<bool&>(flag)).load(std::memory_order_relaxed);
}

/// Sets a plain flag that another thread may be reading with `readSharedFlag`.
inline void writeSharedFlag(bool& flag, bool value) {
  std::atomic_ref<bool>(flag).store(value, std::memory_order_relaxed);
}
