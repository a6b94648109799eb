#pragma once

#include <chrono>
#include <optional>

#include "simulator/FileDescriptor.h"

namespace simulator {

/// The simulator's clock: CLOCK_MONOTONIC.
using Clock = std::chrono::steady_clock;

/// A descriptor for epoll that becomes readable at a set time, more exact than epoll's
/// milliseconds. Used by one thread at a time.
class Alarm {
 public:
  /// @throws std::system_error if the system has no more timers.
  Alarm();

  /// Sets the time, or none. Setting the same time again costs nothing.
  void set(std::optional<Clock::time_point> moment);

  /// Makes the descriptor unreadable until the next set time.
  void acknowledge();

  int fd() const { return m_timer.get(); }

 private:
  FileDescriptor m_timer;
  std::optional<Clock::time_point> m_moment;
};

}  // namespace simulator
