// The clock of the probes. It stands in a source of its own so that a program can bring another.

#include "vpn/Common/Utility/Clock.h"

#include <chrono>

unsigned long GetCurrentTimeMillis() {
  // libstdc++'s steady clock is CLOCK_MONOTONIC, whose start lies in the past.
  const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<unsigned long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(sinceStart).count());
}
