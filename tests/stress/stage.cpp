// Points that a run's threads pass. Each passage draws a delay, may hold the thread until the run
// reaches some point, and may be where the timer expires. Every wait is bounded: an unreachable aim
// costs a moment and does not count as hit.

#include "tests/stress/stage.h"

#include <sched.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include "tests/unit/selection/selection_access.h"

namespace stress {
namespace {

using std::chrono::microseconds;

// Long enough for a thread to get a processor on a busy machine.
constexpr microseconds AimPatience{50000};
// Short, because the awaited event may itself wait for a randomly drawn moment.
constexpr microseconds RandomPatience{1000};

std::uint32_t draw(std::uint32_t& state) {
  state = state * 1664525U + 1013904223U;  // any generator that does not repeat within a run
  return state >> 8U;
}

bool isSame(const char* one, const char* other) {
  return one != nullptr && other != nullptr && std::strcmp(one, other) == 0;
}

}  // namespace

Self& self() {
  static thread_local Self instance;
  return instance;
}

void enter(Stage* stage, Role role, unsigned int worker) {
  self() = {.stage = stage, .role = role, .worker = worker};
  if (stage != nullptr) {
    self().noise = stage->scenario.noiseSeed * 64 + static_cast<std::uint32_t>(role) * 8 + worker;
  }
}

void pass(const char* what) {
  if (self().stage != nullptr) {
    self().stage->pass(what);
  }
}

Stage::Stage(const Scenario& ofRun) : scenario(ofRun) {
  std::vector<std::string> addresses;
  for (unsigned int i = 0; i < scenario.headends; ++i) {
    addresses.push_back(scenario.key(i));
  }
  preferences.useAddresses(addresses);
}

void Stage::watch(CHeadendSelection& run) {
  m_endLock = &tests::member<tests::EndLock>(run);
  m_resultsLock = &tests::member<tests::CacheLock>(run);
}

void Stage::pass(const char* what) {
  note(what);
  makeNoise();
  if (isAimedAt(what)) {
    fire();
  }
  const Moment& at = scenario.at();
  if (isSame(what, at.holdsAt) && await(at.holdsUntil, AimPatience)) {
    m_hasHeld.store(true, std::memory_order_relaxed);
  }
}

void Stage::wantLock(const CManualLock* lock) {
  if (lock != m_endLock || self().role != Role::Run) {
    pass();
    return;
  }
  if (m_endLocks.fetch_add(1, std::memory_order_relaxed) == scenario.endLocksBeforeFinish()) {
    note(WantsToFinish);
  }
  pass(WantsEndLock);
}

void Stage::haveLock(const CManualLock* lock) {
  pass(lock == m_resultsLock && self().role == Role::Worker ? Reporting : nullptr);
}

void Stage::note(const char* what) {
  if (what != nullptr) {
    Event& event = events.at(eventCount.fetch_add(1, std::memory_order_relaxed));
    event.role = self().role;
    event.worker = self().worker;
    event.what.store(what, std::memory_order_relaxed);
  }
}

bool Stage::has(const char* what) const {
  for (const Event& event : events) {
    if (isSame(event.what.load(std::memory_order_relaxed), what)) {
      return true;
    }
  }
  return false;
}

void Stage::setArmed(unsigned long milliseconds) {
  const MonotonicClock::duration delay = std::chrono::milliseconds(milliseconds);
  m_armedUntil.store(timersNow.load(std::memory_order_relaxed) + delay.count(),
                     std::memory_order_relaxed);
}

bool Stage::isAimedAt(const char* what) {
  const Role role = self().role;
  // The timer thread cannot trigger its own expiry.
  const bool counts = scenario.moment == Anywhere ? role != Role::Timer && role != Role::Main
                                                  : isSame(what, scenario.at().at);
  return counts && m_passages.fetch_add(1, std::memory_order_relaxed) == scenario.nth;
}

void Stage::fire() {
  const MonotonicClock::rep until = m_armedUntil.load(std::memory_order_relaxed);
  if (until == 0) {
    return;
  }
  if (scenario.probeClockFollows) {
    probesNow.fetch_add(scenario.budget + 1, std::memory_order_relaxed);
  }
  MonotonicClock::rep now = timersNow.load(std::memory_order_relaxed);
  while (now < until && !timersNow.compare_exchange_weak(now, until, std::memory_order_relaxed)) {
  }
  const bool isAnywhere = scenario.moment == Anywhere;
  const bool met =
      await(isAnywhere ? TimerExpired : scenario.awaits, isAnywhere ? RandomPatience : AimPatience);
  m_hasAwaited.store(met || isAnywhere, std::memory_order_relaxed);
}

bool Stage::await(const char* what, microseconds patience) const {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (what != nullptr && !has(what)) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    sched_yield();
  }
  return true;
}

bool Stage::hasHit() const {
  return scenario.moment == Never
             ? !has(TimerIsIn)
             : m_hasAwaited && has(TimerExpired) && (scenario.at().holdsAt == nullptr || m_hasHeld);
}

void Stage::makeNoise() const {
  const std::uint32_t lot = draw(self().noise) % scenario.quiet;
  if (lot == 0) {
    std::this_thread::sleep_for(microseconds(draw(self().noise) % 60));
  } else if (lot < 3) {
    sched_yield();
  }
}

void Stage::AHSSelectedHost(unsigned int ofReason, const std::vector<std::string>& list,
                            long ofStatus, const std::string& info) {
  if (status == -1) {
    reason = ofReason;
    headends = list;
    status = ofStatus;
    extraInfo = info;
  }
  pass(ClientCalled);
  std::this_thread::sleep_for(microseconds(scenario.callbackPauseUs));
  pass(ClientLeft);
  if (scenario.callbackThrows) {
    throw std::runtime_error("the client's own trouble");
  }
}

}  // namespace stress
