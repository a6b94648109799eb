// Whether the aims mean anything: a moment that is aimed at and never hit proves nothing.

#include "tests/stress/statistics.h"

#include <iomanip>
#include <sstream>

namespace stress {
namespace {

// What every wrapper and hook counts; one that is 0 after many runs is one that is not in place.
std::array<std::pair<const char*, long>, 4> counts() {
  const Census& all = census();
  return {{{"runs made", all.runnables.made},
           {"thread objects made", all.threadObjects.made},
           {"contexts acquired", all.contexts.made},
           {"caches acquired", all.caches.made}}};
}

}  // namespace

void Statistics::add(const Stage& stage) {
  Aimed& aimed = m_aimed[static_cast<std::size_t>(stage.scenario.aim.kind)];
  ++m_runs;
  ++aimed.runs;
  aimed.fired += stage.hasFired() ? 1 : 0;
  aimed.hit += stage.hasHit() ? 1 : 0;
  m_expired += stage.hasReached(TimerHasLogged) ? 1 : 0;
  m_decided += stage.hasReached(TimerFinishes) ? 1 : 0;
}

std::string Statistics::toString() const {
  std::ostringstream text;
  text << std::left << std::setw(34) << "expiry aimed" << std::right << std::setw(9) << "runs"
       << std::setw(9) << "fired" << std::setw(9) << "hit"
       << "\n";
  for (std::size_t i = 0; i < m_aimed.size(); ++i) {
    text << std::left << std::setw(34) << nameOf(static_cast<AimKind>(i)) << std::right
         << std::setw(9) << m_aimed[i].runs << std::setw(9) << m_aimed[i].fired << std::setw(9)
         << m_aimed[i].hit << "\n";
  }
  text << "the timer expired in " << m_expired << " of " << m_runs << " runs and decided "
       << m_decided << " of them\n";
  return text.str();
}

std::string Statistics::missed() const {
  std::string text;
  for (std::size_t i = 0; i < m_aimed.size(); ++i) {
    if (m_aimed[i].hit == 0) {
      text += std::string("never hit: ") + nameOf(static_cast<AimKind>(i)) + "\n";
    }
  }
  for (std::size_t i = 0; i < census().passages.size(); ++i) {
    if (census().passages[i] == 0) {
      text += std::string("never passed: ") + nameOf(static_cast<Place>(i)) + "\n";
    }
  }
  for (const auto& [name, count] : counts()) {
    if (count == 0) {
      text += std::string("none counted: ") + name + "\n";
    }
  }
  return text;
}

}  // namespace stress
