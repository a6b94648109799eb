#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "vpn/include/StatusCode.h"

namespace stress {

constexpr unsigned int MostHeadends = 6;
constexpr unsigned int MostPings = 3;

/// Which thread of a run.
enum class Role : unsigned char { Main, Run, Timer, Worker, Results, Reaper };

// Points that a run passes. A log line's point is named by its format.
constexpr const char* TimerArmed = "timer armed";
constexpr const char* TestPingSaid = "QIB Sending test ping to %s:%d";
constexpr const char* TestProbeOut = "test probe out";
constexpr const char* TestProbeBack = "test probe back";
constexpr const char* TestPingTook = "QIB test ping took %d";
constexpr const char* Challenged = "QIB: Encountered an auth proxy";
constexpr const char* WorkerStarted = "worker started";
constexpr const char* ProbeOut = "probe out";
constexpr const char* SamplesSaid = "QIB ping results for %s: %s";
constexpr const char* Reporting = "worker holds the lock of the results";
constexpr const char* WorkerEnds = "QIB terminating thread for %s";
constexpr const char* WantsEndLock = "run wants the lock of the end";
constexpr const char* WantsToFinish = "run wants to finish";
constexpr const char* FirstTime = "QIB in finishAHS() for first time";
constexpr const char* RunFinishes = "run is the first to finish";
constexpr const char* TimerFinishes = "timer is the first to finish";
constexpr const char* SecondTime = "QIB in finishAHS() a second time";
constexpr const char* TimerIsIn = "timer calls back";
constexpr const char* TimerExpired = "QIB timer expired";
constexpr const char* TimerIsBack = "timer is back";
constexpr const char* CacheStored = "cache stored";
constexpr const char* ClientCalled = "client called";
constexpr const char* ClientLeft = "client left";
constexpr const char* ProviderDeleted = "provider deleted";
constexpr const char* CacheReleased = "cache released";
constexpr const char* RunReturned = "run returned";

/// A moment for the timer's expiry, and what the thread at that moment then waits for.
struct Moment {
  const char* name;
  const char* at = nullptr;
  const char* awaits = nullptr;
  // Threads that come by there are held until the run has come by that.
  const char* holdsAt = nullptr;
  const char* holdsUntil = nullptr;
};

/// First: the timer never expires; second: at any step of any thread.
constexpr std::size_t MomentCount = 16;
extern const std::array<Moment, MomentCount> Moments;
constexpr std::size_t Never = 0;
constexpr std::size_t Anywhere = 1;

struct ProbeOutcome {
  STATUSCODE status = 0;
  unsigned int rtt = 0;
};

/// All decisions about one run. The same seed, round and member give the same scenario; the machine
/// decides how the threads interleave.
struct Scenario {
  Scenario(std::uint64_t seed, unsigned long round, unsigned int member);

  std::uint32_t noiseSeed = 0;
  unsigned int member = 0;
  unsigned int reason = 0;
  unsigned int headends = 1;
  int last = -1;  ///< index of the headend used last
  unsigned int pings = 1;
  unsigned int budget = 10000;
  std::vector<unsigned int> cached;  ///< headends; a hit if any
  ProbeOutcome testProbe;
  bool authProxy = false;  ///< the test probe is answered with 407
  std::array<std::array<ProbeOutcome, MostPings>, MostHeadends> probes{};
  bool hasProvider = false;

  bool probeClockFollows = false;  ///< the workers see the time that the timer saw
  unsigned int quiet = 16;         ///< the more, the fewer steps are delayed
  bool callbackThrows = false;
  unsigned int callbackPauseUs = 0;
  unsigned int refusedWorkers = 0;  ///< bit k: worker k gets no thread
  bool refusesResults = false;      ///< the results thread gets no thread of its own
  bool refusesReaper = false;

  std::size_t moment = Never;
  unsigned int nth = 0;  ///< of the passages of the moment; 0 for the first
  const char* awaits = nullptr;
  const Moment& at() const { return Moments[moment]; }

  std::string key(unsigned int headend) const;
  bool refuses(Role role, unsigned int worker) const;
  bool sendsTestProbe() const { return cached.empty() && reason != 1; }
  /// How often the run thread takes the lock of the end before it takes it to finish.
  unsigned int endLocksBeforeFinish() const { return sendsTestProbe() && last < 0 ? 1 : 0; }
  std::string toString() const;
};

}  // namespace stress
