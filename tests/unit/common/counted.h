#pragma once

#include <atomic>

#include "tests/support/Eventually.h"

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

/// Spends a little time without giving the processor away.
inline void spin(unsigned int turns) {
  for (unsigned int turn = 0; turn < turns; ++turn) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
}
