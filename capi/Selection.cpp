// A selection of a client. The result is settled once, by the run's one call or by a cancel, and
// what the client is told is posted under the same lock: so nothing is told after it. The run is
// the task of its threads; it goes when the last of them has ended, which may be after the handle.

#include "capi/Selection.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "capi/SocketWay.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/AHS/SelectionThread.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/include/StringUtils.h"

using std::chrono::milliseconds;

namespace {

constexpr const char* SourceFile = "capi/Selection";

/// Seconds since an entry was made; -1 if the clock has been put back since.
int64_t ageOf(const CCacheEntry& entry) {
  const auto age = SelectionTimes::ageOf(entry);
  return age ? age->count() : -1;
}

}  // namespace

/// The task of a run's threads. The token is the last to go.
class Selection::Run : public SelectionRecord {
 public:
  Run(const std::shared_ptr<HeldCore>& core, const std::shared_ptr<Presences>& presences)
      : m_token(presences), m_core(core) {}

  /// Lets it hold the selection that it is a part of, before any thread of it exists.
  void hold(std::shared_ptr<Selection> selection) { m_selection = std::move(selection); }
  const Core& core() const { return m_core->get(); }
  SocketWay& way() { return m_way; }

  void ProbeStarted(const HttpProbe::Report& report) override {
    SelectionRecord::ProbeStarted(report);
    m_selection->noteProbe(report, false);
  }
  void ProbeEnded(const HttpProbe::Report& report) override {
    SelectionRecord::ProbeEnded(report);
    m_selection->noteProbe(report, true);
  }
  bool SocketOpened(int socket, int family) override {
    // The client may cancel while it looks at the socket.
    return !IsCancelled() && m_way.prepare(socket, family) && !IsCancelled();
  }

 private:
  // Who waits for the token finds the core let go.
  const Presences::Token m_token;
  const std::shared_ptr<HeldCore> m_core;
  std::shared_ptr<Selection> m_selection;
  SocketWay m_way;
};

/// Made with the selection, so that telling the result takes no memory. It gets its hold on the
/// selection when it is posted.
class Selection::ResultMessage : public Teller::Message {
 public:
  explicit ResultMessage(Selection* selection) : Message(selection), m_subject(selection) {}

  void hold() { m_selection = m_subject->shared_from_this(); }
  void tell() override {
    m_selection->m_client.callback(&m_selection->m_result.get(), m_selection->m_client.context);
  }

 private:
  Selection* const m_subject;
  std::shared_ptr<Selection> m_selection;
};

class Selection::ProbeMessage : public Teller::Message {
 public:
  ProbeMessage(std::shared_ptr<Selection> selection, const Candidate& candidate,
               std::string address)
      : Message(selection.get()), m_selection(std::move(selection)), m_address(std::move(address)) {
    probe.size = sizeof probe;
    probe.name = candidate.name.c_str();  // the candidate list's, which the selection holds
    probe.headend = candidate.headend.c_str();
    probe.address = m_address.c_str();
  }

  void tell() override {
    m_selection->m_client.progress(&probe, m_selection->m_client.progressContext);
  }

  ahs_probe probe{};

 private:
  const std::shared_ptr<Selection> m_selection;
  const std::string m_address;
};

Selection::Selection(const std::shared_ptr<HeldCore>& core,
                     const std::shared_ptr<Presences>& presences, const Client& client,
                     uint32_t reason)
    : m_candidates(core->get().candidates()),
      m_client(client),
      m_reason(reason),
      m_start(std::chrono::steady_clock::now()),
      m_unstarted(std::make_shared<Run>(core, presences)),
      m_run(m_unstarted),
      m_result(AHS_SUCCESS, reason) {
  m_resultMessage.push_back(std::make_unique<ResultMessage>(this));
}

Selection::~Selection() = default;

std::string Selection::start(const ahs_request& request, STATUSCODE& status) {
  status = HEADENDSELECTION_ERROR_BAD_PARAMETER;
  const std::shared_ptr<Run> run = this->run();
  run->hold(shared_from_this());
  const std::string last = request.last_headend == nullptr ? "" : request.last_headend;
  std::string error = run->way().take(request);
  if (!error.empty()) {
    return error;
  }
  run->SetTerms({run->way().words(), request.measure_now != 0});
  const Candidate* const known = candidateNamed(last, *m_candidates);
  if (known == nullptr && !last.empty()) {
    CAppLog::LogDebugMessage("start", SourceFile, __LINE__, Logging::DBG_Warning,
                             "request.last_headend \"%s\" is no headend that takes part",
                             CStringUtils::printable(last).c_str());
  }
  if (known != nullptr) {
    const CAutoLockT<CMonitor> guard(m_lock);
    m_last = {known->headend};
  }
  // The run knows a headend by the name of its entry.
  STATUSCODE started = 0;
  auto selection = std::make_unique<CHeadendSelection>(this, known != nullptr ? known->name : last,
                                                       m_reason, started);
  if (started == 0) {
    selection->SetProxy(providerFor(request, run->core().usesSystemProxy()).release());
    const auto thread = std::make_unique<SelectionThread>(std::move(selection));
    if (isCancelWanted()) {
      return "library is being stopped";
    }
    const CTask::Scope scope(run);
    started = thread->Start();
  }
  status = started;
  if (status != 0) {
    return std::string("the selection cannot be started: ") + statusCodeName(status);
  }
  if (endUnstarted()) {
    cancel();
  }
  return "";
}

bool Selection::isCancelWanted() {
  const CAutoLockT<CMonitor> guard(m_lock);
  return m_isCancelWanted;
}

/// Ends the time in which a cancel has to wait. @return whether there was one.
bool Selection::endUnstarted() {
  std::shared_ptr<Run> started;  // goes without the lock
  const CAutoLockT<CMonitor> guard(m_lock);
  started.swap(m_unstarted);
  return m_isCancelWanted;
}

void Selection::cancel() noexcept {
  {
    const CAutoLockT<CMonitor> guard(m_lock);
    if (m_unstarted != nullptr) {
      m_isCancelWanted = true;
      return;
    }
  }
  if (wait(0) == nullptr) {
    settle(resultOf({}, AHS_ERROR_CANCELLED, ""));
  }
  // Also one whose result is there may have workers that are late.
  if (const auto under = run(); under != nullptr) {
    under->Cancel();
  }
}

void Selection::endSocketCallbacks() {
  if (const auto under = run(); under != nullptr) {
    under->way().close();
  }
}

void Selection::abandon() {
  m_client.teller->forget(*this);
  endUnstarted();
  cancel();
  endSocketCallbacks();
}

const ahs_result* Selection::wait(uint32_t timeoutMs) {
  const auto limit = MonotonicClock::now() + milliseconds(timeoutMs);
  const CAutoLockT<CMonitor> guard(m_lock);
  while (!m_isDone) {
    if (timeoutMs == AHS_WAIT_FOREVER) {
      m_lock.Wait();
    } else if (MonotonicClock::now() >= limit) {
      return nullptr;
    } else {
      m_lock.WaitUntil(limit);
    }
  }
  return &m_result.get();
}

void Selection::AHSSelectedHost(unsigned int /*reason*/, const std::vector<std::string>& headends,
                                long status, const std::string& extraInfo) {
  settle(resultOf(headends, status, extraInfo));
}

/// What is known now. Without memory for that, the status alone; a success is none then.
Result Selection::resultOf(const std::vector<std::string>& headends, STATUSCODE status,
                           const std::string& realm) noexcept {
  const auto code = static_cast<ahs_status>(status);
  try {
    const bool isFromCache = status == HEADENDSELECTION_SUCCESS;
    std::map<Place, SelectionRecord::Track> tracks;
    CCacheEntry entry;
    if (const auto under = run(); under != nullptr) {
      tracks = under->tracks();
      entry = under->entry();
    }
    std::vector<CHeadendRTT> measured;
    if (ahs_is_success(code) != 0) {
      static_cast<void>(entry.GetHeadendList(measured));
    }
    const std::vector<std::string> kept = code == AHS_ERROR_CANCELLED ? last() : headends;
    Result result(code, m_reason, kept, realm,
                  collectResults(kept, *m_candidates, tracks, measured, isFromCache));
    if (isFromCache) {
      result.setFromCache(ageOf(entry));
    }
    return result;
  } catch (const std::exception&) {
    return {ahs_is_success(code) != 0 ? AHS_ERROR_OUT_OF_MEMORY : code, m_reason};
  }
}

std::vector<std::string> Selection::last() {
  const CAutoLockT<CMonitor> guard(m_lock);
  return m_last;
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
  m_result.setElapsed(elapsedMs());
  m_isDone = true;
  m_lock.NotifyAll();
  static_cast<ResultMessage&>(*m_resultMessage.front()).hold();
  m_client.teller->post(m_resultMessage);
}

void Selection::noteProbe(const HttpProbe::Report& report, bool ended) {
  const auto candidate =
      std::ranges::find(*m_candidates, placeOf(report.host, report.port), &Candidate::place);
  if (m_client.progress == nullptr || SelectionRecord::isTestProbe(report) ||
      candidate == m_candidates->end()) {
    return;
  }
  auto message = std::make_unique<ProbeMessage>(shared_from_this(), *candidate, report.address);
  Teller::Messages messages;
  ahs_probe& probe = message->probe;
  probe.ended = ended ? 1 : 0;
  probe.outcome = outcomeNumber(outcomeOfStatus(report.status));
  probe.rtt_ms = report.rttMs;
  probe.headend_count = static_cast<uint32_t>(m_candidates->size());
  messages.push_back(std::move(message));

  const CAutoLockT<CMonitor> guard(m_lock);
  if (m_isDone) {
    return;
  }
  (ended ? m_probesEnded : m_probesStarted) += 1;
  if (ended && SelectionRules::isSample(report.status)) {
    m_answered.insert(&*candidate);
  }
  probe.probes_started = m_probesStarted;
  probe.probes_ended = m_probesEnded;
  probe.headends_answered = static_cast<uint32_t>(m_answered.size());
  m_client.teller->post(messages);
}

uint32_t Selection::elapsedMs() const {
  return static_cast<uint32_t>(
      std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - m_start).count());
}
