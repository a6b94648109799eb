// Where a run's threads come by. Each passage draws a delay, may hold the thread until the run has
// got to some point, and may be the one at which the timer expires. Every wait here is bounded: an
// aim that cannot be hit costs a moment and a line in the statistics.

#include "tests/stress/stage.h"

#include <sched.h>

#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/unit/selection/selection_access.h"

namespace stress {
namespace {

using std::chrono::microseconds;

// Long for a thread that only has to get the processor, on a machine that is busy.
constexpr microseconds AimPatience{50000};
// A moment drawn by lot may be one that the awaited milestone has to wait for.
constexpr microseconds RandomPatience{1000};

std::uint32_t draw(std::uint32_t& state) {
  state = state * 1664525U + 1013904223U;  // any that does not repeat within a run
  return state >> 8U;
}

}  // namespace

MonotonicClock::time_point Clocks::timers() const {
  return MonotonicClock::time_point(
      MonotonicClock::duration(m_timers.load(std::memory_order_relaxed)));
}

void Clocks::moveTimersTo(MonotonicClock::time_point time) {
  const MonotonicClock::rep wanted = time.time_since_epoch().count();
  MonotonicClock::rep now = m_timers.load(std::memory_order_relaxed);
  while (now < wanted && !m_timers.compare_exchange_weak(now, wanted, std::memory_order_relaxed)) {
  }
}

void Clocks::moveProbesBy(unsigned long milliseconds) {
  m_probes.fetch_add(milliseconds, std::memory_order_relaxed);
}

Clocks& clocks() {
  static Clocks& instance = *new Clocks;  // late threads may still read them
  return instance;
}

Census& census() {
  static Census& instance = *new Census;
  return instance;
}

Stages& stages() {
  static Stages& instance = *new Stages;
  return instance;
}

Self& self() {
  static thread_local Self instance;
  return instance;
}

void enter(Stage* stage, Role role, unsigned int worker) {
  Self& me = self();
  me.stage = stage;
  me.role = role;
  me.worker = static_cast<unsigned char>(worker);
  if (stage != nullptr) {
    const Scenario& run = stage->scenario;
    me.noise = static_cast<std::uint32_t>(run.seed * 31 + run.round * 7 + run.member) * 64 +
               static_cast<std::uint32_t>(role) * 8 + worker;
  }
}

Stage::Stage(const Scenario& ofRun) : scenario(ofRun) {
  std::vector<std::string> addresses;
  for (unsigned int i = 0; i < scenario.headends; ++i) {
    addresses.push_back(scenario.key(i));
  }
  preferences.useAddresses(addresses);
}

Stage::~Stage() = default;

void Stage::watch(CHeadendSelection& run) {
  m_pRun = &run;
  m_endLock = &tests::member<tests::EndLock>(run);
  m_reportLock = &tests::member<tests::CacheLock>(run);
}

void Stage::pass(Place place) {
  const Role role = self().role;
  census().passages[static_cast<std::size_t>(place)].fetch_add(1, std::memory_order_relaxed);
  makeNoise();
  if (isAimedAt(place, role)) {
    fire();
  }
  const Hold& hold = scenario.at().hold;
  if (hold.until != 0 && hold.place == place && hold.role == role &&
      await(hold.until, AimPatience)) {
    m_hasHeld.store(true, std::memory_order_relaxed);
  }
}

// `wanted` may be the place after taking the lock or after giving it back as well; the three places
// of a lock follow each other.
void Stage::passLock(const CManualLock* lock, Place wanted) {
  const auto offset =
      static_cast<unsigned char>(wanted) - static_cast<unsigned char>(Place::OtherLockWanted);
  Place first = Place::OtherLockWanted;
  if (lock == m_endLock) {
    first = Place::EndLockWanted;
    if (wanted == Place::OtherLockWanted && self().role == Role::Run &&
        m_runsEndLocks.fetch_add(1, std::memory_order_relaxed) == scenario.endLocksBeforeFinish()) {
      reach(RunWantsToFinish);
    }
  } else if (lock == m_reportLock) {
    first = Place::ReportLockWanted;
  }
  pass(static_cast<Place>(static_cast<unsigned char>(first) + offset));
}

void Stage::reach(Milestone milestone) {
  m_milestones.fetch_or(milestone, std::memory_order_relaxed);
}

bool Stage::hasReached(unsigned int milestones) const {
  return (m_milestones.load(std::memory_order_relaxed) & milestones) != 0;
}

void Stage::setArmed(unsigned long milliseconds) {
  const MonotonicClock::time_point until =
      clocks().timers() + std::chrono::milliseconds(milliseconds);
  m_armedUntil.store(until.time_since_epoch().count(), std::memory_order_relaxed);
}

bool Stage::isAimedAt(Place place, Role role) {
  const Moment& at = scenario.at();
  // The timer thread cannot make itself expire.
  const bool counts = scenario.moment == Anywhere ? role != Role::Timer && role != Role::Main
                                                  : place == at.place && role == at.role;
  return counts && m_passages.fetch_add(1, std::memory_order_relaxed) == scenario.nth;
}

void Stage::fire() {
  const MonotonicClock::rep until = m_armedUntil.load(std::memory_order_relaxed);
  if (until == 0) {
    return;
  }
  m_hasFired.store(true, std::memory_order_relaxed);
  if (scenario.probeClockFollows) {
    clocks().moveProbesBy(scenario.budget + 1);
  }
  clocks().moveTimersTo(MonotonicClock::time_point(MonotonicClock::duration(until)));
  const bool isAnywhere = scenario.moment == Anywhere;
  const bool met = await(isAnywhere ? unsigned{TimerHasLogged} : scenario.awaits,
                         isAnywhere ? RandomPatience : AimPatience);
  m_hasAwaited.store(met, std::memory_order_relaxed);
}

bool Stage::await(unsigned int milestones, microseconds patience) const {
  if (milestones == 0) {
    return true;
  }
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!hasReached(milestones)) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    sched_yield();
  }
  return true;
}

bool Stage::hasHit() const {
  if (scenario.moment == Never) {
    return !hasReached(TimerIsIn);
  }
  const bool awaited = scenario.moment == Anywhere || m_hasAwaited.load(std::memory_order_relaxed);
  const bool held = scenario.at().hold.until == 0 || m_hasHeld.load(std::memory_order_relaxed);
  return hasFired() && awaited && held && hasReached(TimerHasLogged);
}

void Stage::makeNoise() const {
  if (scenario.noise == 0) {
    return;
  }
  const std::uint32_t lot = draw(self().noise) % (scenario.noise == 1 ? 64 : 16);
  if (lot == 0) {
    std::this_thread::sleep_for(microseconds(draw(self().noise) % 60));
  } else if (lot < 3) {
    sched_yield();
  }
}

void Stage::AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends,
                            long status, const std::string& extraInfo) {
  Event& begins = journal.add(EventKind::CallbackBegins);
  begins.role = self().role;
  if (callbacks.fetch_add(1, std::memory_order_relaxed) == 0) {
    outcome = {reason, headends, status, extraInfo, self().role};
  }
  pass(Place::ClientCalled);
  if (scenario.callbackPauseUs != 0) {
    std::this_thread::sleep_for(microseconds(scenario.callbackPauseUs));
  }
  pass(Place::ClientLeft);
  journal.add(EventKind::CallbackEnds).role = self().role;
  if (scenario.callbackThrows) {
    throw std::runtime_error("the client's own trouble");
  }
}

void Stages::set(std::size_t index, Stage* stage) {
  m_stages[index].store(stage, std::memory_order_relaxed);
}

Stage* Stages::find(const void* run) const {
  for (const std::atomic<Stage*>& entry : m_stages) {
    Stage* const stage = entry.load(std::memory_order_relaxed);
    if (stage != nullptr && stage->run() == run) {
      return stage;
    }
  }
  return nullptr;
}

}  // namespace stress
