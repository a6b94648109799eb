#pragma once

#include <atomic>
#include <chrono>
#include <thread>

/// Counts the objects of a test that exist. Atomic: objects may go on any thread.
class Counted {
 public:
  Counted() { ++count(); }
  Counted(const Counted&) { ++count(); }
  Counted& operator=(const Counted&) = default;
  ~Counted() { --count(); }

  static std::atomic<int>& count() {
    static std::atomic<int> existing{0};
    return existing;
  }
};

/// Waits until `condition` holds. @return false when it does not hold after far too long.
template <class Condition>
bool eventually(Condition condition) {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > giveUp) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

/// Spends a little time without giving the processor away.
inline void spin(unsigned int turns) {
  for (unsigned int turn = 0; turn < turns; ++turn) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
}
