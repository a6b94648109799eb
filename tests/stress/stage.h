#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/stress/journal.h"
#include "tests/stress/scenario.h"
#include "tests/unit/selection/doubles/preferences.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Common/Utility/MonotonicClock.h"

class CHeadendSelection;
class CManualLock;

namespace stress {

/// The time of timers and that of the probes, which move when a run says so and never by
/// themselves.
class Clocks {
 public:
  MonotonicClock::time_point timers() const;
  unsigned long probes() const { return m_probes.load(std::memory_order_relaxed); }
  /// Never backwards.
  void moveTimersTo(MonotonicClock::time_point time);
  void moveProbesBy(unsigned long milliseconds);

 private:
  // Not 0, which stands for no time.
  std::atomic<MonotonicClock::rep> m_timers{1000};
  // The 32 bits that workers look at overflow early on.
  std::atomic<unsigned long> m_probes{0xFFFF0000};
};

Clocks& clocks();

/// Objects of the component that exist, and acquisitions that are out; of the whole process.
struct Census {
  struct Count {
    std::atomic<long> made{0};
    std::atomic<long> gone{0};
    void make() { made.fetch_add(1, std::memory_order_relaxed); }
    void go() { gone.fetch_add(1, std::memory_order_relaxed); }
    long left() const { return made.load() - gone.load(); }
  };
  Count runnables;
  Count threadObjects;
  Count contexts;
  Count caches;
  std::array<std::atomic<long>, static_cast<std::size_t>(Place::Count)> passages{};
  /// Threads that belong to a run, until they have ended.
  std::atomic<long> threads{0};
  /// Lines that belong to no run.
  std::atomic<long> strayLines{0};
};

Census& census();

class Stage;

/// The calling thread, as far as it concerns a run.
struct Self {
  Stage* stage = nullptr;
  Role role = Role::Main;
  unsigned char worker = 0;
  std::uint32_t noise = 0;

  /// What the thread that is being created will be; Main for none.
  Role nextRole = Role::Main;
  unsigned char nextWorker = 0;
};

Self& self();

/// Makes the calling thread one of a run's.
void enter(Stage* stage, Role role, unsigned int worker);

/// What one run plays on: its scenario, what its threads have come by, and what happened.
///
/// Whatever its threads share here is atomic and orders nothing, so that the harness hides no race
/// of theirs from a race detector. A stage outlives all threads of its run.
class Stage : public ClientIfcBase {
 public:
  explicit Stage(const Scenario& scenario);
  ~Stage() override;
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  /// Names the locks of the run, before it has any thread.
  void watch(CHeadendSelection& run);
  const void* run() const { return m_pRun; }

  /// A thread of the run comes by: it may be delayed, held, or make the run's timer expire.
  void pass(Place place);
  void passLock(const CManualLock* lock, Place wanted);

  void reach(Milestone milestone);
  bool hasReached(unsigned int milestones) const;

  /// The run's timer has been armed for so long.
  void setArmed(unsigned long milliseconds);

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override;

  // What came of the aim; all of it to be read when no thread of the run is left.
  bool hasFired() const { return m_hasFired.load(std::memory_order_relaxed); }
  bool hasHit() const;
  /// Whether the workers may have seen time pass.
  bool hasTimePassed() const { return clocks().probes() != m_timeAtStart; }

  const Scenario scenario;
  Journal journal;
  doubles::PreferenceScript preferences;

  std::array<std::atomic<unsigned int>, MostHeadends> probesSent{};
  std::array<std::atomic<bool>, MostHeadends> isStarted{};
  std::atomic<unsigned int> startsAsked{0};
  std::atomic<unsigned int> testProbesSent{0};

  struct Outcome {
    unsigned int reason = 0;
    std::vector<std::string> headends;
    long status = 0;
    std::string extraInfo;
    Role role = Role::Main;
  };
  /// The first callback's, written by it alone.
  Outcome outcome;
  std::atomic<unsigned int> callbacks{0};
  /// The entries that the run stored, as "key: host metric, ..."; the storing thread's.
  std::vector<std::string> stored;

 private:
  bool isAimedAt(Place place, Role role);
  void fire();
  bool await(unsigned int milestones, std::chrono::microseconds patience) const;
  void makeNoise() const;

  const unsigned long m_timeAtStart = clocks().probes();
  const CHeadendSelection* m_pRun = nullptr;
  const CManualLock* m_endLock = nullptr;
  const CManualLock* m_reportLock = nullptr;

  std::atomic<unsigned int> m_passages{0};      // that the aim counts
  std::atomic<unsigned int> m_runsEndLocks{0};  // how often the run thread wanted the end lock
  std::atomic<unsigned int> m_milestones{0};
  std::atomic<MonotonicClock::rep> m_armedUntil{0};  // 0 while it is not
  std::atomic<bool> m_hasFired{false};
  std::atomic<bool> m_hasAwaited{false};
  std::atomic<bool> m_hasHeld{false};
};

/// The stages of the runs that are under way; the timer thread finds the one it is called for.
class Stages {
 public:
  static constexpr std::size_t Most = 3;
  void set(std::size_t index, Stage* stage);
  Stage* find(const void* run) const;

 private:
  std::array<std::atomic<Stage*>, Most> m_stages{};
};

Stages& stages();

}  // namespace stress
