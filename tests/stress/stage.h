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

/// The calling thread's part in a run.
struct Self {
  Stage* stage = nullptr;
  Role role = Role::Main;
  unsigned int worker = 0;
  std::uint32_t noise = 0;
  unsigned int probes = 0;

  // The role of the thread that is being created.
  Role nextRole = Role::Reaper;
  unsigned int nextWorker = 0;
};

Self& self();

/// Makes the calling thread part of a run.
void enter(Stage* stage, Role role, unsigned int worker = 0);

/// Lets the calling thread come by, if it is a run's; see `Stage::pass`.
void pass(const char* what = nullptr);

/// The timers' time in nanoseconds and the probes' time in milliseconds, which only runs move.
/// Neither starts at 0, which means no time; the low 32 bits of the latter, which workers read,
/// overflow early.
inline std::atomic<MonotonicClock::rep> timersNow{1000};
inline std::atomic<unsigned long> probesNow{0xFFFF0000};

/// Number of running threads that belong to runs.
inline std::atomic<long> threadsOfRuns{0};

/// The stage of one run: its scenario, its threads' events, and its client's results.
///
/// All shared data is atomic and orders nothing, so that the harness hides no race from a race
/// detector. A stage outlives its run's threads.
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

  /// A thread of the run passes a point. This records an event, and may delay or hold the thread or
  /// let the timer expire.
  void pass(const char* what = nullptr);
  void wantLock(const CManualLock* lock);
  void haveLock(const CManualLock* lock);
  void note(const char* what);
  bool has(const char* what) const;
  void setArmed(unsigned long milliseconds);

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override;

  /// Whether the timer expired at the chosen moment, in the expected state.
  bool hasHit() const;

  const Scenario scenario;
  std::array<Event, 256> events;  // in the order of one counter, which agrees with every other
  std::atomic<std::size_t> eventCount{0};
  doubles::PreferenceScript preferences;
  std::atomic<unsigned int> startsAsked{0};
  std::array<std::atomic<bool>, MostHeadends> isStarted{};

  // The first callback's result and the stored hosts; one thread writes each.
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
  std::atomic<unsigned int> m_passages{0};  // passages counted for the aim
  std::atomic<unsigned int> m_endLocks{0};  // how often the run thread wanted the lock of the end
  std::atomic<MonotonicClock::rep> m_armedUntil{0};  // 0 while it is not
  std::atomic<bool> m_hasAwaited{false};
  std::atomic<bool> m_hasHeld{false};
};

}  // namespace stress
