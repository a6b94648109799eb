// `ahs watch`: selects repeatedly, each time as a reconnection from the last headend, and prints
// when the choice changes. Each selection restarts the client library, to read the profiles anew,
// and measures, to see the present network.

#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cli/AddOption.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Json.h"
#include "cli/Wording.h"
#include "cli/exec/ChildProgram.h"
#include "cli/exec/HeadendProgram.h"
#include "cli/select/SelectOptions.h"
#include "cli/select/Selecting.h"
#include "cli/show/SelectionResult.h"
#include "cli/watch/NetworkChanges.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr unsigned int IntervalSeconds = 300;
constexpr unsigned int LongestIntervalSeconds = 86'400;
// After a failure the next selection comes sooner.
constexpr seconds FailureInterval{30};
// Metrics are whole milliseconds: none up to this is clearly better than another.
constexpr unsigned int NextDoorMs = 1;
// How often to check a running program.
constexpr milliseconds LookInterval{200};

struct WatchOptions {
  SelectOptions select;
  unsigned int intervalSeconds = IntervalSeconds;
  std::string program;
};

/// Why a selection is made, for programs and for people.
struct Cause {
  const char* word;
  const char* text;

  bool operator==(const Cause&) const = default;
};
constexpr Cause Start{"start", "first choice"};
constexpr Cause Interval{"interval", "measured again"};
constexpr Cause Network{"network", "the network has changed"};

std::string inWords(const HeadendResult& chosen) {
  const std::string name = nameBeside(chosen.headend, chosen.name);
  return Console::visible(name.empty() ? chosen.headend : name + " (" + chosen.headend + ")") +
         (chosen.metricMs ? ", " + std::to_string(*chosen.metricMs) + " ms" : ", not measured");
}

std::string lineOf(const HeadendResult& chosen, const std::optional<HeadendResult>& previous,
                   Cause cause) {
  return Wording::localTime() + "  " + inWords(chosen) + "; " +
         (previous ? "before: " + inWords(*previous) + "; " : "") + cause.text + "\n";
}

std::string jsonLineOf(const HeadendResult& chosen, const std::optional<HeadendResult>& previous,
                       Cause cause) {
  Json line = newJson();
  line["time"] = Wording::utc(time(nullptr));
  line["headend"] = chosen.headend;
  line["name"] = chosen.name;
  line["metricMs"] = orNull(chosen.metricMs);
  line["previousHeadend"] = previous ? Json(previous->headend) : nullptr;
  line["cause"] = cause.word;
  constexpr int OneLine = -1;
  return jsonText(line, OneLine);
}

/// Runs the person's command once per choice, one at a time. While it runs, only the newest choice
/// waits; older ones are outdated and dropped. The command's output is no part of the result.
class Hook {
 public:
  explicit Hook(std::string program) : m_program(std::move(program)) {}

  void announce(ChildProgram::Variables variables) {
    if (m_program.empty()) {
      return;
    }
    const bool isFirstToWait = !m_next;
    m_next = std::move(variables);
    if (look() && m_next && isFirstToWait) {
      Console::complain("the command of --exec still runs; it is run again when it has ended.");
    }
  }

  /// Notes an ended command, and starts a waiting one. @return whether a command is running.
  bool look() {
    if (m_running != nullptr) {
      const std::optional<ChildProgram::End> end = m_running->waitForEnd(milliseconds(0));
      if (!end) {
        return true;
      }
      m_running.reset();
      if (end->status != 0) {
        Console::complain("the command of --exec ended with status " + std::to_string(end->status) +
                          ".");
      }
    }
    if (m_next) {
      start(*std::exchange(m_next, std::nullopt));
    }
    return m_running != nullptr;
  }

 private:
  void start(const ChildProgram::Variables& variables) {
    const std::vector<std::string> command{"/bin/sh", "-c", m_program};
    m_running = std::make_unique<ChildProgram>(command, variables, ChildProgram::Output::Errors);
    if (!m_running->problem().empty()) {
      Console::complain("the command of --exec cannot be run: " + m_running->problem() + ".");
      m_running.reset();
    }
  }

  const std::string m_program;
  std::unique_ptr<ChildProgram> m_running;
  std::optional<ChildProgram::Variables> m_next;
};

/// A tenth more or less at random, so that a fleet that began together does not go on together.
milliseconds spread(milliseconds interval) {
  constexpr std::uint32_t Most = std::numeric_limits<std::uint32_t>::max();
  std::uint32_t random = 0;
  if (getrandom(&random, sizeof random, GRND_NONBLOCK) < 0) {
    return interval;
  }
  return interval * 9 / 10 + interval / 5 * random / Most;
}

/// Answers a change of the network at once, except that a network that keeps changing must not
/// cause a measurement for each change.
class ChangeLimit {
 public:
  /// @return when to answer a change that happens now.
  BootClock::time_point take() {
    const auto now = BootClock::now();
    while (!m_answered.empty() && m_answered.front() + Period <= now) {
      m_answered.pop_front();
    }
    const auto when = m_answered.size() < Most ? now : m_answered.front() + Period;
    if (m_answered.empty() || m_answered.back() < when) {
      m_answered.push_back(when);
    }
    return when;
  }

 private:
  static constexpr seconds Period{60};
  static constexpr std::size_t Most = 3;

  std::deque<BootClock::time_point> m_answered;
};

/// The watch: the present choice and its history.
class Watch {
 public:
  Watch(const WatchOptions& options, SelectPlan plan, std::optional<Secret> password)
      : m_options(options),
        m_plan(std::move(plan)),
        m_password(std::move(password)),
        m_hook(options.program) {}

  /// Continues until nothing can be selected or printed. @return the exit status.
  int run() {
    if (!m_network.problem().empty()) {
      Console::complain("warning: changes of the network cannot be noticed (" +
                        m_network.problem() + "); only the interval starts selections.");
    }
    std::optional<Cause> cause = Start;
    while (cause) {
      m_network.remember();
      const std::optional<int> end = selectOnce(*cause);
      if (end) {
        return *end;
      }
      cause = wait();
    }
    return ExitNoReader;
  }

 private:
  /// @return the exit status if the watch ends.
  std::optional<int> selectOnce(Cause cause) {
    Selecting selecting(m_plan, "ahs watch", &m_told);
    if (!selecting.isReady()) {
      m_hasFailed = true;
      return cause == Start ? std::optional<int>(ExitUsage) : std::nullopt;
    }
    const std::optional<SelectionResult> result = selecting.run(m_password, false);
    if (!result) {
      m_hasFailed = true;
      return cause == Start ? std::optional<int>(ExitNotMeasured) : std::nullopt;
    }
    const int status = exitStatusOf(*result);
    if (status == ExitProxyAsks) {
      Console::complain(adviceFor(*result, m_plan.profilePlaces));
      return status;
    }
    noteFailure(*result, status != ExitSelected);
    if (status != ExitSelected || result->headends.empty()) {
      return std::nullopt;  // what was not measured is no news
    }
    return take(choiceOf(*result), cause);
  }

  /// The selection's choice; the previous one if both are next door: a metric of 0 allows no ratio,
  /// so the choice would alternate.
  HeadendResult choiceOf(const SelectionResult& result) const {
    HeadendResult best = chosenHeadend(result.headends.front(), result);
    if (!m_chosen || best.metricMs != 0U) {
      return best;
    }
    HeadendResult before = chosenHeadend(m_chosen->headend, result);
    return before.metricMs && *before.metricMs <= NextDoorMs ? before : best;
  }

  void noteFailure(const SelectionResult& result, bool hasFailed) {
    if (hasFailed && !m_hasFailed) {
      const std::string doubt = doubtInWords(result.doubt);
      Console::complain((doubt.empty() ? statusInWords(result) : doubt) +
                        " It is tried again every " + std::to_string(interval(true).count()) +
                        " s, and when the network changes.");
    } else if (!hasFailed && m_hasFailed) {
      Console::complain("headends can be measured again.");
      m_told.clear();
    }
    m_hasFailed = hasFailed;
  }

  std::optional<int> take(HeadendResult chosen, Cause cause) {
    const bool isNew = !m_chosen || m_chosen->headend != chosen.headend;
    std::optional<int> end;
    if (isNew) {
      const int status =
          Console::writeResult(m_options.select.json ? jsonLineOf(chosen, m_chosen, cause)
                                                     : lineOf(chosen, m_chosen, cause),
                               ExitSelected);
      end = status == ExitSelected ? std::nullopt : std::optional(status);
      ChildProgram::Variables variables = variablesOf(chosen);
      variables.emplace_back("AHS_PREVIOUS_HEADEND", m_chosen ? m_chosen->headend : "");
      variables.emplace_back("AHS_CAUSE", cause.word);
      m_hook.announce(std::move(variables));
    }
    m_plan.last = chosen.name;
    m_plan.reason = ReasonReconnection;
    m_chosen = std::move(chosen);
    return end;
  }

  seconds interval(bool hasFailed) const {
    const seconds given(m_options.intervalSeconds);
    return hasFailed ? std::min(given, FailureInterval) : given;
  }

  /// @return why to select again; nothing when nobody reads the output.
  std::optional<Cause> wait() {
    Cause cause = Interval;
    auto end = BootClock::now() + spread(interval(m_hasFailed));
    while (true) {
      const auto left = std::chrono::ceil<milliseconds>(end - BootClock::now());
      if (left.count() <= 0) {
        return cause;
      }
      const bool looks = m_hook.look();
      switch (m_network.wait(looks ? std::min(left, LookInterval) : left)) {
        case NetworkChanges::Heard::Closed:
          return std::nullopt;
        case NetworkChanges::Heard::Change:
          cause = Network;
          end = std::min(end, m_changes.take());
          m_network.remember();
          break;
        case NetworkChanges::Heard::Nothing:
          break;
      }
    }
  }

  const WatchOptions& m_options;
  SelectPlan m_plan;
  const std::optional<Secret> m_password;
  NetworkChanges m_network{STDOUT_FILENO};
  ChangeLimit m_changes;
  Hook m_hook;
  std::optional<HeadendResult> m_chosen;
  std::set<std::string> m_told;
  bool m_hasFailed = false;
};

int runWatch(WatchOptions options) {
  // A result of the cache is no news.
  options.select.noCache = true;
  const std::string command = "ahs watch";
  SelectPlan plan;
  std::optional<Secret> password;
  if (options.select.last) {
    options.select.reason = reasonName(ReasonReconnection);
  }
  if (!takePlan(options.select, command, plan, password)) {
    return ExitUsage;
  }
  return Watch(options, std::move(plan), std::move(password)).run();
}

}  // namespace

void addWatchCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* command = tool.add_subcommand(
      "watch",
      "Select again at an interval and when the network changes; tell when the choice does");
  const auto options = std::make_shared<WatchOptions>();
  addHostOptions(*command, options->select);
  addOption(
      *command, "--interval", "S", options->intervalSeconds,
      "Seconds from one selection to the next, a tenth more or less at random: 300 unless given")
      ->check(CLI::Range(1U, LongestIntervalSeconds));
  addOption(*command, "--exec", "COMMAND", options->program,
            "Run this by /bin/sh for each choice; the headend is in $AHS_HEADEND");
  command->add_flag("--json", options->select.json, "Print one JSON object a line");
  addProxyOptions(*command, options->select.proxy);
  addLogOptions(*command, options->select);
  command->footer(
      "The command of --exec finds AHS_HEADEND, AHS_HOST, AHS_PORT, AHS_NAME, AHS_METRIC_MS,\n"
      "AHS_PREVIOUS_HEADEND and AHS_CAUSE (start, interval, network) in its environment.\n"
      "Examples:\n"
      "  ahs watch --interval 60\n"
      "  ahs watch --exec 'logger \"nearest headend: $AHS_HEADEND\"'\n"
      "Exit status: 2 usage or configuration, or the output could not be written,\n"
      "3 a proxy asks for a login and was given none or a wrong one,\n"
      "128 + number of the signal that ended it.");
  command->callback([&chosen, options] { chosen = [options] { return runWatch(*options); }; });
}
