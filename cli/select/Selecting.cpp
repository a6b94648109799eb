// One selection, from the client library's start to the result. If a proxy asks for a login,
// another run follows. Each run ends before the next begins, so only one copy of the login exists.

#include "cli/select/Selecting.h"

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <utility>

#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Interruption.h"
#include "cli/files/FileOptions.h"
#include "cli/login/Terminal.h"
#include "cli/show/LiveTable.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionThread.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StringUtils.h"

/// One selection run and its client: receives the result. Must not be destroyed between the run's
/// start and end.
class SelectionRun : public ClientIfcBase {
  using Clock = std::chrono::steady_clock;
  using milliseconds = std::chrono::milliseconds;

 public:
  /// To be called once. @return 0, or why no run started; then nothing is delivered.
  STATUSCODE start(unsigned int reason, const std::string& last,
                   std::unique_ptr<ProxyIfc> provider) {
    long status = 0;
    auto selection = std::make_unique<CHeadendSelection>(this, last, reason, status);
    if (status != 0) {
      return status;
    }
    selection->SetProxy(provider.release());
    m_thread = std::make_unique<SelectionThread>(std::move(selection));
    return m_thread->Start();
  }

  /// Waits for the result. @return whether it was delivered.
  bool waitForDelivery(milliseconds longest) {
    const auto limit = Clock::now() + longest;
    const CAutoLockT<CMonitor> guard(m_lock);
    while (!m_isDelivered && Clock::now() < limit) {
      m_lock.waitUntil(limit);
    }
    return m_isDelivered;
  }

  SelectionResult delivery() const {
    const CAutoLockT<CMonitor> guard(m_lock);
    return m_delivery;
  }

  milliseconds elapsed() const {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - m_start);
  }

  /// Waits until the run's thread has ended, which may be later than the result after a time-out.
  /// @return whether it has.
  bool waitForEnd(milliseconds longest) {
    unsigned int exitCode = 0;
    return m_thread->WaitForCompletion(exitCode, static_cast<unsigned int>(longest.count())) !=
           THREAD_ERROR_TIMEOUT;
  }

  void AHSSelectedHost(unsigned int /*reason*/, const std::vector<std::string>& headends,
                       long status, const std::string& extraInfo) override {
    const CAutoLockT<CMonitor> guard(m_lock);
    m_delivery.status = status;
    m_delivery.headends = headends;
    m_delivery.extraInfo = extraInfo;
    m_delivery.elapsed = elapsed();
    m_isDelivered = true;
    m_lock.notifyAll();
  }

 private:
  const Clock::time_point m_start = Clock::now();
  std::unique_ptr<CThread> m_thread;  // used by the owner's thread only

  mutable CMonitor m_lock;  // notified of the delivery
  bool m_isDelivered AHS_GUARDED_BY(m_lock) = false;
  SelectionResult m_delivery AHS_GUARDED_BY(m_lock);
};

namespace {

using std::chrono::milliseconds;

/// The record of a selection whose probes leave by the way that the options name.
class RoutedRecord : public BaitedRecord {
 public:
  explicit RoutedRecord(std::shared_ptr<const ProbeWay> way) : m_way(std::move(way)) {}

  bool socketOpened(int socket, int family) override { return m_way->prepare(socket, family); }
  bool translated(const in_addr& from, in6_addr& to) override { return m_way->translate(from, to); }

 private:
  const std::shared_ptr<const ProbeWay> m_way;
};

// How often to draw the table: fast enough to look alive, slow enough to cost nothing.
constexpr milliseconds DrawingInterval{100};
// How often to print the progress where no table can be drawn: these lines stay.
constexpr milliseconds LineInterval{2000};
// A run ends within microseconds of its result, unless workers still wait for an answer after the
// time limit; a process that ends does not wait for those.
constexpr milliseconds LongestRunEnd{100};
// How often to ask whether it is decided, where that ends the wait.
constexpr milliseconds DecisionInterval{5};
// The run's own time limits are shorter.
constexpr std::chrono::hours LongestWait{1000};

// Whether a mistake was not printed before; `told` may be null.
bool isNew(const std::string& mistake, std::set<std::string>* told) {
  return told == nullptr || told->insert(mistake).second;
}

bool hasProfiles() {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  ProfileMgr* profiles = nullptr;
  return preferences != nullptr && preferences->getProfileMgr(profiles) == 0 &&
         !profiles->getFileInitMap().empty();
}

using IsOver = std::function<bool(milliseconds longest)>;

void waitWithTable(const IsOver& isOver, const std::function<LiveState()>& look) {
  const auto table = std::make_shared<LiveTable>();
  Interruption::setDuties({[table] {
                             // Flushes first: a blocked terminal delays `close`.
                             CAppLog::flush();
                             table->close();
                           },
                           [table] { table->erase(); },
                           {}});
  while (!isOver(DrawingInterval)) {
    table->draw(look());
  }
  table->close();
}

void waitVisibly(const IsOver& isOver, const std::function<LiveState()>& look) {
  if (LiveTable::isPossible()) {
    waitWithTable(isOver, look);
    return;
  }
  while (!isOver(LineInterval)) {
    Console::note(liveLine(look()));
  }
}

// The proxy that the preferences ask for.
struct ProxyInForce {
  bool isSystems = false;
  std::string place;  // host and port if the preferences name it; else empty
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

// The proxy that has asked for a login, as the test probe met it.
std::string proxyMetBy(const SelectionRecord& record) {
  const std::optional<HttpProbe::Report> probe = record.testProbe();
  return !probe || probe->address.empty() ? "" : hostAndPort({probe->address, probe->addressPort});
}

// Restores the terminal, however the question ends.
bool findLogin(ProxyLogin& login, const std::shared_ptr<Terminal>& terminal,
               const std::string& proxy, const std::string& realm) {
  if (terminal != nullptr) {
    Interruption::setDuties({[terminal] {
                               terminal->leave();
                               CAppLog::flush();
                             },
                             [terminal] { terminal->stepAside(); },
                             [terminal] { terminal->comeBack(); }});
  }
  const bool found = login.find(proxy, realm);
  Interruption::setDuties({CAppLog::flush, {}, {}});
  return found;
}

}  // namespace

Selecting::Selecting(const SelectPlan& plan, std::string command, std::set<std::string>* told)
    : m_plan(plan), m_command(std::move(command)), m_told(told), m_isReady(prepare()) {}

Selecting::~Selecting() { endRun(); }

/// Starts the client library. @return whether there is anything to select from.
bool Selecting::prepare() {
  Interruption::setDuties({CAppLog::flush, {}, {}});
  CClientLibrary::Options options{m_plan.sources, m_plan.log, ""};
  if (!options.sources.headends.empty()) {
    options.sources.profileDirectory.clear();  // hosts of the command line replace it
  }
  STATUSCODE status = 0;
  m_library = std::make_unique<CClientLibrary>(options, status);
  std::string error;
  if (!options.logProblem.empty()) {
    error = "the log cannot be written: " + options.logProblem + ".";
  } else if (status != 0) {
    error = libraryProblem(status);
  } else {
    tellFileProblems(m_told);
    if (!hasProfiles()) {
      error =
          "no host was given and no usable profile was found: profiles (files *.xml) were looked "
          "for in " +
          m_plan.profilePlaces + ". Name hosts, as in '" + m_command +
          " gw1.example.com gw2.example.com:8443', or a directory with --profiles.";
    }
  }
  if (!error.empty()) {
    if (isNew(error, m_told)) {
      Console::complainOfUsage(m_command, error);
    }
    return false;
  }
  m_candidates = findCandidates();
  std::map<std::string, std::size_t> order;  // of those that are given
  for (const GivenHeadend& given : m_plan.sources.headends) {
    order.emplace(given.name, order.size());
  }
  std::ranges::stable_sort(m_candidates, {}, [&order](const Candidate& candidate) {
    const auto found = order.find(candidate.name);
    return found == order.end() ? order.size() : found->second;
  });
  CSelectionCache* cache = nullptr;
  static_cast<void>(CSelectionCache::createSingletonInstance(cache));
  m_cache.reset(cache);
  CAHSSettings::GetSettings(m_settings);
  return true;
}

void Selecting::noteUnknownLast() const {
  if (m_plan.last.empty() || findNamed(m_plan.last, m_candidates) != nullptr) {
    return;
  }
  const std::string text =
      "warning: no host entry that takes part is named '" + Console::visible(m_plan.last) +
      "'; the selection goes on without a last headend. --last takes the name of a host entry, or "
      "a host of the command line.";
  if (isNew(text, m_told)) {
    Console::complain(text);
  }
}

std::optional<SelectionResult> Selecting::run(const std::optional<Secret>& password,
                                              bool showsProgress, bool untilDecided) {
  noteUnknownLast();
  const ProxyInForce proxy = findProxy();
  const std::shared_ptr<Terminal> terminal = Terminal::find();
  ProxyLogin login(m_plan.proxy.user, password, terminal, proxy.isSystems);
  for (unsigned int reason = m_plan.reason;; reason = ReasonProxyAuthentication) {
    if (!runOnce(reason, login, showsProgress, untilDecided)) {
      return std::nullopt;
    }
    SelectionResult result = resultOf(reason, login.hasCredentials());
    result.proxy = Console::visible(proxy.place.empty() ? proxyMetBy(*m_recorder) : proxy.place);
    if (result.status != HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED) {
      const std::string shortage = shortageIn(result);
      if (!shortage.empty() && isNew(shortage, m_told)) {
        Console::complain(shortage);
      }
      return result;
    }
    // This run has started no worker, so it ends at once and drops its copy of the login.
    endRun();
    if (!findLogin(login, terminal, result.proxy, result.extraInfo)) {
      return result;
    }
  }
}

/// A record for a run that is about to start.
std::shared_ptr<BaitedRecord> Selecting::record(unsigned int reason) const {
  std::vector<std::string> hosts;
  SelectionRecord::Terms terms;
  for (const Candidate& candidate : m_candidates) {
    hosts.push_back(candidate.place.first);
    terms.headends.push_back(candidate.headend);
  }
  const std::string warning = m_plan.way->findNat64(hosts);
  if (!warning.empty() && isNew(warning, m_told)) {
    Console::complain(warning);
  }
  auto record = std::make_shared<RoutedRecord>(m_plan.way);
  terms.way = m_plan.way->words();
  if (m_plan.secure) {
    terms.way.emplace_back("TLS");
  }
  terms.measuresNow = m_plan.isFresh;
  terms.maxAge = m_plan.maxAge;
  terms.reason = reason;
  const Candidate* const last = findNamed(m_plan.last, m_candidates);
  terms.last = last != nullptr ? last->headend : "";
  record->setTerms(terms);
  return record;
}

/// Runs one selection up to its result. @return whether it could be started.
bool Selecting::runOnce(unsigned int reason, ProxyLogin& login, bool showsProgress,
                        bool untilDecided) {
  m_recorder = record(reason);
  m_recorder->setRules(
      {m_candidates, m_settings.nPingsPerHeadend, m_settings.nImprovement,
       reason == ReasonReconnection ? findNamed(m_plan.last, m_candidates) : nullptr});
  const CTask::Scope scope(m_recorder);
  m_run = std::make_unique<SelectionRun>();
  const STATUSCODE status = m_run->start(reason, m_plan.last, login.provider(m_plan.secure));
  if (status != 0) {
    m_run.reset();
    Console::complain("the selection could not be started: " + std::string(statusCodeName(status)) +
                      " (" + statusAsHex(status) + "). '" + m_command +
                      " --log-level info' tells each step.");
    return false;
  }
  if (showsProgress) {
    waitVisibly([&](milliseconds longest) { return isOver(longest, untilDecided); },
                [this, reason] { return look(reason); });
  }
  return isOver(LongestWait, untilDecided);
}

/// Waits for the result, or for the decision if that is enough.
bool Selecting::isOver(milliseconds longest, bool untilDecided) {
  if (!untilDecided) {
    return m_run->waitForDelivery(longest);
  }
  for (const auto limit = MonotonicClock::now() + longest; MonotonicClock::now() < limit;) {
    if (m_recorder->decision() || m_run->waitForDelivery(DecisionInterval)) {
      return true;
    }
  }
  return false;
}

/// The progress of the run.
LiveState Selecting::look(unsigned int reason) const {
  const SelectionRecord::Progress progress = m_recorder->progress();
  const std::map<Place, SelectionRecord::Track> tracks = m_recorder->tracks();
  LiveState state;
  state.answered = progress.placesAnswered;
  state.probesEnded = progress.probesEnded;
  state.elapsed = m_run->elapsed();
  state.budget = milliseconds(reason == ReasonReconnection ? m_settings.nReconnectTimeout
                                                           : m_settings.nConnectTimeout);
  const auto decision = m_recorder->decision();
  for (const Candidate& candidate : m_candidates) {
    const auto track = tracks.find(candidate.place);
    state.rows.push_back(liveRowOf(candidate, track == tracks.end() ? nullptr : &track->second,
                                   m_settings.nPingsPerHeadend));
    if (decision && decision->headend == candidate.headend) {
      state.rows.back().waitsFor = "decided";
    }
  }
  return state;
}

/// What the run would deliver if it ended now.
SelectionResult Selecting::soFar() const {
  SelectionResult result;
  result.status = HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
  for (const CHeadendRTT& headend : m_recorder->order()) {
    result.headends.push_back(headend.GetHeadend());
  }
  result.elapsed = m_run->elapsed();
  return result;
}

SelectionResult Selecting::latest(bool isAwaited) const {
  m_run->waitForDelivery(isAwaited ? LongestWait : milliseconds(0));
  return resultOf(m_plan.reason, false);
}

SelectionResult Selecting::resultOf(unsigned int reason, bool hadLogin) const {
  const bool isDelivered = m_run->waitForDelivery({});
  SelectionResult result = isDelivered ? m_run->delivery() : soFar();
  result.reason = reason;
  result.fromCache = result.status == HEADENDSELECTION_SUCCESS;
  result.hadLogin = hadLogin;
  result.decided = m_recorder->decision();
  const CCacheEntry entry = m_recorder->entry();
  std::vector<CHeadendRTT> records;
  if (exitStatusOf(result.status) == ExitSelected) {
    static_cast<void>(entry.GetHeadendList(records));
  }
  result.testProbe = m_recorder->testProbe();
  if (!isDelivered) {
    records = m_recorder->order();
  }
  if (result.fromCache) {
    result.cacheAge = SelectionTimes::ageOf(entry);
    result.cacheLife = SelectionTimes::lifeOf(entry, m_settings.nClearCache);
  }
  tellRules(result);
  if (exitStatusOf(result.status) == ExitNotMeasured &&
      findNamed(m_plan.last, m_candidates) == nullptr) {
    result.headends.clear();  // the run's first candidate, for want of a last headend
  }
  result.results = collectResults(result.headends, m_candidates, m_recorder->tracks(), records,
                                  result.fromCache, m_recorder->shortage());
  tellDoubt(result);
  return result;
}

/// Adds the run's rules, for the explanation.
void Selecting::tellRules(SelectionResult& result) const {
  const Candidate* known = findNamed(m_plan.last, m_candidates);
  result.last = m_plan.last.empty() || known == nullptr ? m_plan.last : known->headend;
  result.improvementPercent = m_settings.nImprovement;
  result.measure = roundTripMeasure();
}

/// A doubt counts if it concerns the chosen headend. What failed is looked into too.
void Selecting::tellDoubt(SelectionResult& result) const {
  const bool isSelected = exitStatusOf(result.status) == ExitSelected;
  if (!isSelected && exitStatusOf(result.status) != ExitNotMeasured) {
    return;
  }
  if (!isSelected) {
    m_recorder->awaitFailingBaits();
  }
  SelectionDoubt doubt = doubtOf(m_recorder->tracks(), m_recorder->baits());
  const auto chosen = std::ranges::find_if(m_candidates, [&](const Candidate& candidate) {
    return !result.headends.empty() && candidate.headend == result.headends.front();
  });
  if (!isSelected || (chosen != m_candidates.end() && doubt.places.contains(chosen->place))) {
    result.doubt = std::move(doubt);
  }
}

void Selecting::endRun() {
  if (m_recorder != nullptr) {
    m_recorder->endBaits();
  }
  if (m_run != nullptr) {
    m_run->waitForEnd(LongestWait);
  }
  m_run.reset();
}

int Selecting::leave(int exitStatus) {
  if (m_run != nullptr && !m_run->waitForDelivery({})) {
    m_recorder->cutShort();
  }
  m_recorder->endBaits();
  if (m_run != nullptr && !m_run->waitForEnd(LongestRunEnd)) {
    // Waiting threads must not see exit handlers free what they use, and their run would release
    // the cache too late.
    m_cache.reset();
    CAppLog::flush();
    _exit(exitStatus);
  }
  return exitStatus;
}

int selectOnce(
    const SelectOptions& options, const std::string& command,
    const std::function<int(const SelectionResult&, const SelectPlan&, const Selecting&)>& use) {
  SelectPlan plan;
  std::optional<Secret> password;
  if (!takePlan(options, command, plan, password)) {
    return ExitUsage;
  }
  Selecting selecting(plan, command);
  if (!selecting.isReady()) {
    return ExitUsage;
  }
  const std::optional<SelectionResult> result = selecting.run(
      password, !options.quiet && !options.json && !plan.log.terminal, options.untilDecided);
  password.reset();
  return result ? selecting.leave(use(*result, plan, selecting)) : ExitNotMeasured;
}
