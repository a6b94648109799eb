// Draws what happens in a run, so that about half of the runs reach the chosen moment.

#include "tests/stress/scenario.h"

#include <random>
#include <sstream>

#include "vpn/include/HttpSession.h"

namespace stress {
namespace {

constexpr STATUSCODE Failures[] = {
    HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
    HTTP_SESSION_ERROR_CONNECT,
    HTTP_SESSION_ERROR_CANNOT_CONNECT,
    HTTP_SESSION_ERROR_DNS_RESOLUTION,
    0xFE460005,  // callers do not know it: a sample
};

/// For a moment that may await nothing or any step of the timer: one is drawn.
constexpr const char* Any = "any";

class Dice {
 public:
  Dice(std::uint64_t seed, unsigned long round, unsigned int member) {
    std::seed_seq sequence{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(round),
                           member};
    m_engine.seed(sequence);
  }

  unsigned int below(unsigned int end) { return static_cast<unsigned int>(m_engine() % end); }
  bool oneIn(unsigned int chances) { return below(chances) == 0; }

  template <class T, std::size_t N>
  T of(const T (&choices)[N]) {
    return choices[below(N)];
  }

 private:
  std::mt19937_64 m_engine;
};

ProbeOutcome outcomeOf(Dice& dice, bool mayFail) {
  return {mayFail && dice.oneIn(5) ? dice.of(Failures) : 0, dice.oneIn(8) ? 0 : dice.below(300)};
}

void drawMoment(Scenario& run, Dice& dice) {
  run.moment = dice.below(MomentCount);
  const bool isAimed = run.moment != Never && run.moment != Anywhere;
  run.nth = isAimed ? (dice.oneIn(3) ? dice.below(3) : 0) : dice.below(120);
  const char* const steps[] = {nullptr, TimerExpired, TimerFinishes, TimerIsBack};
  run.awaits = run.at().awaits == Any ? dice.of(steps) : run.at().awaits;
  for (unsigned int i = 0; run.moment == Never && i < run.headends; ++i) {
    if (i == 0 ? dice.oneIn(2) : !run.cached.empty() && !dice.oneIn(3)) {
      run.cached.push_back(i);
    }
  }
}

}  // namespace

const std::array<Moment, MomentCount> Moments{{
    {"never"},
    {"at a random moment"},
    {"before the test probe", TimerArmed, Any},
    {"as the test probe is told", TestPingSaid, Any},
    {"during the test probe", TestProbeOut, Any},
    {"as the test probe returns", TestProbeBack, Any},
    {"after the test probe", TestPingTook, Any},
    {"between two worker starts", WorkerStarted, Any},
    {"with abandoned workers", WorkerStarted, TimerFinishes, ProbeOut, RunReturned},
    {"during a worker's probe", ProbeOut, Any},
    {"between last sample and report", SamplesSaid, Any},
    // Only after the callback: its ranking waits for the reporter.
    {"during a report", Reporting, TimerFinishes},
    {"before the run takes the end lock", WantsEndLock, Any},
    // The timer thread stops at the lock that is held here.
    {"while the run finishes", RunFinishes, TimerExpired},
    {"met by all while it finishes", ProbeOut, TimerFinishes, TimerFinishes, WantsToFinish},
    {"while the run is deleted", RunFinishes, TimerIsIn, TimerExpired, ClientLeft},
}};

Scenario::Scenario(std::uint64_t seed, unsigned long round, unsigned int ofMember)
    : noiseSeed(static_cast<std::uint32_t>(seed * 31 + round * 7 + ofMember)), member(ofMember) {
  Dice dice(seed, round, member);
  reason = dice.oneIn(8) ? 1 : dice.below(7);
  headends = 1 + dice.below(MostHeadends);
  last = dice.oneIn(2) ? -1 : static_cast<int>(dice.below(headends));
  pings = dice.below(MostPings + 1);
  budget = 1000 + dice.below(20000);
  testProbe = outcomeOf(dice, true);
  const bool mayFail = !dice.oneIn(3);
  for (auto& ofHeadend : probes) {
    for (ProbeOutcome& outcome : ofHeadend) {
      outcome = outcomeOf(dice, mayFail);
    }
  }
  authProxy = dice.oneIn(8);
  hasProvider = dice.oneIn(4);
  probeClockFollows = dice.oneIn(2);
  quiet = dice.of({16U, 64U, 10000U});
  callbackThrows = dice.oneIn(40);
  callbackPauseUs = dice.oneIn(4) ? dice.below(300) : 0;
  refusedWorkers = dice.oneIn(20) ? dice.below(1U << MostHeadends) : 0;
  refusesResults = dice.oneIn(25);
  refusesReaper = dice.oneIn(10);
  drawMoment(*this, dice);
}

std::string Scenario::key(unsigned int headend) const {
  return "gw" + std::to_string(headend) + "m" + std::to_string(member);
}

bool Scenario::refuses(Role role, unsigned int worker) const {
  return role == Role::Worker    ? (refusedWorkers >> worker & 1U) != 0
         : role == Role::Results ? refusesResults
                                 : refusesReaper;
}

std::string Scenario::toString() const {
  std::ostringstream text;
  text << "member " << member << ": expiry " << at().name << ", time " << nth << "; reason "
       << reason << ", " << headends << " headends, last " << last << ", " << pings << " pings, "
       << cached.size() << " cached" << (authProxy ? ", 407" : "")
       << (hasProvider ? ", provider" : "") << (refusesResults ? ", no results thread" : "");
  return text.str();
}

}  // namespace stress
