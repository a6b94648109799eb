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

constexpr const char* AimNames[] = {
    "never",
    "before the test probe",
    "during the test probe",
    "after the test probe",
    "between two worker starts",
    "during a worker's probe",
    "between last sample and report",
    "during a report",
    "before the run finishes",
    "while the run finishes",
    "met by all while it finishes",
    "in the destructor",
    "with abandoned workers",
    "at a random moment",
};
static_assert(std::size(AimNames) == static_cast<std::size_t>(AimKind::Count));

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
    outcome.lastError = dice.below(90);
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

void drawProxy(Scenario& run, Dice& dice) {
  run.hasProvider = dice.oneIn(4);
  run.providerType = dice.of({BasicProxy, NTLMProxy, KerberosProxy, NoProxy});
  run.providerHasUser = dice.oneIn(2);
  run.providerHasHost = dice.oneIn(2);
  run.proxyInPreferences = dice.oneIn(4);
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

// What the thread that made the timer expire waits for, unless it holds something up by that.
unsigned int anyWait(Dice& dice) {
  return dice.of({0U, unsigned{TimerHasLogged}, unsigned{TimerFinishes}, unsigned{TimerIsBack}});
}

void aim(Scenario& run, Place place, Role role, unsigned int nth, unsigned int awaits) {
  run.aim.place = place;
  run.aim.role = role;
  run.aim.nth = nth;
  run.aim.awaits = awaits;
}

void aimAroundTestProbe(Scenario& run, Dice& dice) {
  if (run.reason == 1) {
    run.reason = 0;
  }
  run.authProxy = dice.oneIn(6);
  Place place = Place::TestProbeOut;
  if (run.aim.kind == AimKind::BeforeTestProbe) {
    place = dice.of({Place::TimerArmed, Place::TestPingSaid, Place::EndLockWanted});
    if (place == Place::EndLockWanted) {
      run.last = -1;  // the run takes the end lock to name the target
    }
  } else if (run.aim.kind == AimKind::AfterTestProbe) {
    place = dice.of({Place::TestProbeBack, Place::TestPingTook});
    run.authProxy = run.authProxy && place == Place::TestProbeBack;
  }
  aim(run, place, Role::Run, 0, anyWait(dice));
}

void aimAtWorkers(Scenario& run, Dice& dice) {
  run.pings = run.pings == 0 ? 1 : run.pings;
  const unsigned int any = dice.oneIn(2) ? dice.below(run.headends) : 0;
  switch (run.aim.kind) {
    case AimKind::BetweenWorkerStarts:
    case AimKind::WorkersAbandoned:
      run.headends = run.headends < 2 ? 2 : run.headends;
      aim(run, Place::WorkerStarted, Role::Run, dice.below(run.headends - 1), anyWait(dice));
      break;
    case AimKind::DuringWorkerProbe:
      aim(run, Place::WorkerProbeOut, Role::Worker, any, anyWait(dice));
      break;
    case AimKind::BeforeReport:
      answerEverywhere(run);
      aim(run, dice.of({Place::SamplesSaid, Place::ReportLockWanted}), Role::Worker, any,
          anyWait(dice));
      break;
    default:
      answerEverywhere(run);
      // Not until the callback is back: its ranking waits for the reporter.
      aim(run, Place::ReportLockHeld, Role::Worker, any,
          dice.of({0U, unsigned{TimerHasLogged}, unsigned{TimerFinishes}}));
      break;
  }
  if (run.aim.kind == AimKind::WorkersAbandoned) {
    run.refusedWorkers = 0;
    run.aim.awaits = dice.of({unsigned{TimerFinishes}, unsigned{TimerIsBack}});
    run.hold = {dice.of({Place::WorkerProbeOut, Place::WorkerProbeBack, Place::ThreadBegins}),
                Role::Worker, RunReturned};
  }
}

void aimAtFinish(Scenario& run, Dice& dice) {
  switch (run.aim.kind) {
    case AimKind::BeforeFinish:
      aim(run, Place::EndLockWanted, Role::Run, run.endLocksBeforeFinish(), anyWait(dice));
      break;
    case AimKind::DuringFinish:
      // The timer thread gets no further than to the lock that is held here.
      aim(run, Place::FirstTimeSaid, Role::Run, 0, TimerHasLogged);
      break;
    case AimKind::WhileTimerFinishes:
      run.pings = run.pings == 0 ? 1 : run.pings;
      run.refusedWorkers = 0;
      aim(run, Place::WorkerProbeOut, Role::Worker, 0, TimerFinishes);
      run.hold = {Place::FirstTimeSaid, Role::Timer, RunWantsToFinish};
      break;
    default:
      aim(run, Place::FirstTimeSaid, Role::Run, 0, TimerIsIn);
      run.hold = {dice.of({Place::TimerCalled, Place::TimerExpiredSaid, Place::TimerLeaves}),
                  Role::Timer,
                  dice.of({unsigned{RunReturned}, unsigned{RunReturned} | DestructorEntered})};
      break;
  }
}

void drawCacheHit(Scenario& run, Dice& dice) {
  for (unsigned int headend = 0; headend < run.headends; ++headend) {
    if (headend == 0 || !dice.oneIn(3)) {
      run.cached.emplace_back(headend, dice.below(500));
    }
  }
}

void drawAim(Scenario& run, Dice& dice) {
  run.aim.kind = static_cast<AimKind>(dice.below(static_cast<unsigned int>(AimKind::Count)));
  switch (run.aim.kind) {
    case AimKind::Never:
      run.authProxy = dice.oneIn(8);
      if (dice.oneIn(2)) {
        drawCacheHit(run, dice);
      }
      break;
    case AimKind::BeforeTestProbe:
    case AimKind::DuringTestProbe:
    case AimKind::AfterTestProbe:
      aimAroundTestProbe(run, dice);
      break;
    case AimKind::BetweenWorkerStarts:
    case AimKind::DuringWorkerProbe:
    case AimKind::BeforeReport:
    case AimKind::DuringReport:
    case AimKind::WorkersAbandoned:
      aimAtWorkers(run, dice);
      break;
    case AimKind::BeforeFinish:
    case AimKind::DuringFinish:
    case AimKind::WhileTimerFinishes:
    case AimKind::InDestructor:
      aimAtFinish(run, dice);
      break;
    default:
      run.authProxy = dice.oneIn(8);
      run.aim.anywhere = true;
      run.aim.nth = dice.below(120);
      break;
  }
}

}  // namespace

const char* nameOf(AimKind kind) { return AimNames[static_cast<std::size_t>(kind)]; }
const char* nameOf(Place place) { return PlaceNames[static_cast<std::size_t>(place)]; }
const char* nameOf(Role role) { return RoleNames[static_cast<std::size_t>(role)]; }

Scenario Scenario::make(std::uint64_t seed, unsigned long round, unsigned int member) {
  Dice dice(seed, round, member);
  Scenario run;
  run.seed = seed;
  run.round = round;
  run.member = member;
  drawCandidates(run, dice);
  drawProxy(run, dice);
  drawProbes(run, dice);
  drawTrouble(run, dice);
  drawAim(run, dice);
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
       << nameOf(aim.kind);
  if (aim.anywhere) {
    text << ", at passage " << aim.nth;
  } else if (aim.place != Place::Count) {
    text << ", at " << nameOf(aim.place) << " of " << nameOf(aim.role) << ", time " << aim.nth;
  }
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
