#pragma once

#include <condition_variable>
#include <mutex>

/// Holds threads up until it is opened.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_isOpen = true;
    m_changed.notify_all();
  }
  void pass() {
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_isOpen; });
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_isOpen = false;
};
