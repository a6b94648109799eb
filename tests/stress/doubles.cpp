// What the program brings in place of the client library's: log, probe, clocks and cache. None of
// them takes a lock or orders memory, unlike the real ones: whatever order there is between two
// threads comes from the code under test.

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/stress/stage.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/Clock.h"

namespace stress {
namespace {

struct KnownLine {
  const char* function;
  const char* format;
  Place place;
};

constexpr KnownLine KnownLines[] = {
    {"startPingThreads", "QIB Sending test ping to %s:%d", Place::TestPingSaid},
    {"startPingThreads", "QIB test ping took %d", Place::TestPingTook},
    {"logThreadPingResults", "QIB ping results for %s: %s", Place::SamplesSaid},
    {"finishAHS", "QIB in finishAHS() for first time", Place::FirstTimeSaid},
    {"OnTimerExpired", "QIB timer expired", Place::TimerExpiredSaid},
};

Place placeOf(const char* function, const char* format) {
  for (const KnownLine& line : KnownLines) {
    if (std::strcmp(line.format, format) == 0 && std::strcmp(line.function, function) == 0) {
      return line.place;
    }
  }
  return Place::LineSaid;
}

/// The place of one more line of the calling thread's run; null if it belongs to none.
Event* addLine(EventKind kind, const char* function, char severity) {
  const Self& me = self();
  if (me.stage == nullptr) {
    census().strayLines.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
  }
  Event& event = me.stage->journal.add(kind);
  event.role = me.role;
  event.worker = me.worker;
  event.severity = severity;
  event.function = function;
  return &event;
}

void render(Event& event, const char* format, va_list arguments) {
  const int length = std::vsnprintf(event.text.data(), event.text.size(), format, arguments);
  event.isCut = length < 0 || static_cast<std::size_t>(length) >= event.text.size();
}

void afterLine(Place place) {
  Stage& stage = *self().stage;
  if (self().role == Role::Timer) {
    if (place == Place::TimerExpiredSaid) {
      stage.reach(TimerHasLogged);
    } else if (place == Place::FirstTimeSaid) {
      stage.reach(TimerFinishes);
    }
  }
  stage.pass(place);
}

/// Which of a run's headends a host is; `MostHeadends` for none.
unsigned int headendOf(const Stage& stage, const std::string& host) {
  unsigned int headend = 0;
  while (headend < stage.scenario.headends && host != stage.scenario.host(headend)) {
    ++headend;
  }
  return headend < stage.scenario.headends ? headend : MostHeadends;
}

void fill(HttpProbe::HTTP_PROBE_RESULTS& results, const Scenario& run,
          const ProbeOutcome& outcome) {
  results.uiRtt = outcome.rtt;
  results.uiHttpStatusCode = outcome.status == 0 ? 200 : 0;
  if (run.probeClockFollows) {
    clocks().moveProbesBy(outcome.rtt);
  }
}

STATUSCODE sendTestProbe(Stage& stage, HttpProbe::HTTP_PROBE_RESULTS& results) {
  stage.testProbesSent.fetch_add(1, std::memory_order_relaxed);
  stage.pass(Place::TestProbeOut);
  fill(results, stage.scenario, stage.scenario.testProbe);
  if (stage.scenario.authProxy) {
    results.uiHttpStatusCode = 407;
    results.tstrResponseHeaders =
        "HTTP/1.1 407 Proxy Authentication Required\r\n"
        "Proxy-Authenticate: Basic realm=\"head office\"\r\n\r\n";
  }
  stage.pass(Place::TestProbeBack);
  return stage.scenario.testProbe.status;
}

STATUSCODE sendWorkerProbe(Stage& stage, unsigned int headend,
                           HttpProbe::HTTP_PROBE_RESULTS& results) {
  const unsigned int sent =
      stage.probesSent[headend].fetch_add(1, std::memory_order_relaxed) % MostPings;
  const ProbeOutcome& outcome = stage.scenario.probes[headend][sent];
  stage.pass(Place::WorkerProbeOut);
  fill(results, stage.scenario, outcome);
  stage.pass(Place::WorkerProbeBack);
  return outcome.status;
}

/// What stands for the one cache. No operation touches a member, so nothing is constructed there.
CSelectionCache* theCache() {
  alignas(CSelectionCache) static std::byte memory[sizeof(CSelectionCache)];
  return reinterpret_cast<CSelectionCache*>(memory);
}

}  // namespace
}  // namespace stress

using stress::census;
using stress::clocks;
using stress::Event;
using stress::EventKind;
using stress::Place;
using stress::Scenario;
using stress::self;
using stress::Stage;

void CAppLog::LogDebugMessage(const char* function, const char*, unsigned int,
                              Logging::DebugImportance severity, const char* format, ...) {
  if (Event* const event = stress::addLine(EventKind::Message, function, severity)) {
    va_list arguments;
    va_start(arguments, format);
    stress::render(*event, format, arguments);
    va_end(arguments);
    stress::afterLine(stress::placeOf(function, format));
  }
}

void CAppLog::LogReturnCode(const char* function, const char*, unsigned int,
                            Logging::DebugImportance severity, const char* failedCall,
                            STATUSCODE code, int, const char*) {
  if (Event* const event = stress::addLine(EventKind::ReturnCode, function, severity)) {
    std::snprintf(event->text.data(), event->text.size(), "%s", failedCall);
    event->code = code;
    stress::afterLine(Place::LineSaid);
  }
}

void CAppLog::LogVerboseMessage(const char* function, const char*, unsigned int,
                                Logging::DebugImportance severity, CLC_COMPONENT, CUST_LOG_LEVEL,
                                const char* format, ...) {
  if (Event* const event = stress::addLine(EventKind::Message, function, severity)) {
    va_list arguments;
    va_start(arguments, format);
    stress::render(*event, format, arguments);
    va_end(arguments);
    stress::afterLine(Place::LineSaid);
  }
}

MonotonicClock::time_point MonotonicClock::now() noexcept { return clocks().timers(); }

unsigned long GetCurrentTimeMillis() { return clocks().probes(); }

STATUSCODE HttpProbe::SendHttpProbe(const std::string& host, bool, bool, unsigned short,
                                    const std::string&, unsigned int, const PROXY_DATA&,
                                    unsigned int options, HTTP_PROBE_RESULTS& results) {
  Stage* const stage = self().stage;
  const unsigned int headend =
      stage == nullptr ? stress::MostHeadends : stress::headendOf(*stage, host);
  if (headend == stress::MostHeadends) {
    std::fprintf(stderr, "a probe of no known headend: %s\n", host.c_str());
    std::abort();
  }
  return (options & HTTP_PROBE_RETURN_ALL_HEADERS) != 0
             ? stress::sendTestProbe(*stage, results)
             : stress::sendWorkerProbe(*stage, headend, results);
}

HttpProbe::KeptConnection::KeptConnection() noexcept = default;
HttpProbe::KeptConnection::~KeptConnection() = default;

// Each run has preferences of its own; they are asked for on the thread that constructs it and on
// the run thread only.
doubles::PreferenceScript& doubles::preferences() { return self().stage->preferences; }

void CAHSSettings::GetSettings(HS_SETTINGS& settings) {
  const Scenario& run = self().stage->scenario;
  settings = HS_SETTINGS{.bAHSEnabled = true,
                         .nResumeTime = 4,
                         .nImprovement = run.improvement,
                         .nClearCache = 14,
                         .nConnectTimeout = run.budget,
                         .nReconnectTimeout = run.budget,
                         .nPingTimeout = 2000,
                         .nPingsPerHeadend = run.pings,
                         .nTestPingTimeout = 5,
                         .nMaxResults = 100};
}

STATUSCODE CSelectionCache::createSingletonInstance(CSelectionCache*& pCache) {
  census().caches.make();
  pCache = stress::theCache();
  return 0;
}

void CSelectionCache::releaseInstance() {
  census().caches.go();
  if (Stage* const stage = self().stage) {
    stage->journal.add(EventKind::CacheReleased).role = self().role;
    stage->reach(stress::DestructorEntered);
    stage->pass(Place::CacheReleased);
  }
}

bool CSelectionCache::IsInCache(std::string&, CCacheEntry& entry) {
  const Scenario& run = self().stage->scenario;
  std::vector<CHeadendRTT> list;
  for (const auto& [headend, metric] : run.cached) {
    list.emplace_back(run.key(headend), metric);
  }
  if (!list.empty()) {
    entry.SetHeadendList(list);
  }
  return !list.empty();
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry) {
  Stage& stage = *self().stage;
  std::vector<CHeadendRTT> list;
  entry.GetHeadendList(list);
  std::string text = entry.GetKnownHeadends() + ":";
  for (const CHeadendRTT& result : list) {
    text += " " + result.GetHeadend() + "=" + std::to_string(result.GetRTT());
  }
  stage.journal.add(EventKind::CacheStored).role = self().role;
  stage.stored.push_back(text);
  return 0;
}
