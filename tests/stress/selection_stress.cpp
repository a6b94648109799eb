// Many selection runs one after another, each with its own troubles, until one does what it must
// not. What a run meets is drawn from a seed, which is printed: the same seed and round meet the
// same scenario again.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/stress/round.h"

namespace {

// A round takes milliseconds; under a sanitizer on a busy machine perhaps a second.
constexpr unsigned int LongestRoundSeconds = 120;

constexpr char Usage[] =
    "usage: selection_stress [--runs N] [--seed S] [--first ROUND] [--require-every-aim]\n"
    "  --runs N             selections to run; 1000\n"
    "  --seed S             where the scenarios come from; the time of day\n"
    "  --first ROUND        number of the first round; 0\n"
    "  --require-every-aim  fail when a moment was never hit\n";

/// How often each moment was aimed at, reached and hit. A moment that is aimed at and never hit
/// proves nothing.
class Statistics {
 public:
  void add(const stress::Stage& stage) {
    Aimed& aimed = m_aimed[stage.scenario.moment];
    ++m_runs;
    ++aimed.runs;
    aimed.fired += stage.hasFired() ? 1 : 0;
    aimed.hit += stage.hasHit() ? 1 : 0;
    m_expired += stage.hasReached(stress::TimerHasLogged) ? 1 : 0;
    m_decided += stage.hasReached(stress::TimerFinishes) ? 1 : 0;
  }

  unsigned long runs() const { return m_runs; }

  void print() const {
    std::printf("%-34s%9s%9s%9s\n", "expiry aimed", "runs", "fired", "hit");
    for (std::size_t i = 0; i < m_aimed.size(); ++i) {
      std::printf("%-34s%9lu%9lu%9lu\n", stress::Moments[i].name, m_aimed[i].runs, m_aimed[i].fired,
                  m_aimed[i].hit);
    }
    std::printf("the timer expired in %lu of %lu runs and decided %lu of them\n", m_expired, m_runs,
                m_decided);
  }

  /// Prints the moments that were never hit, the places that nobody passed and the wrappers that
  /// are not in place. @return whether there are any.
  bool printMissed() const {
    const stress::Census& all = stress::census();
    std::vector<std::pair<std::string, long>> counts{
        {"runs made", all.runnables.made},
        {"thread objects made", all.threadObjects.made},
        {"contexts acquired", all.contexts.made},
        {"caches acquired", all.caches.made}};
    for (std::size_t i = 0; i < m_aimed.size(); ++i) {
      counts.emplace_back(stress::Moments[i].name, static_cast<long>(m_aimed[i].hit));
    }
    for (std::size_t i = 0; i < all.passages.size(); ++i) {
      counts.emplace_back(nameOf(static_cast<stress::Place>(i)), all.passages[i]);
    }
    std::erase_if(counts, [](const auto& count) { return count.second != 0; });
    for (const auto& [name, none] : counts) {
      std::printf("never: %s\n", name.c_str());
    }
    return !counts.empty();
  }

 private:
  struct Aimed {
    unsigned long runs = 0;
    unsigned long fired = 0;
    unsigned long hit = 0;
  };

  unsigned long m_runs = 0;
  unsigned long m_expired = 0;
  unsigned long m_decided = 0;
  std::array<Aimed, stress::MomentCount> m_aimed{};
};

struct Options {
  unsigned long runs = 1000;
  unsigned long seed = 0;
  unsigned long first = 0;
  bool requireEveryAim = false;
};

// What a signal handler and a sanitizer's report can tell.
std::atomic<unsigned long> currentSeed{0};
std::atomic<unsigned long> currentRound{0};

void sayWhere(const char* what) {
  char text[160];
  const int length = std::snprintf(text, sizeof text, "%s: --seed %lu --first %lu --runs 1\n", what,
                                   currentSeed.load(), currentRound.load());
  if (write(STDERR_FILENO, text, static_cast<std::size_t>(length)) < 0) {
    return;
  }
}

void giveUp(int) {
  sayWhere("selection_stress: a round does not come to its end");
  std::abort();
}

void setAlarm() {
  struct sigaction action {};
  action.sa_handler = giveUp;
  sigaction(SIGALRM, &action, nullptr);
}

unsigned long timeOfDay() {
  return static_cast<unsigned long>(std::chrono::system_clock::now().time_since_epoch().count() /
                                    1000 % 1000000000);
}

bool readNumber(const char* name, int& at, int count, char** arguments, unsigned long& value) {
  if (std::strcmp(arguments[at], name) != 0 || at + 1 == count) {
    return false;
  }
  char* end = nullptr;
  value = std::strtoul(arguments[++at], &end, 10);
  return *end == '\0' && end != arguments[at];
}

bool readOptions(int count, char** arguments, Options& options) {
  for (int at = 1; at < count; ++at) {
    if (std::strcmp(arguments[at], "--require-every-aim") == 0) {
      options.requireEveryAim = true;
    } else if (!readNumber("--runs", at, count, arguments, options.runs) &&
               !readNumber("--seed", at, count, arguments, options.seed) &&
               !readNumber("--first", at, count, arguments, options.first)) {
      return false;
    }
  }
  return true;
}

/// @return whether all is well.
bool play(const Options& options, Statistics& statistics) {
  stress::Host host;
  const auto start = std::chrono::steady_clock::now();
  for (unsigned long round = options.first; statistics.runs() < options.runs; ++round) {
    currentRound = round;
    alarm(LongestRoundSeconds);
    const std::string problem = stress::playRound(
        host, options.seed, round, [&](const stress::Stage& stage) { statistics.add(stage); });
    if (!problem.empty()) {
      std::fprintf(stderr, "%s\n", problem.c_str());
      sayWhere("selection_stress: failed");
      return false;
    }
  }
  alarm(0);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%lu runs in %.1f s, %.0f us a run\n", statistics.runs(), seconds,
              seconds * 1e6 / static_cast<double>(statistics.runs()));
  return true;
}

}  // namespace

// Called by the sanitizers before and after they report; they know nothing of rounds.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*): the sanitizers' names
extern "C" void __asan_on_error() { sayWhere("selection_stress: found by AddressSanitizer"); }
extern "C" void __tsan_on_report(void*) { sayWhere("selection_stress: found by ThreadSanitizer"); }
// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)

int main(int count, char** arguments) {
  Options options;
  options.seed = timeOfDay();
  if (!readOptions(count, arguments, options)) {
    std::fputs(Usage, stderr);
    return 2;
  }
  currentSeed = options.seed;
  std::printf("seed %lu\n", options.seed);
  std::fflush(stdout);
  prctl(PR_SET_TIMERSLACK, 1UL);  // delays of microseconds are meant; all threads inherit it
  setAlarm();

  Statistics statistics;
  if (!play(options, statistics)) {
    return 1;
  }
  statistics.print();
  return statistics.printMissed() && options.requireEveryAim ? 1 : 0;
}
