// The client library without files, network and time: it does what a test wrote down, and records
// every request.

#include "tests/unit/selection/doubles/doubles.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <memory>

#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/Clock.h"

// Whoever needs a string's code finds it here, and brings in no source that a double replaces for
// it.
template class std::basic_string<char>;

// --- Log ---------------------------------------------------------------------------------------

namespace doubles {
namespace {

void addMessage(LogLine line, const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  line.format = format;
  line.message.resize(static_cast<std::size_t>(length) + 1);
  std::vsnprintf(line.message.data(), line.message.size(), format, arguments);
  line.message.pop_back();
  log().add(line);
}

}  // namespace

std::string LogLine::toString() const {
  std::string text = function + " " + severity + " " + message;
  if (kind == Kind::ReturnCode) {
    char number[32];
    std::snprintf(number, sizeof number, " 0x%lX", static_cast<unsigned long>(code));
    text += number;
  }
  return text;
}

void Log::reset() {
  m_lines.set({});
  m_hook.set(nullptr);
}

std::vector<std::string> Log::texts(const std::string& function) const {
  std::vector<std::string> result;
  for (const LogLine& line : lines()) {
    if (function.empty() || line.function == function) {
      result.push_back(line.toString());
    }
  }
  return result;
}

std::size_t Log::count(const std::string& text) const {
  const std::vector<std::string> all = texts();
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), text));
}

void Log::add(const LogLine& line) {
  m_lines.add(line);
  if (const Hook hook = m_hook.get()) {
    hook(line);
  }
}

}  // namespace doubles

using doubles::LogLine;

void CAppLog::LogDebugMessage(const char* function, const char* file, unsigned int line,
                              Logging::DebugImportance severity, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  doubles::addMessage({LogLine::Kind::Debug, function, file, line, static_cast<char>(severity)},
                      format, arguments);
  va_end(arguments);
}

void CAppLog::LogReturnCode(const char* function, const char* file, unsigned int line,
                            Logging::DebugImportance severity, const char* failedCall,
                            STATUSCODE code, int, const char* extraText) {
  doubles::log().add({.kind = LogLine::Kind::ReturnCode,
                      .function = function,
                      .file = file,
                      .line = line,
                      .severity = static_cast<char>(severity),
                      .message = failedCall,
                      .code = code,
                      .extraText = extraText != nullptr ? extraText : ""});
}

void CAppLog::LogVerboseMessage(const char* function, const char* file, unsigned int line,
                                Logging::DebugImportance severity, CLC_COMPONENT component,
                                CUST_LOG_LEVEL level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  doubles::addMessage({.kind = LogLine::Kind::Verbose,
                       .function = function,
                       .file = file,
                       .line = line,
                       .severity = static_cast<char>(severity),
                       .component = component,
                       .level = level},
                      format, arguments);
  va_end(arguments);
}

std::string CAppLog::open(const Targets&) { return {}; }
void CAppLog::close() {}
void CAppLog::flush() {}
void CAppLog::setListener(Listener) {}

// --- Probes ------------------------------------------------------------------------------------

namespace doubles {

void Probes::answer(const std::string& host, const std::vector<ProbeAnswer>& toWorker) {
  answers.with([&](auto& all) { all[host] = toWorker; });
}

std::vector<ProbeCall> Probes::testCalls() const {
  std::vector<ProbeCall> result = calls.get();
  std::erase_if(result, [](const ProbeCall& call) { return !call.isTest(); });
  return result;
}

std::vector<ProbeCall> Probes::workerCalls(const std::string& host) const {
  std::vector<ProbeCall> result = calls.get();
  std::erase_if(result, [&](const ProbeCall& call) {
    return call.isTest() || (!host.empty() && call.host != host);
  });
  return result;
}

ProbeAnswer Probes::next(const ProbeCall& call) {
  calls.add(call);
  if (call.isTest()) {
    return testAnswer.get();
  }
  return answers.with([&](auto& all) {
    ProbeAnswer answer{.rtt = 10, .httpStatus = 200};
    if (const auto found = all.find(call.host); found != all.end()) {
      answer = found->second.front();
      if (found->second.size() > 1) {
        found->second.erase(found->second.begin());
      }
    }
    return answer;
  });
}

}  // namespace doubles

STATUSCODE HttpProbe::SendHttpProbe(const std::string& host, bool secure, bool reserved,
                                    unsigned short port, const std::string& userAgent,
                                    unsigned int timeoutSeconds, const PROXY_DATA& proxyData,
                                    unsigned int options, HTTP_PROBE_RESULTS& results) {
  doubles::ProbeCall call;
  call.host = host;
  call.secure = secure;
  call.reserved = reserved;
  call.port = port;
  call.userAgent = userAgent;
  call.timeout = timeoutSeconds;
  call.determineProxy = proxyData.determineProxy;
  call.proxyServer = proxyData.proxyServer;
  if (!doubles::probes().isForgetful) {
    call.proxyUser = proxyData.proxyUser;
    call.proxyPswd = proxyData.proxyPswd;
  }
  call.userBuffer = proxyData.proxyUser.data();
  call.pswdBuffer = proxyData.proxyPswd.data();
  call.options = options;
  call.resultsWereZero = results.uiRtt == 0 && results.uiHttpStatusCode == 0 &&
                         results.uiLastError == 0 && results.tstrResponseHeaders.empty() &&
                         results.tstrLocation.empty();
  call.connectionKept = doubles::keptConnections != 0;

  const doubles::ProbeAnswer answer = doubles::probes().next(call);
  if (answer.during) {
    answer.during();
  }
  doubles::clock() += answer.takesMs;
  if (call.isTest()) {
    results.tstrResponseHeaders = answer.headers;
  }
  results.uiHttpStatusCode = (options & HTTP_PROBE_RETURN_STATUSCODE) != 0 ? answer.httpStatus : 0;
  results.uiLastError = (options & HTTP_PROBE_RETURN_LAST_ERROR) != 0 ? answer.lastError : 0;
  results.uiRtt = (options & HTTP_PROBE_RETURN_RTT) != 0 ? answer.rtt : 0;
  return answer.status;
}

HttpProbe::KeptConnection::KeptConnection() noexcept { ++doubles::keptConnections; }
HttpProbe::KeptConnection::~KeptConnection() { --doubles::keptConnections; }
void HttpProbe::setRoundTripMeasure(RoundTripMeasure) {}
void HttpProbe::setLeavesSilent(bool) {}
void HttpProbe::setNeedsService(bool) {}
std::string HttpProbe::setTrustFile(const std::string&) { return ""; }

// --- Cache -------------------------------------------------------------------------------------

STATUSCODE CSelectionCache::createSingletonInstance(CSelectionCache*& pCache) {
  // Stands for the one instance. No operation touches a member, so nothing is constructed there,
  // and the double does not depend on the members of a real cache.
  alignas(CSelectionCache) static std::byte memory[sizeof(CSelectionCache)];
  const STATUSCODE status = doubles::cache().creationStatus;
  pCache = nullptr;
  if (status == 0 || doubles::cache().setsPointer) {
    ++doubles::cache().acquired;
    pCache = reinterpret_cast<CSelectionCache*>(memory);
  }
  return status;
}

void CSelectionCache::releaseInstance() {
  // The journal comes first: a thread that waits for the count then sees everything.
  doubles::journal().add("cache released");
  ++doubles::cache().released;
}

bool CSelectionCache::IsInCache(std::string& key, CCacheEntry& entry) {
  doubles::cache().lookups.add(key);
  if (const auto hook = doubles::cache().duringLookup.get()) {
    hook();
  }
  const std::optional<CCacheEntry> hit = doubles::cache().hit.get();
  if (hit) {
    entry = *hit;
  }
  return hit.has_value();
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry) {
  doubles::cache().entries.add(entry);
  return doubles::cache().storeStatus;
}

void CAHSSettings::GetSettings(HS_SETTINGS& settings) {
  ++doubles::cache().settingsReads;
  settings = doubles::cache().settings;
}

// --- Time --------------------------------------------------------------------------------------

unsigned long GetCurrentTimeMillis() { return doubles::clock(); }

bool doubles::Timers::fire() const {
  const std::function<bool()> fireNewest = newest.get();
  return fireNewest && fireNewest();
}

struct CTimerList::Shared {};

CTimerList::CTimerList() : m_pShared(std::make_shared<Shared>()) {}
CTimerList::~CTimerList() = default;
void CTimerList::service() {}
void CTimerList::close() {}

/// The thread that fires it calls back. Like the real list's timer, it keeps its task alive
/// meanwhile, and never calls back after its deletion.
struct CTimer::Entry {
  std::mutex lock;
  bool armed = false;
  timercb callback = nullptr;
  void* pointerValue = nullptr;
  unsigned long longValue = 0;
  ApiRunnable* keptAlive = nullptr;

  bool fire() {
    {
      const std::lock_guard<std::mutex> hold(lock);
      if (!armed) {
        return false;
      }
      armed = false;
      if (keptAlive != nullptr && !keptAlive->enterIfHeld()) {
        return false;
      }
    }
    callback(pointerValue, longValue);
    if (keptAlive != nullptr) {
      keptAlive->leaveWithoutWaiting();
    }
    return true;
  }
};

CTimer::CTimer(STATUSCODE& status, CTimerList*, timercb callback, void* ptrVal,
               unsigned long longVal)
    : m_pEntry(std::make_shared<Entry>()) {
  m_pEntry->callback = callback;
  m_pEntry->pointerValue = ptrVal;
  m_pEntry->longValue = longVal;
  doubles::Timers& script = doubles::timers();
  status = script.constructionStatus;
  script.newest.set([entry = m_pEntry] { return entry->fire(); });
  ++script.live;
  ++script.created;
}

CTimer::~CTimer() {
  {
    const std::lock_guard<std::mutex> hold(m_pEntry->lock);
    m_pEntry->armed = false;
  }
  doubles::journal().add("timer deleted");
  --doubles::timers().live;
}

STATUSCODE CTimer::StartTimer(unsigned long milliseconds) {
  doubles::timers().starts.add(milliseconds);
  const STATUSCODE status = doubles::timers().startStatus;
  const std::lock_guard<std::mutex> hold(m_pEntry->lock);
  m_pEntry->armed = status == 0;
  return status;
}

void CTimer::keepAlive(ApiRunnable& task) { m_pEntry->keptAlive = &task; }

CExecutionContext::CExecutionContext() : m_pTimerThread(nullptr) {}
CExecutionContext::~CExecutionContext() = default;

CExecutionContext* CExecutionContext::acquireInstance(EXECUTIONCONTEXT_INSTANCE instance) {
  static CExecutionContext& context = *new CExecutionContext;
  if (!doubles::timers().hasContext || instance != API_INSTANCE) {
    return nullptr;
  }
  ++doubles::timers().contextAcquired;
  return &context;
}

void CExecutionContext::releaseInstance() { ++doubles::timers().contextReleased; }

CTimerList& CExecutionContext::GetTimerList() { return m_timerList; }
