#pragma once

#include <condition_variable>
#include <mutex>

#include "tests/support/Eventually.h"

namespace tests {

/// Threads stop at the gate until a test opens it.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_isOpen = true;
    m_changed.notify_all();
  }

  void pass() {
    std::unique_lock<std::mutex> hold(m_lock);
    m_changed.wait(hold, [this] { return m_isOpen; });
  }

  /// @return false if nobody opened the gate within `Limit`.
  bool wait() {
    std::unique_lock<std::mutex> hold(m_lock);
    return m_changed.wait_for(hold, Limit, [this] { return m_isOpen; });
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_isOpen = false;
};

}  // namespace tests
