#pragma once

#include <chrono>
#include <thread>

namespace tests {

/// Longer than anything in a test takes, even under a sanitizer and on a machine that does a
/// hundred other things; reached only when a test has failed.
constexpr std::chrono::seconds Limit{60};

/// Tries a condition again and again until it holds. @return false when it does not within `Limit`.
template <class Condition>
bool eventually(const Condition& condition) {
  constexpr std::chrono::milliseconds PollInterval{1};
  const auto deadline = std::chrono::steady_clock::now() + Limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(PollInterval);
  }
  return true;
}

}  // namespace tests
