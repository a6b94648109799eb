// Many selection runs one after another, each with its own troubles, until one does what it must
// not. What a run meets is drawn from a seed, which is printed: the same seed and round meet the
// same scenario again.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/stress/round.h"

namespace {

// A round takes milliseconds; under a sanitizer on a busy machine perhaps a second.
constexpr unsigned int LongestRoundSeconds = 120;

constexpr char Usage[] =
    "usage: selection_stress [--runs N] [--seed S] [--first ROUND] [--seconds-limit T]\n"
    "                        [--overlap PERCENT] [--require-every-aim]\n"
    "  --runs N             selections to run; 1000\n"
    "  --seed S             where the scenarios come from; the time of day\n"
    "  --first ROUND        number of the first round; 0\n"
    "  --seconds-limit T    stop then, however many runs are done; never\n"
    "  --overlap PERCENT    rounds in which two or three selections run at once; 5\n"
    "  --require-every-aim  fail when a moment was never hit\n";

struct Options {
  unsigned long runs = 1000;
  unsigned long seed = 0;
  unsigned long first = 0;
  unsigned long secondsLimit = 0;
  unsigned long overlap = 5;
  bool requireEveryAim = false;
};

// What a signal handler and a sanitizer's report can tell.
std::atomic<unsigned long> currentSeed{0};
std::atomic<unsigned long> currentRound{0};
std::atomic<unsigned long> currentOverlap{0};

void sayWhere(const char* what) {
  char text[160];
  const int length =
      std::snprintf(text, sizeof text, "%s: --seed %lu --overlap %lu --first %lu --runs 1\n", what,
                    currentSeed.load(), currentOverlap.load(), currentRound.load());
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
               !readNumber("--first", at, count, arguments, options.first) &&
               !readNumber("--seconds-limit", at, count, arguments, options.secondsLimit) &&
               !readNumber("--overlap", at, count, arguments, options.overlap)) {
      return false;
    }
  }
  return true;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// @return whether all is well.
bool play(const Options& options, stress::Statistics& statistics) {
  stress::Host host;
  const auto start = std::chrono::steady_clock::now();
  for (unsigned long round = options.first; statistics.runs() < options.runs; ++round) {
    if (options.secondsLimit != 0 &&
        secondsSince(start) > static_cast<double>(options.secondsLimit)) {
      std::printf("stopped after %lu seconds\n", options.secondsLimit);
      break;
    }
    currentRound = round;
    alarm(LongestRoundSeconds);
    const unsigned int members =
        stress::membersOf(options.seed, round, static_cast<unsigned int>(options.overlap));
    const std::string problem = stress::playRound(host, options.seed, round, members, statistics);
    if (!problem.empty()) {
      std::fprintf(stderr, "%s\n", problem.c_str());
      sayWhere("selection_stress: failed");
      return false;
    }
  }
  alarm(0);
  const double seconds = secondsSince(start);
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
  currentOverlap = options.overlap;
  std::printf("seed %lu\n", options.seed);
  std::fflush(stdout);
  prctl(PR_SET_TIMERSLACK, 1UL);  // delays of microseconds are meant; all threads inherit it
  setAlarm();

  stress::Statistics statistics;
  if (!play(options, statistics)) {
    return 1;
  }
  std::fputs(statistics.toString().c_str(), stdout);
  const std::string missed = statistics.missed();
  std::fputs(missed.c_str(), stdout);
  return options.requireEveryAim && !missed.empty() ? 1 : 0;
}
