// `ahs select`: one selection from the options to the exit status. The steps stand in runSelect in
// the order in which they happen; nothing is printed on standard output but the result.

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <map>
#include <memory>

#include "cli/Candidates.h"
#include "cli/Chart.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Explanation.h"
#include "cli/FileOptions.h"
#include "cli/Interruption.h"
#include "cli/LiveTable.h"
#include "cli/ProbeRecorder.h"
#include "cli/ProxyLogin.h"
#include "cli/ResultPage.h"
#include "cli/SelectOptions.h"
#include "cli/SelectionOutput.h"
#include "cli/SelectionResult.h"
#include "cli/SelectionRun.h"
#include "cli/Terminal.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

// How often the table is drawn: fast enough to look alive, slow enough to cost nothing.
constexpr std::chrono::milliseconds DrawingInterval{100};
// How often a line tells the progress where no table can be drawn: lines stay.
constexpr std::chrono::milliseconds LineInterval{2000};
// A run whose result is there ends within microseconds, unless the time limit ended it and workers
// are still waiting for an answer; those are not waited for.
constexpr std::chrono::milliseconds LongestRunEnd{100};
// The reason code of a reconnection, which has a time limit of its own.
constexpr unsigned int Reconnection = 1;
// The reason code of a run that follows a login at the proxy.
constexpr unsigned int ProxyAuthentication = 3;

// Holds the cache over the end of the run, so that the run's records can still be read.
class HeldCache {
 public:
  HeldCache() : m_cache(nullptr) {
    static_cast<void>(CSelectionCache::createSingletonInstance(m_cache));
  }
  ~HeldCache() {
    if (m_cache != nullptr) {
      m_cache->releaseInstance();
    }
  }
  HeldCache(const HeldCache&) = delete;
  HeldCache& operator=(const HeldCache&) = delete;

  void waitForStores() const {
    if (m_cache != nullptr) {
      static_cast<void>(m_cache->WaitForStores());
    }
  }

  /// What the run used or stored; an entry without records if it did neither.
  CCacheEntry lastEntry() const {
    CCacheEntry entry;
    if (m_cache != nullptr) {
      m_cache->GetLastUsed(entry);
    }
    return entry;
  }

 private:
  CSelectionCache* m_cache;
};

int complainOfUsage(const std::string& error, const std::vector<std::string>& problems) {
  for (const std::string& problem : problems) {
    Console::note(problem);
  }
  Console::complain(error + " 'ahs select --help' shows all options.");
  return ExitUsage;
}

// What was read and is wrong is told in any case: a profile that is skipped in silence is missed.
bool hasProfiles() {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  ProfileMgr* profiles = nullptr;
  if (preferences == nullptr || preferences->getProfileMgr(profiles) != 0) {
    return false;
  }
  for (const FileProblem& problem : preferences->getProblems()) {
    Console::note(Console::visible(problem.toString()));
  }
  return !profiles->getFileInitMap().empty();
}

// The candidate of a host entry's name, in any letter case; null if there is none.
const Candidate* findCandidate(const std::string& name, const std::vector<Candidate>& candidates) {
  const std::string wanted = CStringUtils::toLower(name);
  const auto found = std::ranges::find_if(candidates, [&wanted](const Candidate& candidate) {
    return CStringUtils::toLower(candidate.name) == wanted;
  });
  return found == candidates.end() ? nullptr : &*found;
}

void noteUnknownLast(const std::string& last, const std::vector<Candidate>& candidates) {
  if (!last.empty() && findCandidate(last, candidates) == nullptr) {
    Console::complain("warning: no host entry that takes part is named '" + Console::visible(last) +
                      "'; the selection goes on without a last headend. --last takes the name of a "
                      "host entry, or a host of the command line.");
  }
}

// What a person sees while they wait: a table on a terminal, else a line now and then.
void noteMissingCache(const SelectOptions& options, const SelectPlan& plan) {
  if (plan.sources.cacheFile.empty() && !options.noCache) {
    Console::complain(
        "warning: neither HOME nor XDG_CACHE_HOME is set to an absolute path, so the selection is "
        "not kept for the next time. Name a directory with --cache-dir, or say --no-cache.");
  }
}

bool wantsProgress(const SelectOptions& options, const SelectPlan& plan) {
  return !options.quiet && !options.json && !plan.log.terminal;
}

LiveState liveStateOf(const SelectionRun& run, const ProbeRecorder& recorder,
                      const std::vector<Candidate>& candidates, const HS_SETTINGS& settings,
                      unsigned int reason) {
  const ProbeRecorder::Progress progress = recorder.progress();
  const std::map<Place, ProbeRecorder::Track> tracks = recorder.tracks();
  LiveState state;
  state.answered = progress.placesAnswered;
  state.probesEnded = progress.probesEnded;
  state.elapsed = run.elapsed();
  state.budget = std::chrono::milliseconds(reason == Reconnection ? settings.nReconnectTimeout
                                                                  : settings.nConnectTimeout);
  for (const Candidate& candidate : candidates) {
    const auto track = tracks.find(candidate.place);
    state.rows.push_back(liveRowOf(candidate.headend,
                                   track == tracks.end() ? nullptr : &track->second,
                                   settings.nPingsPerHeadend));
  }
  return state;
}

void waitWithTable(SelectionRun& run, const std::function<LiveState()>& look) {
  const auto table = std::make_shared<LiveTable>();
  Interruption::setDuties({[table] {
                             table->closeInHaste();
                             CAppLog::Flush();
                           },
                           [table] { table->eraseInHaste(); },
                           {}});
  while (!run.waitForDelivery(DrawingInterval)) {
    table->draw(look());
  }
  table->close();
}

void waitVisibly(SelectionRun& run, const std::function<LiveState()>& look) {
  if (LiveTable::isPossible()) {
    waitWithTable(run, look);
    return;
  }
  while (!run.waitForDelivery(LineInterval)) {
    Console::note(liveLine(look()));
  }
}

void waitQuietly(SelectionRun& run) {
  while (!run.waitForDelivery(std::chrono::hours(1))) {
  }
}

void waitForEnd(SelectionRun& run) {
  while (!run.waitForEnd(std::chrono::hours(1))) {
  }
}

// The rules that the run went by, for those who ask why.
void tellRules(const std::string& last, const std::vector<Candidate>& candidates,
               const HS_SETTINGS& settings, SelectionResult& result) {
  const Candidate* known = findCandidate(last, candidates);
  result.last = last.empty() || known == nullptr ? last : known->headend;
  result.improvementPercent = settings.nImprovement;
  result.cacheDays = settings.nClearCache;
  std::string measure;
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  result.isResponseMeasured = preferences != nullptr &&
                              preferences->getPreferenceValue(RoundTripTime, measure) == 0 &&
                              measure == PreferenceBase::RoundTripResponse;
}

// Time since an entry was made; none if the clock has been put back since.
std::optional<std::chrono::seconds> ageOf(const CCacheEntry& entry) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto age = std::chrono::duration_cast<std::chrono::seconds>(now) -
                   std::chrono::seconds(entry.GetTimestamp());
  return age.count() < 0 ? std::nullopt : std::optional(age);
}

SelectionResult resultOf(const SelectionRun& run, unsigned int reason, bool hadLogin,
                         const std::vector<Candidate>& candidates, const ProbeRecorder& recorder,
                         const HeldCache& cache) {
  SelectionRun::Delivery delivery = run.delivery();
  SelectionResult result;
  result.reason = reason;
  result.status = delivery.status;
  result.headends = std::move(delivery.headends);
  result.extraInfo = std::move(delivery.extraInfo);
  result.report = std::move(delivery.report);
  result.elapsed = delivery.elapsed;
  result.fromCache = result.status == HEADENDSELECTION_SUCCESS;
  result.hadLogin = hadLogin;
  const CCacheEntry entry = cache.lastEntry();
  std::vector<CHeadendRTT> records;
  if (exitStatusOf(result.status) == ExitSelected) {
    static_cast<void>(entry.GetHeadendList(records));
  }
  if (result.fromCache) {
    result.cacheAge = ageOf(entry);
  }
  result.results =
      collectResults(result.headends, candidates, recorder.tracks(), records, result.fromCache);
  return result;
}

// Which proxy the preferences of the process ask for.
struct ProxyInForce {
  bool isSystems = false;
  std::string place;  // host and port of the preferences' own proxy; empty for any other
};

ProxyInForce findProxy() {
  ProxyInForce proxy;
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  std::string setting;
  UserPreferences* global = nullptr;
  if (preferences == nullptr || preferences->getPreferenceValue(ProxySettings, setting) != 0 ||
      preferences->getParsedPreferenceFile(Global, global) != 0) {
    return proxy;
  }
  proxy.isSystems = setting == PreferenceBase::ProxySystem;
  if (setting == PreferenceBase::ProxyOverride) {
    const std::string port = global->getProxyPort();
    proxy.place = global->getProxyHost() + (port.empty() ? "" : ":" + port);
  }
  return proxy;
}

// Whatever happens while the person is asked, the terminal is given back as it was.
bool findLogin(ProxyLogin& login, const std::shared_ptr<Terminal>& terminal,
               const std::string& proxy, const std::string& realm) {
  if (terminal != nullptr) {
    Interruption::setDuties({[terminal] {
                               terminal->leave();
                               CAppLog::Flush();
                             },
                             [terminal] { terminal->stepAside(); },
                             [terminal] { terminal->comeBack(); }});
  }
  const bool found = login.find(proxy, realm);
  Interruption::setDuties({CAppLog::Flush, {}, {}});
  return found;
}

// The present time as people write it, with the zone: pages are read elsewhere.
std::string timeOfDay() {
  const time_t now = time(nullptr);
  tm local{};
  char text[64] = "";
  if (localtime_r(&now, &local) != nullptr) {
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &local);
  }
  return text;
}

int print(const SelectionResult& result, const SelectOptions& options, const SelectPlan& plan) {
  const std::string text = options.json ? jsonOutput(result)
                           : options.quiet
                               ? quietOutput(result)
                               : textOutput(result) + (options.explain ? explanation(result) : "");
  int exitStatus = Console::writeResult(text, exitStatusOf(result.status));
  if (options.html) {
    exitStatus = Console::writeFile(*options.html, pageOf(result, timeOfDay()), exitStatus);
  }
  if (options.svg) {
    exitStatus = Console::writeFile(*options.svg, chartOf(result), exitStatus);
  }
  const std::string advice = adviceFor(result, plan.profilePlaces);
  if (!advice.empty()) {
    Console::complain(advice);
  }
  return exitStatus;
}

int complainOfStart(STATUSCODE status) {
  Console::complain("the selection could not be started: " + std::string(statusCodeName(status)) +
                    " (" + statusAsHex(status) +
                    "). 'ahs select --log-level info' tells each step.");
  return ExitNotMeasured;
}

int endRun(SelectionRun& run, const HeldCache& cache, int exitStatus) {
  if (!run.waitForEnd(LongestRunEnd)) {
    // Threads that still wait for an answer must not see their process taken down around them. The
    // cache's own ends by itself; on a slow disk it is given its time.
    cache.waitForStores();
    CAppLog::Flush();
    _exit(exitStatus);
  }
  HttpProbe::SetWatcher(nullptr);
  return exitStatus;
}

// One run, and another one after each login at a proxy that asks for one.
int measureAndPrint(const SelectOptions& options, const SelectPlan& plan,
                    const std::optional<Secret>& password) {
  const std::vector<Candidate> candidates = findCandidates();
  noteUnknownLast(plan.last, candidates);
  const HeldCache cache;
  HS_SETTINGS settings{};
  CAHSSettings::GetSettings(settings);
  const ProxyInForce proxy = findProxy();
  const std::shared_ptr<Terminal> terminal = Terminal::find();
  ProxyLogin login(plan.proxy.user, password, terminal, proxy.isSystems);
  for (unsigned int reason = plan.reason;; reason = ProxyAuthentication) {
    const auto recorder = std::make_shared<ProbeRecorder>();
    HttpProbe::SetWatcher(recorder);
    SelectionRun run;
    const STATUSCODE status = run.start(reason, plan.last, login.provider());
    if (status != 0) {
      return complainOfStart(status);
    }
    if (wantsProgress(options, plan)) {
      waitVisibly(run, [&] { return liveStateOf(run, *recorder, candidates, settings, reason); });
    } else {
      waitQuietly(run);
    }
    SelectionResult result =
        resultOf(run, reason, login.hasCredentials(), candidates, *recorder, cache);
    tellRules(plan.last, candidates, settings, result);
    if (result.status == HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED) {
      // It has started no worker, so nothing holds it up; its copy of the login goes with it.
      waitForEnd(run);
      if (findLogin(login, terminal, proxy.place, result.extraInfo)) {
        continue;
      }
    }
    return endRun(run, cache, print(result, options, plan));
  }
}

int runSelect(const SelectOptions& options) {
  Interruption::setDuties({CAppLog::Flush, {}, {}});
  SelectPlan plan;
  std::vector<std::string> problems;
  const std::string error = makePlan(options, defaultPaths(), plan, problems);
  if (!error.empty()) {
    return complainOfUsage(error, problems);
  }
  noteMissingCache(options, plan);
  std::optional<Secret> password;
  const std::string passwordError = readPassword(plan.proxy, password);
  if (!passwordError.empty()) {
    return complainOfUsage(passwordError, {});
  }
  CClientLibrary::Options libraryOptions{plan.sources, plan.log, ""};
  STATUSCODE status = 0;
  const CClientLibrary library(libraryOptions, status);
  if (!libraryOptions.logProblem.empty()) {
    return complainOfUsage("the log cannot be written: " + libraryOptions.logProblem + ".", {});
  }
  if (status != 0) {
    Console::complain(
        "the client library could not be started: " + std::string(statusCodeName(status)) + " (" +
        statusAsHex(status) + "). The machine may be short of memory or threads.");
    return ExitUsage;
  }
  if (!hasProfiles()) {
    return complainOfUsage(
        "no host was given and no usable profile was found: profiles (files *.xml) were looked for "
        "in " +
            plan.profilePlaces +
            ". Name hosts, as in 'ahs select gw1.example.com gw2.example.com:8443', or a directory "
            "with --profiles.",
        {});
  }
  return measureAndPrint(options, plan, password);
}

void addInputs(CLI::App& command, SelectOptions& options) {
  command.add_option("HOST", options.hosts, "Hosts to measure, in place of all profiles")
      ->option_text("[HOST[:PORT]...]");
  addFileOptions(command, options);
  command.add_option("--last", options.last, "Host entry that was used last")->option_text("NAME");
  command
      .add_option("--reason", options.reason,
                  "Why a headend is wanted: " + reasonNames() +
                      " (or 0 to 5); connection "
                      "unless given")
      ->option_text("NAME|0-5");
}

void addProxy(CLI::App& command, ProxyOptions& options) {
  command
      .add_option("--proxy", options.proxy, "Go through this proxy, whatever the preferences say")
      ->option_text("HOST[:PORT]");
  command.add_flag("--no-proxy", options.noProxy, "Go through none, whatever the preferences say");
  command
      .add_option("--proxy-user", options.user,
                  "User name for a proxy that asks for a login; without a password it is asked for "
                  "on the terminal")
      ->option_text("NAME");
  command
      .add_option("--proxy-password-file", options.passwordFile,
                  "File with the password; nobody else may read or write it")
      ->option_text("FILE");
  command
      .add_option("--proxy-password-fd", options.passwordDescriptor,
                  "Open descriptor to read the password from")
      ->option_text("N");
  // Not offered, but tried; the answer says what to do instead.
  constexpr int AnyNumber = 1;
  command
      .add_option_function<std::string>(
          "--proxy-password", [&options](const std::string&) { options.passwordAsArgument = true; },
          "")
      ->expected(0, AnyNumber)
      ->group("");
}

void addCacheAndOutput(CLI::App& command, SelectOptions& options) {
  command.add_option("--cache-dir", options.cacheDirectory, "Directory of the selection cache")
      ->option_text("DIR");
  command.add_flag("--no-cache", options.noCache, "Measure anew and store nothing");
  command.add_flag("--json", options.json, "Print one JSON object");
  command.add_flag("--quiet", options.quiet, "Print the first headend only");
  command.add_option("--html", options.html, "Write the result as a page too")->option_text("FILE");
  command.add_option("--svg", options.svg, "Write the ranking as a picture too")
      ->option_text("FILE");
  command.add_flag("--explain", options.explain, "Tell why this headend, in numbers");
  command
      .add_option("--log-level", options.logLevel,
                  "Least important message that is logged; to standard error unless another "
                  "target is named")
      ->option_text("error|warning|info|off");
  command.add_option("--log-file", options.logFile, "Log to a file, rotated at 4 MiB")
      ->option_text("FILE");
  command.add_flag("--syslog", options.syslog, "Log to the system's log");
}

}  // namespace

void addSelectCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* command = tool.add_subcommand(
      "select", "Measure the headends and print the nearest first, or take them from the cache");
  const auto options = std::make_shared<SelectOptions>();
  addInputs(*command, *options);
  addProxy(*command, options->proxy);
  addCacheAndOutput(*command, *options);
  command->footer(
      "Examples:\n"
      "  ahs select                                     the headends of the profiles\n"
      "  ahs select gw1.example.com gw2.example.com:8443\n"
      "  ahs select --reason reconnection --last Berlin\n"
      "  ahs select --json --no-cache | jq '.headends[0]'\n"
      "Exit status: 0 selected, 1 nothing could be measured, 2 usage or configuration,\n"
      "3 a proxy asks for a login and was given none or a wrong one,\n"
      "128 + number of the signal that ended it.");
  command->callback([&chosen, options] { chosen = [options] { return runSelect(*options); }; });
}
