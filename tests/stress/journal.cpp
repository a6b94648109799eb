// The order of events of a run. The order of one atomic counter is the order of the events: it
// agrees with the order in each thread and with whatever order the program's own locks make.

#include "tests/stress/journal.h"

#include <algorithm>
#include <cstdio>

namespace stress {

std::string Event::toString() const {
  std::string result;
  if (kind == EventKind::Message || kind == EventKind::ReturnCode) {
    result = std::string(function) + " " + severity + " ";
  }
  result += text.data();
  if (kind == EventKind::ReturnCode) {
    char number[32];
    std::snprintf(number, sizeof number, " 0x%lX", static_cast<unsigned long>(code));
    result += number;
  }
  return result;
}

Event& Journal::add(EventKind kind) {
  const std::size_t place = m_next.fetch_add(1, std::memory_order_relaxed);
  static thread_local Event lost;
  Event& event = place < MostEvents ? m_events[place] : lost;
  event.kind = kind;
  event.text[0] = '\0';
  return event;
}

std::size_t Journal::size() const {
  return std::min(m_next.load(std::memory_order_relaxed), MostEvents);
}

bool Journal::hasLost() const { return m_next.load(std::memory_order_relaxed) > MostEvents; }

std::string Journal::toString() const {
  std::string result;
  for (std::size_t i = 0; i < size(); ++i) {
    const Event& event = m_events[i];
    result += "  " + std::to_string(i) + " " + nameOf(event.role);
    if (event.role == Role::Worker) {
      result += std::to_string(event.worker);
    }
    result += ": " + event.toString() + "\n";
  }
  return result;
}

}  // namespace stress
