// Runs many selections one after another, each with its own troubles, until one misbehaves. A
// printed seed determines the troubles: the same seed and round repeat a scenario.
//
// However a run's threads interleave: one of the two that can end the run does so, timely reports
// are ranked, the ranking is delivered and stored, nobody uses a destroyed object, and nothing is
// left. Unit tests cover the log.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "tests/stress/stage.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/ProxyIfc.h"
#include "vpn/Common/Utility/ExecutionContext.h"

namespace stress {
namespace {

// A round takes milliseconds; under a sanitizer on a busy machine perhaps a second.
constexpr unsigned int LongestRoundSeconds = 120;
// So many runs reach every moment; a moment that is never hit proves nothing.
constexpr unsigned long ManyRuns = 1000;

using Stages = std::vector<std::unique_ptr<Stage>>;

// --- What is allowed ---------------------------------------------------------------------------

constexpr std::size_t Nowhere = static_cast<std::size_t>(-1);

void require(bool holds, const char* otherwise) {
  if (!holds) {
    throw std::runtime_error(otherwise);
  }
}

/// Checks a run after its last thread has ended; throws the fault.
class Check {
 public:
  explicit Check(const Stage& stage)
      : m_stage(stage),
        m_run(stage.scenario),
        m_isByTimer(find(TimerFinishes) != Nowhere),
        m_first(m_isByTimer ? find(TimerFinishes) : find(RunFinishes)) {}

  void all() const {
    const std::size_t second = find(SecondTime);
    require(m_first != Nowhere, "nobody was first to finish");
    require(!m_isByTimer || find(RunFinishes) == Nowhere, "two threads were first to finish");
    require((second == Nowhere) == (find(TimerExpired) == Nowhere),
            "one expiry makes a second end, and nothing else does");
    require(second == Nowhere || second > m_first, "the second end came before the first");

    const std::size_t left = find(ClientLeft);
    const std::size_t destroyed = find(CacheReleased);
    require(find(ClientCalled) != Nowhere && m_first < find(ClientCalled), "no call, or too early");
    require(m_stage.events[left].role == Role::Results, "the client was called on another thread");
    require(left < find(RunReturned), "run returned before the client's callback had");
    require(m_isByTimer || destroyed < find(RunReturned), "run returned before its end");
    require(destroyed != Nowhere && left < destroyed, "destroyed before the callback had returned");
    require(m_stage.events[destroyed].role != Role::Timer, "destroyed on the timer thread");
    require(second == Nowhere || second < destroyed, "destroyed before its second end");
    require(
        !m_run.hasProvider || (left < find(ProviderDeleted) && find(ProviderDeleted) < destroyed),
        "the provider was deleted out of order");
    for (unsigned int i = 0; i < m_run.headends; ++i) {
      const std::size_t ended = find(WorkerEnds, i);
      // One that waits for a thread does not begin once the timer has fired.
      const bool mayNotBegin = find(TimerIsIn) != Nowhere && m_run.refuses(Role::Worker, i);
      const bool isStarted = m_stage.isStarted[i];
      require((ended != Nowhere) == isStarted || (isStarted && mayNotBegin),
              "a worker did not end");
      require(ended == Nowhere || ended < destroyed, "destroyed before a worker had ended");
      require(m_isByTimer || ended == Nowhere || ended < m_first, "a worker was not waited for");
    }
    checkOutcome();
    require(m_stage.preferences.acquired == m_stage.preferences.released, "preferences are left");
  }

 private:
  /// Position of the only such event, or of a worker's only such event.
  std::size_t find(const std::string& what, std::optional<unsigned int> worker = {}) const {
    std::size_t place = Nowhere;
    for (std::size_t i = 0; i < m_stage.eventCount; ++i) {
      const Stage::Event& event = m_stage.events[i];
      if (event.what.load() == what && (!worker || *worker == event.worker)) {
        require(place == Nowhere, event.what);
        place = i;
      }
    }
    return place;
  }

  void checkOutcome() const {
    std::vector<std::string> allowed = m_stage.stored;
    for (const unsigned int headend : m_run.cached) {
      allowed.push_back(m_run.key(headend));
    }
    const bool isChallenged = !m_isByTimer && find(Challenged) != Nowhere;
    const bool isRanked = !allowed.empty();
    require(m_stage.reason == m_run.reason, "another reason");
    require(m_stage.extraInfo == (isChallenged ? "head office" : ""), "another realm");
    const bool isFresh = isRanked && m_run.cached.empty();
    long status = 0;
    if (isChallenged) {
      status = HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;
    } else if (!isRanked) {
      status = HEADENDSELECTION_ERROR_SELECTION_FAILURE;
    } else if (isFresh) {
      status = HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
    }
    require(m_stage.status == status, "another status");
    require((find(CacheStored) != Nowhere) == isFresh, "not so stored");
    if (isChallenged) {
      require(m_stage.headends.empty(), "a challenge brought headends");
    } else if (isRanked) {
      checkRanking(std::move(allowed));
    } else {
      checkLast();
    }
  }

  void checkRanking(std::vector<std::string> allowed) const {
    std::vector<std::string> delivered = m_stage.headends;
    std::ranges::sort(delivered);
    std::ranges::sort(allowed);
    require(std::ranges::adjacent_find(allowed) == allowed.end(), "a headend is stored twice");
    require(std::ranges::includes(allowed, delivered), "delivered what is not stored");
    std::size_t known = 0;
    for (unsigned int i = 0; i < m_run.headends; ++i) {
      const bool isStored = std::ranges::binary_search(allowed, m_run.key(i));
      known += isStored ? 1 : 0;
      if (m_run.cached.empty()) {
        const bool isReported = find(SamplesSaid, i) != Nowhere;
        const bool isInTime = isReported && find(WorkerEnds, i) < m_first;
        require(isReported || !isStored, "a rank without its report");
        require(!isInTime || std::ranges::binary_search(delivered, m_run.key(i)), "a lost report");
      }
    }
    require(known == allowed.size(), "stored an unknown headend");
    require(m_run.cached.empty() || delivered == allowed, "not what is cached was delivered");
  }

  /// Without a ranking the client gets the last headend, which the test probe may have set.
  void checkLast() const {
    const bool isKnown = m_run.last >= 0;
    const unsigned int last = isKnown ? static_cast<unsigned int>(m_run.last) : 0;
    const bool mayBeNone = !isKnown && (m_isByTimer || !m_run.sendsTestProbe());
    const bool mayBeOne = isKnown || m_run.sendsTestProbe();
    require(m_stage.headends.empty() ? mayBeNone
                                     : mayBeOne && m_stage.headends == std::vector{m_run.key(last)},
            "another last headend");
    for (unsigned int i = 0; i < m_run.headends; ++i) {
      require(find(SamplesSaid, i) == Nowhere || find(WorkerEnds, i) > m_first, "a lost report");
    }
  }

  const Stage& m_stage;
  const Scenario& m_run;
  const bool m_isByTimer;
  const std::size_t m_first;  ///< where the end of the run began
};

void print(const Stage& stage) {
  constexpr const char* Roles[] = {"main", "run", "timer", "worker", "results", "reaper"};
  std::fprintf(stderr, "%s\n", stage.scenario.toString().c_str());
  for (std::size_t i = 0; i < stage.eventCount; ++i) {
    const Stage::Event& event = stage.events[i];
    std::fprintf(stderr, "  %s %u: %s\n", Roles[static_cast<std::size_t>(event.role)], event.worker,
                 event.what.load());
  }
}

// --- A round -----------------------------------------------------------------------------------

class Provider : public ProxyIfc {
 public:
  ~Provider() override { pass(ProviderDeleted); }
  UnprotectedCredential getProxyUser() override { return UnprotectedCredential("user"); }
  UnprotectedCredential getProxyPswd() override { return UnprotectedCredential("secret"); }
  std::string getProxyHost() override { return "proxy"; }
  ProxyType getProxyType() override { return BasicProxy; }
};

/// The execution context that all runs share, as in a host that keeps the library running.
class Host {
 public:
  Host() {
    if (CExecutionContext::createInstance(API_INSTANCE) == EXECUTIONCONTEXT_SUCCESS) {
      m_pContext = CExecutionContext::acquireInstance(API_INSTANCE);
    }
    require(m_pContext != nullptr, "no execution context");
  }
  ~Host() {
    m_pContext->releaseInstance();
    m_pContext->releaseInstance();
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Waits until all activity of a run has ended.
  void settle() {
    // The timer thread first: it may still be creating a thread.
    std::atomic<bool> isHere{false};
    STATUSCODE status = 0;
    CTimer timer(status, &m_pContext->GetTimerList(), tellArrival, &isHere, 0);
    timer.StartTimer(0);
    while (!isHere.load(std::memory_order_acquire) ||
           threadsOfRuns.load(std::memory_order_acquire) != 0) {
      std::this_thread::yield();
    }
  }

 private:
  static void tellArrival(void* flag, unsigned long) {
    enter(nullptr, Role::Timer);
    static_cast<std::atomic<bool>*>(flag)->store(true, std::memory_order_release);
  }

  CExecutionContext* m_pContext = nullptr;
};

CHeadendSelection* construct(Stage& stage) {
  const Scenario& run = stage.scenario;
  enter(&stage, Role::Main);
  long status = -1;
  auto* const selection = new CHeadendSelection(
      &stage, run.last >= 0 ? run.key(static_cast<unsigned int>(run.last)) : "", run.reason,
      status);
  require(status == 0, "construction failed");
  if (run.hasProvider) {
    selection->SetProxy(new Provider);
  }
  stage.watch(*selection);
  enter(nullptr, Role::Main);
  return selection;
}

/// Constructs, runs and deletes a round's selections like a client, then checks events and
/// leftovers.
void playRound(Host& host, const Stages& stages) {
  const unsigned int threadsBefore = CThread::RunningCount();
  std::vector<CHeadendSelection*> selections;
  for (const auto& stage : stages) {
    selections.push_back(construct(*stage));
  }
  std::vector<std::thread> runThreads;
  for (std::size_t i = 0; i < stages.size(); ++i) {
    runThreads.emplace_back([&stage = *stages[i], selection = selections[i]] {
      enter(&stage, Role::Run);
      selection->run();
      stage.pass(RunReturned);
    });
  }
  for (std::thread& thread : runThreads) {
    thread.join();
  }
  host.settle();
  for (const auto& stage : stages) {
    Check(*stage).all();
  }
  require(CThread::RunningCount() == threadsBefore, "a thread is left");
}

// --- The program -------------------------------------------------------------------------------

// For a signal handler's or a sanitizer's report.
unsigned long seed = 0;
unsigned long currentRound = 0;

void sayWhere(const char* what) {
  char text[160];
  const int length =
      std::snprintf(text, sizeof text, "%s: repeat with 1 %lu %lu\n", what, seed, currentRound);
  static_cast<void>(!write(STDERR_FILENO, text, static_cast<std::size_t>(length)));
}

void giveUp(int) {
  sayWhere("a round does not come to its end");
  std::abort();
}

struct Statistics {
  unsigned long runs = 0;
  unsigned long decided = 0;  ///< by the timer
  std::array<unsigned long, MomentCount> hits{};
};

void play(unsigned long runs, Statistics& statistics) {
  Host host;
  for (; statistics.runs < runs; ++currentRound) {
    alarm(LongestRoundSeconds);
    Stages stages;
    const unsigned int members = currentRound % 20 == 0 ? 2 + currentRound / 20 % 2 : 1;
    for (unsigned int member = 0; member < members; ++member) {
      stages.push_back(std::make_unique<Stage>(Scenario(seed, currentRound, member)));
    }
    try {
      playRound(host, stages);
    } catch (const std::runtime_error&) {
      for (const auto& stage : stages) {
        print(*stage);
      }
      throw;
    }
    for (const auto& stage : stages) {
      ++statistics.runs;
      statistics.decided += stage->has(TimerFinishes) ? 1 : 0;
      statistics.hits[stage->scenario.moment] += stage->hasHit() ? 1 : 0;
    }
  }
  alarm(0);
}

/// @return whether every moment was hit.
bool report(const Statistics& statistics) {
  for (std::size_t i = 0; i < MomentCount; ++i) {
    std::printf("%-34s hit %9lu times\n", Moments[i].name, statistics.hits[i]);
  }
  std::printf("the timer decided %lu of %lu runs\n", statistics.decided, statistics.runs);
  return std::ranges::count(statistics.hits, 0UL) == 0;
}

}  // namespace
}  // namespace stress

// The sanitizers call these around a report, which does not know the round.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*): the sanitizers' names
extern "C" void __asan_on_error() { stress::sayWhere("found by AddressSanitizer"); }
extern "C" void __tsan_on_report(void*) { stress::sayWhere("found by ThreadSanitizer"); }
// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)

int main(int count, char** arguments) {
  const auto number = [&](int index, unsigned long otherwise) {
    return count > index ? std::strtoul(arguments[index], nullptr, 10) : otherwise;
  };
  if (count > 4 || (count > 1 && number(1, 0) == 0)) {
    std::fputs("usage: selection_stress [RUNS [SEED [FIRST_ROUND]]]\n", stderr);
    return 2;
  }
  const unsigned long runs = number(1, stress::ManyRuns);
  const auto now = std::chrono::system_clock::now().time_since_epoch().count();
  stress::seed = number(2, static_cast<unsigned long>(now) / 1000 % 1000000000);
  stress::currentRound = number(3, 0);
  std::printf("seed %lu\n", stress::seed);
  std::fflush(stdout);
  prctl(PR_SET_TIMERSLACK, 1UL);  // for delays of microseconds; threads inherit it
  signal(SIGALRM, stress::giveUp);

  stress::Statistics statistics;
  try {
    stress::play(runs, statistics);
  } catch (const std::runtime_error& problem) {
    stress::sayWhere(problem.what());
    return 1;
  }
  // The last threads may still be on their way out.
  for (int wait = 0; wait < 1000 && CThread::RunningCount() != 0; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  stress::require(CThread::RunningCount() == 0, "the library left a thread");
  return stress::report(statistics) || runs < stress::ManyRuns ? 0 : 1;
}
