// The clock of timers and waits. It stands in a source of its own so that a program can bring
// another.

#include "vpn/Common/Utility/MonotonicClock.h"

MonotonicClock::time_point MonotonicClock::now() noexcept {
  // libstdc++'s steady clock is CLOCK_MONOTONIC.
  return time_point(std::chrono::steady_clock::now().time_since_epoch());
}
