#pragma once

#include <chrono>
#include <optional>

#include "simulator/FileDescriptor.h"

namespace simulator {

/// The clock of everything here; it is CLOCK_MONOTONIC.
using Clock = std::chrono::steady_clock;

/// A file that becomes readable at a moment, for epoll: finer than epoll's own milliseconds.
/// One thread at a time.
class Alarm {
 public:
  /// @throws std::system_error when the system has no more timers.
  Alarm();

  /// Sets the moment, or none. Setting the same again costs nothing.
  void set(std::optional<Clock::time_point> moment);

  /// Makes the file unreadable again until the next moment that is set.
  void acknowledge();

  int fd() const { return m_timer.get(); }

 private:
  FileDescriptor m_timer;
  std::optional<Clock::time_point> m_moment;
};

}  // namespace simulator
