#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "tests/stress/scenario.h"
#include "tests/unit/selection/doubles/preferences.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Common/Utility/MonotonicClock.h"

class CHeadendSelection;
class CManualLock;

namespace stress {

class Stage;

/// The calling thread, as far as it concerns a run.
struct Self {
  Stage* stage = nullptr;
  Role role = Role::Main;
  unsigned int worker = 0;
  std::uint32_t noise = 0;
  unsigned int probes = 0;

  // What the thread that is being created will be.
  Role nextRole = Role::Reaper;
  unsigned int nextWorker = 0;
};

Self& self();

/// Makes the calling thread one of a run's.
void enter(Stage* stage, Role role, unsigned int worker = 0);

/// Lets the calling thread come by, if it is a run's; see `Stage::pass`.
void pass(const char* what = nullptr);

/// The time of timers in nanoseconds and that of probes in milliseconds, which move when a run says
/// so and never by themselves. Neither starts at 0, which stands for no time; the 32 bits of the
/// latter that workers look at overflow early on.
inline std::atomic<MonotonicClock::rep> timersNow{1000};
inline std::atomic<unsigned long> probesNow{0xFFFF0000};

/// Threads that belong to runs, until they have ended.
inline std::atomic<long> threadsOfRuns{0};

/// What one run plays on: its scenario, what its threads have come by, and what its client was
/// told.
///
/// Whatever its threads share here is atomic and orders nothing, so that the harness hides no race
/// of theirs from a race detector. A stage outlives all threads of its run.
class Stage : public ClientIfcBase {
 public:
  struct Event {
    std::atomic<const char*> what{nullptr};
    Role role = Role::Main;
    unsigned int worker = 0;
  };

  explicit Stage(const Scenario& scenario);

  /// Names the locks of the run, before it has any thread.
  void watch(CHeadendSelection& run);

  /// A thread of the run comes by: that is noted if it is an event, and the thread may be delayed,
  /// held, or make the run's timer expire.
  void pass(const char* what = nullptr);
  void wantLock(const CManualLock* lock);
  void haveLock(const CManualLock* lock);
  void note(const char* what);
  bool has(const char* what) const;
  void setArmed(unsigned long milliseconds);

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override;

  /// Whether the timer expired at the moment that was aimed at, and met what it should.
  bool hasHit() const;

  const Scenario scenario;
  std::array<Event, 256> events;  // in the order of one counter, which agrees with every other
  std::atomic<std::size_t> eventCount{0};
  doubles::PreferenceScript preferences;
  std::atomic<unsigned int> startsAsked{0};
  std::array<std::atomic<bool>, MostHeadends> isStarted{};

  // What the first callback brought, and the hosts that were stored; each written by one thread.
  unsigned int reason = 0;
  std::vector<std::string> headends;
  long status = -1;
  std::string extraInfo;
  std::vector<std::string> stored;

 private:
  bool isAimedAt(const char* what);
  void fire();
  bool await(const char* what, std::chrono::microseconds patience) const;
  void makeNoise() const;

  const CManualLock* m_endLock = nullptr;
  const CManualLock* m_resultsLock = nullptr;
  std::atomic<unsigned int> m_passages{0};  // that the aim counts
  std::atomic<unsigned int> m_endLocks{0};  // how often the run thread wanted the lock of the end
  std::atomic<MonotonicClock::rep> m_armedUntil{0};  // 0 while it is not
  std::atomic<bool> m_hasAwaited{false};
  std::atomic<bool> m_hasHeld{false};
};

}  // namespace stress
