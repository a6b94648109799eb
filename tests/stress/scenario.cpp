// What happens in a run, drawn by lot. A moment that is aimed at is made reachable: the rest of the
// scenario is bent until the run comes by there.

#include "tests/stress/scenario.h"

#include <iterator>
#include <random>
#include <sstream>

#include "vpn/include/HttpSession.h"

namespace stress {
namespace {

// A status that callers do not know counts as a sample.
constexpr STATUSCODE UnknownStatus = 0xFE460005;

constexpr STATUSCODE Failures[] = {
    HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,   HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED,
    HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE, HTTP_SESSION_ERROR_CONNECT,
    HTTP_SESSION_ERROR_CANNOT_CONNECT,          HTTP_SESSION_ERROR_TIMEOUT,
    HTTP_SESSION_ERROR_DNS_RESOLUTION,          UnknownStatus,
};

constexpr const char* PlaceNames[] = {
    "TimerArmed",       "TestPingSaid",     "TestProbeOut",
    "TestProbeBack",    "TestPingTook",     "WorkerStarted",
    "WorkerAwaited",    "WorkerProbeOut",   "WorkerProbeBack",
    "SamplesSaid",      "ReportLockWanted", "ReportLockHeld",
    "ReportLockGiven",  "EndLockWanted",    "EndLockHeld",
    "EndLockGiven",     "OtherLockWanted",  "OtherLockHeld",
    "OtherLockGiven",   "FirstTimeSaid",    "TimerCalled",
    "TimerExpiredSaid", "TimerLeaves",      "WorkerLeaves",
    "LineSaid",         "ThreadWanted",     "ThreadMade",
    "ThreadBegins",     "ProviderDeleted",  "CacheReleased",
    "ClientCalled",     "ClientLeft",       "none",
};
static_assert(std::size(PlaceNames) == static_cast<std::size_t>(Place::Count) + 1);

/// Any of the milestones that may be awaited: one is drawn.
constexpr unsigned int Any = ~0U;

constexpr const char* RoleNames[] = {"main", "run", "timer", "worker", "results", "reaper"};

/// Numbers that depend on nothing but what they are made from.
class Dice {
 public:
  Dice(std::uint64_t seed, unsigned long round, unsigned int member)
      : m_engine(engineOf(seed, round, member)) {}

  unsigned int below(unsigned int end) { return static_cast<unsigned int>(m_engine() % end); }
  bool oneIn(unsigned int chances) { return below(chances) == 0; }

  template <class T, std::size_t N>
  T of(const T (&choices)[N]) {
    return choices[below(N)];
  }

 private:
  static std::mt19937_64 engineOf(std::uint64_t seed, unsigned long round, unsigned int member) {
    std::seed_seq sequence{static_cast<std::uint32_t>(seed),
                           static_cast<std::uint32_t>(seed >> 32U),
                           static_cast<std::uint32_t>(round), member};
    return std::mt19937_64(sequence);
  }

  std::mt19937_64 m_engine;
};

ProbeOutcome outcomeOf(Dice& dice, bool mayFail) {
  ProbeOutcome outcome;
  outcome.rtt = dice.oneIn(8) ? 0 : dice.below(dice.oneIn(10) ? 12000 : 300);
  if (mayFail && dice.oneIn(5)) {
    outcome.status = dice.of(Failures);
  }
  return outcome;
}

void drawCandidates(Scenario& run, Dice& dice) {
  run.reason = dice.oneIn(3) ? 1 : dice.below(7);
  run.headends = 1 + dice.below(MostHeadends);
  run.withPorts = dice.oneIn(2);
  run.last = dice.oneIn(2) ? -1 : static_cast<int>(dice.below(run.headends));
  run.pings = dice.below(MostPings + 1);
  run.budget = 1000 + dice.below(20000);
  run.improvement = dice.below(100);
}

void drawProbes(Scenario& run, Dice& dice) {
  run.testProbe = outcomeOf(dice, true);
  const bool mayFail = !dice.oneIn(3);
  for (auto& ofHeadend : run.probes) {
    for (ProbeOutcome& outcome : ofHeadend) {
      outcome = outcomeOf(dice, mayFail);
    }
  }
}

void drawTrouble(Scenario& run, Dice& dice) {
  run.hasProvider = dice.oneIn(4);
  run.probeClockFollows = dice.oneIn(2);
  run.noise = dice.below(3);
  run.callbackThrows = dice.oneIn(40);
  run.callbackPauseUs = dice.oneIn(4) ? dice.below(300) : 0;
  run.refusedWorkers = dice.oneIn(20) ? dice.below(1U << MostHeadends) : 0;
  run.refusesResults = dice.oneIn(25);
  run.refusesReaper = dice.oneIn(10);
}

void answerEverywhere(Scenario& run) {
  for (auto& ofHeadend : run.probes) {
    for (ProbeOutcome& outcome : ofHeadend) {
      outcome.status = 0;
    }
  }
  run.refusedWorkers = 0;
}

void drawCacheHit(Scenario& run, Dice& dice) {
  for (unsigned int headend = 0; headend < run.headends; ++headend) {
    if (headend == 0 || !dice.oneIn(3)) {
      run.cached.emplace_back(headend, dice.below(500));
    }
  }
}

/// Bends the scenario until the run comes by its moment.
void reach(Scenario& run, Dice& dice) {
  const Moment& at = run.at();
  const bool isOfTestProbe = at.place <= Place::TestPingTook || at.place == Place::EndLockWanted;
  if (isOfTestProbe && run.reason == 1) {
    run.reason = 0;
  }
  run.pings = run.pings == 0 ? 1 : run.pings;
  if (at.place == Place::EndLockWanted) {
    // The run takes the end lock to name the target of the test probe, and to finish.
    run.last = dice.oneIn(2) ? run.last : -1;
    run.nth = dice.oneIn(2) ? 0 : run.endLocksBeforeFinish();
  } else if (at.place == Place::WorkerStarted) {
    run.headends = run.headends < 2 ? 2 : run.headends;
    run.last = -1;
    run.nth = dice.below(run.headends - 1);
  } else if (at.role == Role::Worker && at.hold.until == 0) {
    run.nth = dice.oneIn(2) ? dice.below(run.headends) : 0;
  }
  if (at.place == Place::SamplesSaid || at.place == Place::ReportLockHeld) {
    answerEverywhere(run);
  }
  if (at.hold.until != 0) {
    run.refusedWorkers = 0;
  }
  run.authProxy = at.place < Place::TestPingTook && dice.oneIn(6);
}

void drawMoment(Scenario& run, Dice& dice) {
  run.moment = dice.below(MomentCount);
  if (run.moment == Never || run.moment == Anywhere) {
    run.authProxy = dice.oneIn(8);
    run.nth = dice.below(120);
    if (run.moment == Never && dice.oneIn(2)) {
      drawCacheHit(run, dice);
    }
    return;
  }
  reach(run, dice);
  run.awaits = run.at().awaits;
  if (run.awaits == Any) {
    run.awaits =
        dice.of({0U, unsigned{TimerHasLogged}, unsigned{TimerFinishes}, unsigned{TimerIsBack}});
  }
}

}  // namespace

const std::array<Moment, MomentCount> Moments{{
    {"never"},
    {"at a random moment"},
    {"before the test probe", Place::TimerArmed, Role::Run, Any},
    {"as the test probe is told", Place::TestPingSaid, Role::Run, Any},
    {"during the test probe", Place::TestProbeOut, Role::Run, Any},
    {"as the test probe returns", Place::TestProbeBack, Role::Run, Any},
    {"after the test probe", Place::TestPingTook, Role::Run, Any},
    {"between two worker starts", Place::WorkerStarted, Role::Run, Any},
    {"with abandoned workers",
     Place::WorkerStarted,
     Role::Run,
     TimerFinishes,
     {Place::WorkerProbeOut, Role::Worker, RunReturned}},
    {"during a worker's probe", Place::WorkerProbeOut, Role::Worker, Any},
    {"between last sample and report", Place::SamplesSaid, Role::Worker, Any},
    // Not until the callback is back: its ranking waits for the reporter.
    {"during a report", Place::ReportLockHeld, Role::Worker, TimerFinishes},
    {"before the run takes the end lock", Place::EndLockWanted, Role::Run, Any},
    // The timer thread gets no further than to the lock that is held here.
    {"while the run finishes", Place::FirstTimeSaid, Role::Run, TimerHasLogged},
    {"met by all while it finishes",
     Place::WorkerProbeOut,
     Role::Worker,
     TimerFinishes,
     {Place::FirstTimeSaid, Role::Timer, RunWantsToFinish}},
    {"in the destructor",
     Place::FirstTimeSaid,
     Role::Run,
     TimerIsIn,
     {Place::TimerExpiredSaid, Role::Timer, unsigned{RunReturned} | DestructorEntered}},
}};

const char* nameOf(Place place) { return PlaceNames[static_cast<std::size_t>(place)]; }
const char* nameOf(Role role) { return RoleNames[static_cast<std::size_t>(role)]; }

Scenario Scenario::make(std::uint64_t seed, unsigned long round, unsigned int member) {
  Dice dice(seed, round, member);
  Scenario run;
  run.seed = seed;
  run.round = round;
  run.member = member;
  drawCandidates(run, dice);
  drawProbes(run, dice);
  drawTrouble(run, dice);
  drawMoment(run, dice);
  if (run.authProxy) {
    run.testProbe.status = dice.of({STATUSCODE{0}, STATUSCODE{HTTP_SESSION_ERROR_CONNECT}});
  }
  return run;
}

std::string Scenario::host(unsigned int headend) const {
  return "gw" + std::to_string(headend) + ".r" + std::to_string(round) + "m" +
         std::to_string(member) + "x";
}

std::string Scenario::key(unsigned int headend) const {
  return host(headend) + (withPorts ? ":" + std::to_string(8440 + headend) : "");
}

std::string Scenario::toString() const {
  std::ostringstream text;
  text << "seed " << seed << ", round " << round << ", member " << member << ": expiry "
       << at().name << ", time " << nth;
  text << "; reason " << reason << ", " << headends << " headends, last " << last << ", " << pings
       << " pings, " << cached.size() << " cached" << (authProxy ? ", 407" : "")
       << (hasProvider ? ", provider" : "") << (refusesResults ? ", no results thread" : "");
  return text.str();
}

unsigned int membersOf(std::uint64_t seed, unsigned long round) {
  constexpr unsigned int NoMember = 1000;  // a sequence of its own
  Dice dice(seed, round, NoMember);
  return dice.oneIn(20) ? 2 + dice.below(2) : 1;
}

}  // namespace stress
