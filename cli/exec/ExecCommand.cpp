// `ahs exec`: selects, then runs a program with the nearest headend. A program that soon fails is
// run with the next headend. Otherwise its exit status becomes the command's.

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cli/AddOption.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Interruption.h"
#include "cli/Wording.h"
#include "cli/exec/ChildProgram.h"
#include "cli/exec/HeadendProgram.h"
#include "cli/select/SelectOptions.h"
#include "cli/select/Selecting.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/Locks.h"

namespace {

using std::chrono::steady_clock;

// Most programs give up a silent headend sooner than this.
constexpr unsigned int StartSeconds = 30;
constexpr unsigned int MostStartSeconds = 86'400;
constexpr unsigned int MostTries = 100'000;

struct ExecOptions {
  SelectOptions select;
  unsigned int startSeconds = StartSeconds;
  unsigned int tries = MostTries;
  std::vector<std::string> program;
};

/// Passes signals on to the running program. After a signal no further program is started. Without
/// a running program, the signal acts on the command.
class Foreground {
 public:
  std::shared_ptr<ChildProgram> start(const std::vector<std::string>& command,
                                      const ChildProgram::Variables& variables) {
    const CAutoLockT<CManualLock> guard(m_lock);
    m_program = std::make_shared<ChildProgram>(command, variables);
    return m_program;
  }

  std::optional<int> signal() const {
    const CAutoLockT<CManualLock> guard(m_lock);
    return m_signal;
  }

  bool takeOver(int signal, bool fromTerminal) {
    const CAutoLockT<CManualLock> guard(m_lock);
    const bool isTaken = m_program != nullptr && m_program->signal(signal, fromTerminal);
    if (isTaken && signal != SIGTSTP && signal != SIGCONT) {
      m_signal = signal;
    }
    return isTaken;
  }

 private:
  mutable CManualLock m_lock;
  std::shared_ptr<ChildProgram> m_program AHS_GUARDED_BY(m_lock);
  std::optional<int> m_signal AHS_GUARDED_BY(m_lock);
};

/// How one run of the program ended.
struct Attempt {
  int status = 0;
  bool mayTryNext = false;
};

Attempt runProgram(const ExecOptions& options, const HeadendResult& chosen,
                   Foreground& foreground) {
  const std::vector<std::string> command = commandFor(options.program, chosen);
  const auto start = steady_clock::now();
  const auto program = foreground.start(command, variablesOf(chosen));
  if (!program->problem().empty()) {
    Console::complain(Console::inQuotes(command.front()) + " cannot be run: " + program->problem() +
                      (program->problemStatus() == ExitNoProgram
                           ? ". What stands after -- is the program and its arguments; name one "
                             "that is on PATH, or its path."
                           : "."));
    return {program->problemStatus(), false};
  }
  const std::optional<ChildProgram::End> early =
      program->waitForEnd(std::chrono::seconds(options.startSeconds));
  const ChildProgram::End end = early ? *early : program->waitForEnd();
  if (!early || options.startSeconds == 0 || end.status == 0 || foreground.signal()) {
    return {end.status, false};
  }
  Console::complain(
      "for " + Console::visible(chosen.headend) + ", " + Console::inQuotes(command.front()) + " " +
      (end.bySignal ? "was ended by signal " + std::to_string(end.status - ExitSignalBase)
                    : "ended with status " + std::to_string(end.status)) +
      " after " +
      Wording::fixed(std::chrono::duration<double>(steady_clock::now() - start).count(), 1) +
      " s.");
  return {end.status, true};
}

/// The headends to try, best first; where nothing was measured all candidates, the last one first,
/// because a program may reach what a probe does not. What may be no headend comes last.
std::vector<std::string> headendsToTry(const SelectionResult& result) {
  std::vector<std::string> all = result.headends;
  if (exitStatusOf(result.status) != ExitSelected) {
    all.clear();
    for (const HeadendResult& headend : result.results) {
      all.push_back(headend.headend);
    }
  }
  std::stable_partition(all.begin(), all.end(), [&result](const std::string& headend) {
    const URL url(headend);
    const auto port = static_cast<unsigned short>(SelectionRules::portOf(url));
    return !result.doubt.places.contains(placeOf(url.getHost(), port));
  });
  return all;
}

std::optional<std::string> nextOf(const SelectionResult& result,
                                  const std::set<std::string>& tried) {
  const std::vector<std::string> all = headendsToTry(result);
  const auto next = std::ranges::find_if(
      all, [&tried](const std::string& headend) { return !tried.contains(headend); });
  return next == all.end() ? std::nullopt : std::optional(*next);
}

/// @param result the first one, which may name only some of the headends.
int runPrograms(const ExecOptions& options, SelectionResult result, const Selecting& selecting) {
  const auto foreground = std::make_shared<Foreground>();
  Interruption::setDuties({CAppLog::flush, {}, {}, [foreground](int signal, bool fromTerminal) {
                             return foreground->takeOver(signal, fromTerminal);
                           }});
  Attempt attempt;
  std::set<std::string> tried;
  for (;;) {
    std::optional<std::string> next = nextOf(result, tried);
    if (!next) {
      result = selecting.latest(true);
      next = nextOf(result, tried);
    }
    if (!next || tried.size() == options.tries) {
      Console::complain(next ? "--tries allows no other headend."
                             : "there is no other headend to try.");
      return attempt.status;
    }
    const HeadendResult chosen = chosenHeadend(*next, result);
    Console::complain(
        (tried.empty() ? "running with " : "trying ") + Console::visible(chosen.headend) +
        (chosen.metricMs ? ", " + std::to_string(*chosen.metricMs) + " ms" : "") + ".");
    tried.insert(*next);
    attempt = runProgram(options, chosen, *foreground);
    if (!attempt.mayTryNext) {
      return attempt.status;
    }
    if (const std::optional<int> signal = foreground->signal()) {
      return ExitSignalBase + *signal;
    }
    result = selecting.latest(false);
  }
}

int runExec(const ExecOptions& options) {
  const std::string command = "ahs exec";
  if (options.program.empty()) {
    return Console::complainOfUsage(
        command,
        "there is no program to run: it stands after --, as in 'ahs exec -- "
        "vpn-client --gateway {headend}'.");
  }
  return selectOnce(options.select, command,
                    [&options](const SelectionResult& result, const SelectPlan& plan,
                               const Selecting& selecting) {
                      const int selected = exitStatusOf(result.status);
                      const std::string advice = adviceFor(result, plan.profilePlaces);
                      if (!advice.empty()) {
                        Console::complain(advice);
                      }
                      const bool mayRun = selected == ExitSelected || selected == ExitNotMeasured;
                      return mayRun && !result.results.empty()
                                 ? runPrograms(options, result, selecting)
                                 : selected;
                    });
}

}  // namespace

void addExecCommand(CLI::App& tool, ChosenCommand& chosen,
                    const std::vector<std::string>& program) {
  CLI::App* command = tool.add_subcommand(
      "exec", "Run a program with the nearest headend, and with the next one if it fails to start");
  const auto options = std::make_shared<ExecOptions>();
  addHostOptions(*command, options->select);
  addReasonOption(*command, options->select);
  addOption(*command, "--start-time", "S", options->startSeconds,
            "A program that fails within S seconds counts as not started: 30 unless given")
      ->check(CLI::Range(0U, MostStartSeconds));
  addOption(*command, "--tries", "N", options->tries, "The most headends to try; all unless given")
      ->check(CLI::Range(1U, MostTries));
  addProxyOptions(*command, options->select.proxy);
  addCacheOptions(*command, options->select);
  addLogOptions(*command, options->select);
  command->footer(
      "After -- stands the program with its arguments:\n"
      "  ahs exec [OPTIONS] [HOST[:PORT]...] -- PROGRAM [ARGUMENT...]\n"
      "In the program's arguments {headend}, {host}, {address} and {port} are replaced; in its\n"
      "environment are AHS_HEADEND, AHS_HOST, AHS_ADDRESS, AHS_PORT, AHS_NAME, AHS_METRIC_MS.\n"
      "Examples:\n"
      "  ahs exec -- vpn-client --gateway {headend}\n"
      "  ahs exec gw1.example.com gw2.example.com -- vpn-client -p {port} {host}\n"
      "Exit status: that of the program; 127 no such program, 126 it cannot be run;\n"
      "without a program run: 1 nothing could be measured, 2 usage or configuration,\n"
      "3 a proxy asks for a login and was given none or a wrong one.");
  command->callback([&chosen, options, &program] {
    options->program = program;
    options->select.untilDecided = true;
    chosen = [options] { return runExec(*options); };
  });
}
