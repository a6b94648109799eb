// A selection of a client. The run's one call or a cancel settles the result, and messages are
// posted under the same lock, so that none follows the result. The run is the task of its threads;
// it ends with the last of them, which may be after the handle.

#include "capi/Selection.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "capi/SocketWay.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/AHS/SelectionThread.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/include/StringUtils.h"

using std::chrono::milliseconds;

namespace {

constexpr const char* SourceFile = "capi/Selection";

/// The candidate of a host entry's name, else of a headend, in any letter case; null for none.
const Candidate* candidateNamed(const std::string& name, const std::vector<Candidate>& all) {
  if (const Candidate* const found = findNamed(name, all); found != nullptr) {
    return found;
  }
  const std::string wanted = CStringUtils::toLower(name);
  const auto found = std::ranges::find_if(all, [&wanted](const Candidate& candidate) {
    return CStringUtils::toLower(candidate.headend) == wanted;
  });
  return found == all.end() ? nullptr : &*found;
}

std::string lastOf(const ahs_request& request) {
  return request.last_headend == nullptr ? "" : request.last_headend;
}

}  // namespace

/// The task of a run's threads.
class Selection::Run : public SelectionRecord {
 public:
  Run(std::shared_ptr<const Core> core, std::shared_ptr<RunsEnd> runs,
      std::shared_ptr<Selection> selection)
      : m_runs(std::move(runs)), m_core(std::move(core)), m_selection(std::move(selection)) {}

  const Core& core() const { return *m_core; }
  SocketWay& way() { return m_way; }

  // One lock for counting and posting, so that a message counts itself and those before it.
  void probeStarted(const HttpProbe::Report& report) override {
    const CAutoLockT<CMonitor> guard(m_selection->m_lock);
    SelectionRecord::probeStarted(report);
    m_selection->tellProbe(report, progress(), false);
  }
  void probeEnded(const HttpProbe::Report& report) override {
    {
      const CAutoLockT<CMonitor> guard(m_selection->m_lock);
      noteEnd(report);
      m_selection->tellProbe(report, progress(), true);
    }
    tellIfDecided();
  }
  void decided(const Decided& decision) override { m_selection->tellDecision(decision); }
  bool socketOpened(int socket, int family) override {
    // The client may cancel while it looks at the socket.
    return !isCancelled() && m_way.prepare(socket, family) && !isCancelled();
  }

 private:
  // Destroyed after the core: a waiter for the end of the runs finds the core released.
  const std::shared_ptr<RunsEnd> m_runs;
  const std::shared_ptr<const Core> m_core;
  const std::shared_ptr<Selection> m_selection;
  SocketWay m_way;
};

Selection::Selection(std::shared_ptr<Teller> teller, std::shared_ptr<const Core> core,
                     std::shared_ptr<RunsEnd> runs, const ahs_request& request,
                     ahs_callback callback, void* context)
    : m_teller(std::move(teller)),
      m_core(std::move(core)),
      m_runs(std::move(runs)),
      m_candidates(m_core->candidates()),
      m_last(candidateNamed(lastOf(request), *m_candidates)),
      m_reason(request.reason),
      m_callback(callback),
      m_context(context),
      m_progress(request.on_progress),
      m_progressContext(request.progress_context),
      m_decision(request.on_decision),
      m_decisionContext(request.decision_context),
      m_start(std::chrono::steady_clock::now()),
      m_result(AHS_SUCCESS, request.reason) {
  // Made now, so that telling the result needs no memory. Once posted, it holds the selection.
  m_resultMessage.push_back({nullptr, [this] { m_callback(&m_result.value, m_context); }});
}

Selection::~Selection() = default;

SelectionRecord::Terms Selection::termsOf(const ahs_request& request,
                                          std::vector<std::string> way) const {
  SelectionRecord::Terms terms{std::move(way), request.measure_now != 0};
  if (request.max_age_s != 0) {
    terms.maxAge = std::chrono::seconds(request.max_age_s);
  }
  terms.reason = m_reason;
  terms.last = m_last != nullptr ? m_last->headend : "";
  for (const Candidate& candidate : *m_candidates) {
    terms.headends.push_back(candidate.headend);
  }
  return terms;
}

std::string Selection::start(const ahs_request& request, STATUSCODE& status) {
  const auto run = std::make_shared<Run>(std::move(m_core), std::move(m_runs), shared_from_this());
  status = HEADENDSELECTION_ERROR_BAD_PARAMETER;
  std::string error = run->way().take(request);
  std::unique_ptr<SelectionThread> thread;
  if (error.empty()) {
    if (m_decision != nullptr) {
      run->setRules(rules());
    }
    run->setTerms(termsOf(request, run->way().words()));
    const std::string last = lastOf(request);
    if (m_last == nullptr && !last.empty()) {
      CAppLog::LogDebugMessage("start", SourceFile, __LINE__, Logging::DBG_Warning,
                               "request.last_headend \"%s\" is no headend that takes part",
                               CStringUtils::printable(last).c_str());
    }
    // The run knows a headend by the name of its entry.
    auto selection = std::make_unique<CHeadendSelection>(
        this, m_last != nullptr ? m_last->name : last, m_reason, status);
    if (status == 0) {
      selection->SetProxy(providerFor(request, run->core().usesSystemProxy()).release());
      thread = std::make_unique<SelectionThread>(std::move(selection));
    }
  }
  const CAutoLockT<CMonitor> guard(m_lock);
  if (m_isDone) {
    status = 0;  // the library is being stopped, and the client hears of the cancel
    return "";
  }
  if (thread != nullptr) {
    const CTask::Scope scope(run);
    status = thread->Start();
    m_run = run;
  }
  m_isDone = status != 0;  // no cancel has a failure told
  return status == 0 || !error.empty()
             ? error
             : std::string("the selection cannot be started: ") + statusCodeName(status);
}

void Selection::cancel() noexcept {
  if (wait(0) == nullptr) {
    settle(resultOf({}, AHS_ERROR_CANCELLED, ""));
  }
  // Even after the result, late workers may still run.
  if (const auto under = run(); under != nullptr) {
    under->cancel();
  }
}

void Selection::endSocketCallbacks() {
  if (const auto under = run(); under != nullptr) {
    under->way().close();
  }
}

void Selection::abandon() {
  m_teller->forget(*this);
  cancel();
  endSocketCallbacks();
}

const ahs_result* Selection::wait(uint32_t timeoutMs) {
  const auto limit = MonotonicClock::now() + milliseconds(timeoutMs);
  const CAutoLockT<CMonitor> guard(m_lock);
  while (!m_isDone) {
    if (timeoutMs == AHS_WAIT_FOREVER) {
      m_lock.wait();
    } else if (MonotonicClock::now() >= limit) {
      return nullptr;
    } else {
      m_lock.waitUntil(limit);
    }
  }
  return &m_result.value;
}

void Selection::AHSSelectedHost(unsigned int /*reason*/, const std::vector<std::string>& headends,
                                long status, const std::string& extraInfo) {
  settle(resultOf(headends, status, extraInfo));
}

/// What is known now. Without memory for that, the status alone; a success then becomes a failure.
Result Selection::resultOf(const std::vector<std::string>& headends, STATUSCODE status,
                           const std::string& realm) noexcept {
  const auto code = static_cast<ahs_status>(status);
  try {
    const bool isFromCache = status == HEADENDSELECTION_SUCCESS;
    std::map<Place, SelectionRecord::Track> tracks;
    CCacheEntry entry;
    Shortage shortage = Shortage::None;
    if (const auto under = run(); under != nullptr) {
      tracks = under->tracks();
      entry = under->entry();
      shortage = under->shortage();
    }
    std::vector<CHeadendRTT> measured;
    if (ahs_is_success(code) != 0) {
      static_cast<void>(entry.GetHeadendList(measured));
    }
    std::vector<std::string> kept = headends;
    if (code == AHS_ERROR_CANCELLED && m_last != nullptr) {
      kept = {m_last->headend};
    }
    Result result(code, m_reason, kept, realm,
                  collectResults(kept, *m_candidates, tracks, measured, isFromCache, shortage));
    if (isFromCache) {
      const auto age = SelectionTimes::ageOf(entry);
      result.value.from_cache = 1;
      result.value.cache_age_s = age ? age->count() : -1;
    }
    return result;
  } catch (const std::exception&) {
    return {ahs_is_success(code) != 0 ? AHS_ERROR_OUT_OF_MEMORY : code, m_reason};
  }
}

/// Null when its last thread has ended.
std::shared_ptr<Selection::Run> Selection::run() {
  const CAutoLockT<CMonitor> guard(m_lock);
  return m_run.lock();
}

/// Makes this the result, unless there is one.
void Selection::settle(Result&& result) {
  const CAutoLockT<CMonitor> guard(m_lock);
  if (m_isDone) {
    return;
  }
  m_result = std::move(result);
  m_result.value.elapsed_ms = elapsedMs();
  m_isDone = true;
  m_lock.notifyAll();
  m_resultMessage.front().subject = shared_from_this();
  m_teller->post(m_resultMessage);
}

/// Tells the client of a probe of a headend.
void Selection::tellProbe(const HttpProbe::Report& report,
                          const SelectionRecord::Progress& progress, bool ended) {
  if (m_isDone || m_progress == nullptr || SelectionRecord::isTestProbe(report)) {
    return;
  }
  const auto candidate =
      std::ranges::find(*m_candidates, placeOf(report.host, report.port), &Candidate::place);
  if (candidate == m_candidates->end()) {
    return;
  }
  ahs_probe probe{sizeof probe,
                  candidate->name.c_str(),
                  candidate->headend.c_str(),
                  ended ? 1 : 0,
                  static_cast<uint32_t>(outcomeOf(report)),
                  report.rttMs,
                  "",
                  progress.probesStarted,
                  progress.probesEnded,
                  progress.placesAnswered,
                  static_cast<uint32_t>(m_candidates->size())};
  Teller::Messages messages;
  messages.push_back({shared_from_this(), [this, probe, address = report.address]() mutable {
                        probe.address = address.c_str();
                        m_progress(&probe, m_progressContext);
                      }});
  m_teller->post(messages);
}

SelectionRecord::Rules Selection::rules() const {
  HS_SETTINGS settings{};
  CAHSSettings::GetSettings(settings);
  const bool mayStay = m_reason == SelectionRules::ReasonReconnection;
  return {*m_candidates, settings.nPingsPerHeadend, settings.nImprovement,
          mayStay ? m_last : nullptr};
}

/// Tells the client of the decision, unless there is a result.
void Selection::tellDecision(const SelectionRecord::Decided& decision) {
  const uint32_t after = elapsedMs();
  Teller::Messages messages;
  messages.push_back({shared_from_this(), [this, decision, after] {
                        const ahs_decision told{sizeof told, decision.name.c_str(),
                                                decision.headend.c_str(), decision.metricMs, after};
                        m_decision(&told, m_decisionContext);
                      }});
  const CAutoLockT<CMonitor> guard(m_lock);
  if (!m_isDone) {
    m_teller->post(messages);
  }
}

uint32_t Selection::elapsedMs() const {
  const auto elapsed = std::chrono::steady_clock::now() - m_start;
  return static_cast<uint32_t>(std::chrono::duration_cast<milliseconds>(elapsed).count());
}
