#pragma once

#include <chrono>

/// The monotonic clock (clock_gettime(2), CLOCK_MONOTONIC) in the form of std::chrono: what timers
/// expire by and waits end by.
struct MonotonicClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<MonotonicClock>;
  static constexpr bool is_steady = true;

  static time_point now() noexcept;
};
