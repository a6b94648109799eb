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
