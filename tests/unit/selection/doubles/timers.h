#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/TimerList.h"

namespace doubles {

/// A clock that stands still until a test moves it.
class ManualClock {
 public:
  void reset();
  void set(unsigned long now) { m_now = now; }
  void advance(unsigned long ms) { m_now += ms; }
  unsigned long now() const { return m_now; }

 private:
  std::atomic<unsigned long> m_now{0};
};

ManualClock& clock();

/// Timers that expire when a test says so, on the thread that says it, and the execution context
/// that they belong to.
class Timers {
 public:
  void reset();

  /// From now on `acquireInstance` gives nothing.
  void removeContext();
  void failConstruction(STATUSCODE status);
  void failStart(STATUSCODE status);

  /// Lets the newest timer expire, if it is armed and still exists. Returns when its callback has.
  /// @return whether there was anything to fire.
  bool fire();

  int live() const { return m_live; }
  int created() const { return m_created; }
  /// The milliseconds of each successful or failed `StartTimer`.
  std::vector<unsigned long> starts() const;
  int contextAcquired() const { return m_acquired; }
  int contextReleased() const { return m_released; }
  /// The list and the two context values that the newest timer was made with.
  CTimerList* list() const;
  void* pointerValue() const;
  unsigned long longValue() const;

 private:
  friend class ::CTimer;
  friend class ::CExecutionContext;

  mutable std::mutex m_lock;
  bool m_hasContext = true;
  STATUSCODE m_constructionStatus = 0;
  STATUSCODE m_startStatus = 0;
  std::vector<unsigned long> m_starts;
  std::function<bool()> m_fire;
  CTimerList* m_list = nullptr;
  void* m_pointerValue = nullptr;
  unsigned long m_longValue = 0;
  std::atomic<int> m_live{0};
  std::atomic<int> m_created{0};
  std::atomic<int> m_acquired{0};
  std::atomic<int> m_released{0};
};

Timers& timers();

}  // namespace doubles
