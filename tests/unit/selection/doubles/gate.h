#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace doubles {

/// Long enough for the slowest machine under a sanitizer; reached only when a test has failed.
constexpr std::chrono::seconds Patience{60};

/// A door that threads wait at until a test opens it.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_open = true;
    m_changed.notify_all();
  }

  /// @return false when nobody opened the gate within `Patience`.
  bool wait() {
    std::unique_lock<std::mutex> hold(m_lock);
    return m_changed.wait_for(hold, Patience, [this] { return m_open; });
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

/// Tries a condition again and again until it holds; false when it does not within `Patience`.
bool eventually(const std::function<bool()>& condition);

}  // namespace doubles
