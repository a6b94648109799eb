// The common order of events of all doubles, and waiting for what other threads bring about.

#include "tests/unit/selection/doubles/gate.h"

namespace doubles {

void Journal::reset() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_events.clear();
}

void Journal::add(const std::string& event) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_events.push_back(event);
}

std::vector<std::string> Journal::events() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_events;
}

Journal& journal() {
  static Journal& instance = *new Journal;  // late threads may still write to it
  return instance;
}

}  // namespace doubles
