#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "tests/unit/selection/doubles/gate.h"
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
struct Timers {
  void reset();

  /// Lets the newest timer expire, if it is armed and still exists. Returns when its callback has.
  /// @return whether there was anything to fire.
  bool fire();

  /// Without it `acquireInstance` gives nothing.
  std::atomic<bool> hasContext{true};
  std::atomic<STATUSCODE> constructionStatus{0};
  std::atomic<STATUSCODE> startStatus{0};

  std::atomic<int> live{0};
  std::atomic<int> created{0};
  /// The milliseconds of each successful or failed `StartTimer`.
  Guarded<std::vector<unsigned long>> starts;
  std::atomic<int> contextAcquired{0};
  std::atomic<int> contextReleased{0};
  /// The list and the two context values that the newest timer was made with.
  std::atomic<CTimerList*> list{nullptr};
  std::atomic<void*> pointerValue{nullptr};
  std::atomic<unsigned long> longValue{0};
  /// Fires the newest timer.
  Guarded<std::function<bool()>> newest;
};

Timers& timers();

}  // namespace doubles
