#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"

namespace doubles {

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
  void reset();
  void add(const std::string& event);
  std::vector<std::string> events() const;

 private:
  mutable std::mutex m_lock;
  std::vector<std::string> m_events;
};

Journal& journal();

using tests::eventually;

}  // namespace doubles
