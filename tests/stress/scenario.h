#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vpn/include/StatusCode.h"

namespace stress {

constexpr unsigned int MostHeadends = 6;
constexpr unsigned int MostPings = 3;

/// Which thread of a run.
enum class Role : unsigned char { Main, Run, Timer, Worker, Results, Reaper };

/// Where a thread of a run comes by the harness.
enum class Place : unsigned char {
  TimerArmed,       ///< run: StartTimer has returned
  TestPingSaid,     ///< run: has logged that it sends the test probe
  TestProbeOut,     ///< run: the test probe is under way
  TestProbeBack,    ///< run: the test probe is about to return
  TestPingTook,     ///< run: has logged what the test probe took
  WorkerStarted,    ///< run: Start of a worker has returned
  WorkerAwaited,    ///< run: the wait for a worker is over
  WorkerProbeOut,   ///< worker: a probe is under way
  WorkerProbeBack,  ///< worker: a probe is about to return
  SamplesSaid,      ///< worker: has logged its samples and not yet reported
  ReportLockWanted,
  ReportLockHeld,
  ReportLockGiven,
  EndLockWanted,
  EndLockHeld,
  EndLockGiven,
  OtherLockWanted,
  OtherLockHeld,
  OtherLockGiven,
  FirstTimeSaid,     ///< has logged that it is the first in finishAHS; holds the end lock
  TimerCalled,       ///< timer: about to enter the run's callback
  TimerExpiredSaid,  ///< timer: has logged the expiry
  TimerLeaves,       ///< timer: about to give up its hold of the run
  WorkerLeaves,      ///< worker: about to give up its hold of the run
  LineSaid,          ///< has logged anything else
  ThreadWanted,      ///< about to create a thread
  ThreadMade,
  ThreadBegins,  ///< on the new thread, before its body
  ProviderDeleted,
  CacheReleased,
  ClientCalled,
  ClientLeft,
  Count,
};

/// What a run has got to; bits, so that one can wait for any of several.
enum Milestone : unsigned int {
  TimerIsIn = 1,          ///< the timer thread is in the run's callback
  TimerHasLogged = 2,     ///< it has logged the expiry
  TimerFinishes = 4,      ///< it is the first in finishAHS, and holds the end lock
  TimerIsBack = 8,        ///< the callback has returned
  RunWantsToFinish = 16,  ///< the run thread has come to finishAHS
  RunReturned = 32,
  DestructorEntered = 64,
};

const char* nameOf(Place place);
const char* nameOf(Role role);

/// A place where threads of a role are held until the run has got somewhere.
struct Hold {
  Place place = Place::Count;
  Role role = Role::Main;
  unsigned int until = 0;  ///< milestones, any of which will do
};

/// A moment at which an expiry is aimed, and what the thread that makes it expire then waits for.
struct Moment {
  const char* name;
  Place place = Place::Count;  ///< Count: none, or the nth passage of any
  Role role = Role::Main;
  unsigned int awaits = 0;  ///< milestones, any of which will do; 0 for no wait
  Hold hold = {};
};

/// All of them; the first one is that the timer never expires, the second one any passage.
constexpr std::size_t MomentCount = 16;
extern const std::array<Moment, MomentCount> Moments;
constexpr std::size_t Never = 0;
constexpr std::size_t Anywhere = 1;

struct ProbeOutcome {
  STATUSCODE status = 0;
  unsigned int rtt = 0;
};

/// Everything that is decided about one run in advance. Made from seed, round and member alone, so
/// that the same three give the same scenario; how the threads then meet is up to the machine.
struct Scenario {
  std::uint64_t seed = 0;
  unsigned long round = 0;
  unsigned int member = 0;

  unsigned int reason = 0;
  unsigned int headends = 1;
  bool withPorts = false;
  int last = -1;  ///< index of the headend used last
  unsigned int pings = 1;
  unsigned int budget = 10000;
  unsigned int improvement = 20;

  std::vector<std::pair<unsigned int, unsigned int>> cached;  ///< headend and metric; a hit if any

  ProbeOutcome testProbe;
  bool authProxy = false;  ///< the test probe is answered with 407
  std::array<std::array<ProbeOutcome, MostPings>, MostHeadends> probes{};

  bool hasProvider = false;

  bool probeClockFollows = false;  ///< the workers see the time that the timer saw
  unsigned int noise = 0;          ///< 0 for none, 2 for the most delays
  bool callbackThrows = false;
  unsigned int callbackPauseUs = 0;
  unsigned int refusedWorkers = 0;  ///< bit k: worker k gets no thread
  bool refusesResults = false;      ///< the results thread gets no thread of its own
  bool refusesReaper = false;

  std::size_t moment = Never;
  unsigned int nth = 0;     ///< of the passages of its place by its role; 0 for the first
  unsigned int awaits = 0;  ///< see `Moment`
  const Moment& at() const { return Moments[moment]; }

  static Scenario make(std::uint64_t seed, unsigned long round, unsigned int member);

  std::string host(unsigned int headend) const;
  /// Host, and port if there is one.
  std::string key(unsigned int headend) const;
  bool refusesWorker(unsigned int headend) const { return (refusedWorkers >> headend & 1U) != 0; }
  bool sendsTestProbe() const { return cached.empty() && reason != 1; }
  /// How often the run thread takes the end lock before it takes it to finish.
  unsigned int endLocksBeforeFinish() const { return sendsTestProbe() && last < 0 ? 1 : 0; }
  std::string toString() const;
};

/// How many runs of a round run at once: usually one, in one of twenty rounds two or three.
unsigned int membersOf(std::uint64_t seed, unsigned long round);

}  // namespace stress
