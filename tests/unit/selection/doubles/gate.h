#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Eventually.h"

namespace doubles {

/// A value that a test changes while threads use it.
template <class T>
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(T value) : m_value(std::move(value)) {}

  void set(T value) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_value = std::move(value);
  }
  T get() const {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_value;
  }
  /// Calls `change` with the value, which nobody else touches meanwhile.
  template <class Change>
  auto with(const Change& change) {
    const std::lock_guard<std::mutex> hold(m_lock);
    return change(m_value);
  }

 private:
  mutable std::mutex m_lock;
  T m_value{};
};

/// A door that threads wait at until a test opens it.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_open = true;
    m_changed.notify_all();
  }

  /// @return false when nobody opened the gate within `tests::Limit`.
  bool wait() {
    std::unique_lock<std::mutex> hold(m_lock);
    return m_changed.wait_for(hold, tests::Limit, [this] { return m_open; });
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_open = false;
};

/// What the doubles saw, in one order over all of them.
class Journal {
 public:
  void reset() { m_events.set({}); }
  void add(const std::string& event) {
    m_events.with([&](auto& events) { events.push_back(event); });
  }
  std::vector<std::string> events() const { return m_events.get(); }

 private:
  Guarded<std::vector<std::string>> m_events;
};

inline Journal& journal() {
  static Journal& instance = *new Journal;  // late threads may still write to it
  return instance;
}

using tests::eventually;

}  // namespace doubles
