// Replacements for the client library's log, probe, clocks and cache, and the linker's wrappers
// around real operations (--wrap). Unlike the real ones, none takes a lock or orders memory: any
// order between two threads comes from the code under test.

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>

#include "tests/stress/stage.h"
#include "tests/unit/selection/selection_access.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/Clock.h"
#include "vpn/Common/Utility/ReserveThread.h"

using stress::Role;
using stress::Scenario;
using stress::self;
using stress::Stage;

// --- Doubles -----------------------------------------------------------------------------------

void CAppLog::LogDebugMessage(const char*, const char*, unsigned int, Logging::DebugImportance,
                              const char* format, ...) {
  if (std::strcmp(format, stress::FirstTime) == 0) {
    format = self().role == Role::Timer ? stress::TimerFinishes : stress::RunFinishes;
  }
  stress::pass(format);
}

void CAppLog::LogReturnCode(const char*, const char*, unsigned int, Logging::DebugImportance,
                            const char* failedCall, STATUSCODE, int, const char*) {
  stress::pass(failedCall);
}

void CAppLog::LogVerboseMessage(const char*, const char*, unsigned int, Logging::DebugImportance,
                                CLC_COMPONENT, CUST_LOG_LEVEL, const char* format, ...) {
  stress::pass(format);
}

MonotonicClock::time_point MonotonicClock::now() noexcept {
  return time_point(duration(stress::timersNow.load(std::memory_order_relaxed)));
}

unsigned long GetCurrentTimeMillis() { return stress::probesNow.load(std::memory_order_relaxed); }

STATUSCODE HttpProbe::SendHttpProbe(const std::string&, bool, bool, unsigned short,
                                    const std::string&, unsigned int, const PROXY_DATA&,
                                    unsigned int options, HTTP_PROBE_RESULTS& results) {
  const Scenario& run = self().stage->scenario;
  const bool isTest = (options & HTTP_PROBE_RETURN_ALL_HEADERS) != 0;
  stress::pass(isTest ? stress::TestProbeOut : stress::ProbeOut);
  const stress::ProbeOutcome& outcome =
      isTest ? run.testProbe : run.probes.at(self().worker).at(self().probes++);
  results.uiRtt = outcome.rtt;
  results.uiHttpStatusCode = outcome.status == 0 ? 200 : 0;
  if (isTest && run.authProxy) {
    results.uiHttpStatusCode = 407;
    results.tstrResponseHeaders =
        "HTTP/1.1 407 No\r\nProxy-Authenticate: Basic realm=\"head office\"\r\n\r\n";
  }
  if (run.probeClockFollows) {
    stress::probesNow.fetch_add(outcome.rtt, std::memory_order_relaxed);
  }
  stress::pass(isTest ? stress::TestProbeBack : nullptr);
  return outcome.status;
}

HttpProbe::KeptConnection::KeptConnection() noexcept = default;
HttpProbe::KeptConnection::~KeptConnection() = default;

// Each run has its own preferences; only the thread that constructs it and the run thread read
// them.
doubles::PreferenceScript& doubles::preferences() { return self().stage->preferences; }

void CAHSSettings::GetSettings(HS_SETTINGS& settings) {
  const Scenario& run = self().stage->scenario;
  settings = HS_SETTINGS{.bAHSEnabled = true,
                         .nResumeTime = 4,
                         .nImprovement = 20,
                         .nClearCache = 14,
                         .nConnectTimeout = run.budget,
                         .nReconnectTimeout = run.budget,
                         .nPingTimeout = 2000,
                         .nPingsPerHeadend = run.pings,
                         .nTestPingTimeout = 5,
                         .nMaxResults = 100};
}

STATUSCODE CSelectionCache::createSingletonInstance(CSelectionCache*& pCache) {
  // Stands for the one cache. No operation touches a member, so nothing is constructed there.
  alignas(CSelectionCache) static std::byte memory[sizeof(CSelectionCache)];
  pCache = reinterpret_cast<CSelectionCache*>(memory);
  return 0;
}

void CSelectionCache::releaseInstance() { stress::pass(stress::CacheReleased); }

bool CSelectionCache::IsInCache(std::string&, CCacheEntry& entry) {
  const Scenario& run = self().stage->scenario;
  for (const unsigned int headend : run.cached) {
    entry.AddHeadend(CHeadendRTT(run.key(headend), headend));
  }
  return !run.cached.empty();
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry) {
  stress::pass(stress::CacheStored);
  std::vector<CHeadendRTT> list;
  entry.GetHeadendList(list);
  for (const CHeadendRTT& result : list) {
    self().stage->stored.push_back(result.GetHeadend());
  }
  return 0;
}

// --- Wrappers ----------------------------------------------------------------------------------

namespace {

// Longest sleep of the timer thread: it then notices moved time without a call from the run's
// threads, which would order their memory accesses.
constexpr long LongestSleepNs = 50000;

/// A run's thread from creation to end, or the reserve thread while it serves a run.
struct Beginning {
  void* (*body)(void*);
  void* argument;
  stress::Self creator;
};

void* beginThread(void* argument) {
  const std::unique_ptr<Beginning> mine(static_cast<Beginning*>(argument));
  stress::enter(mine->creator.stage, mine->creator.nextRole, mine->creator.nextWorker);
  stress::pass();
  void* const result = mine->body(mine->argument);
  stress::enter(nullptr, Role::Main);
  // Release: a thread that sees the decrement also sees the ended thread's writes.
  stress::threadsOfRuns.fetch_sub(1, std::memory_order_release);
  return result;
}

/// Calls `create`, which returns whether another thread will call the beginning.
template <class Create>
bool beginBy(void* (*body)(void*), void* argument, const Create& create) {
  auto beginning = std::make_unique<Beginning>(Beginning{body, argument, self()});
  stress::threadsOfRuns.fetch_add(1, std::memory_order_relaxed);
  if (!create(beginning.get())) {
    stress::threadsOfRuns.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
  static_cast<void>(beginning.release());  // the thread owns it now
  return true;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*): the linker's names
extern "C" {

STATUSCODE __real__ZN7CThread5StartEv(CThread* thread);
void __real__ZN11CManualLock4LockEv(CManualLock* lock);
void __real__ZN11CManualLock6UnlockEv(CManualLock* lock);
STATUSCODE __real__ZN6CTimer10StartTimerEm(CTimer* timer, unsigned long milliseconds);
void __real__ZN17CHeadendSelection14OnTimerExpiredEPvm(void* ptrVal, unsigned long longVal);
int __real__Z19startDetachedThreadPFPvS_ES_m(void* (*body)(void*), void* argument,
                                             std::size_t stackSize);
bool __real__ZN14CReserveThread3RunERNS_4BodyE(CReserveThread::Body* body);
int __real__ZN12CWorkerQueue3runERNS_4BodyE(CWorkerQueue::Body* body);
int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* limit);

STATUSCODE __wrap__ZN7CThread5StartEv(CThread* thread) {
  Stage* const stage = self().stage;
  const bool isWorker = stage != nullptr && dynamic_cast<tests::Worker*>(thread) != nullptr;
  self().nextRole = isWorker ? Role::Worker : Role::Results;
  self().nextWorker = isWorker ? stage->startsAsked.fetch_add(1, std::memory_order_relaxed) : 0;
  const STATUSCODE status = __real__ZN7CThread5StartEv(thread);
  if (isWorker) {
    stage->isStarted.at(self().nextWorker).store(status == 0, std::memory_order_relaxed);
    stage->pass(stress::WorkerStarted);
  }
  self().nextRole = Role::Reaper;
  return status;
}

void __wrap__ZN11CManualLock4LockEv(CManualLock* lock) {
  Stage* const stage = self().stage;
  if (stage != nullptr) {
    stage->wantLock(lock);
  }
  __real__ZN11CManualLock4LockEv(lock);
  if (stage != nullptr) {
    stage->haveLock(lock);
  }
}

void __wrap__ZN11CManualLock6UnlockEv(CManualLock* lock) {
  __real__ZN11CManualLock6UnlockEv(lock);
  stress::pass();
}

STATUSCODE __wrap__ZN6CTimer10StartTimerEm(CTimer* timer, unsigned long milliseconds) {
  const STATUSCODE status = __real__ZN6CTimer10StartTimerEm(timer, milliseconds);
  if (Stage* const stage = self().stage) {
    stage->setArmed(milliseconds);
    stage->pass(stress::TimerArmed);
  }
  return status;
}

void __wrap__ZN17CHeadendSelection14OnTimerExpiredEPvm(void* ptrVal, unsigned long longVal) {
  auto& run = *static_cast<CHeadendSelection*>(ptrVal);
  stress::enter(static_cast<Stage*>(tests::member<tests::Callback>(run)), Role::Timer);
  stress::pass(stress::TimerIsIn);
  __real__ZN17CHeadendSelection14OnTimerExpiredEPvm(ptrVal, longVal);
  stress::pass(stress::TimerIsBack);
}

int __wrap__Z19startDetachedThreadPFPvS_ES_m(void* (*body)(void*), void* argument,
                                             std::size_t stackSize) {
  const stress::Self& me = self();
  // The thread that a run keeps in reserve serves any run.
  if (me.stage == nullptr || (me.role == Role::Run && me.nextRole == Role::Reaper)) {
    return __real__Z19startDetachedThreadPFPvS_ES_m(body, argument, stackSize);
  }
  stress::pass();
  int error = EAGAIN;
  if (!me.stage->scenario.refuses(me.nextRole, me.nextWorker)) {
    if (me.nextRole == Role::Worker) {
      return __real__Z19startDetachedThreadPFPvS_ES_m(body, argument, stackSize);
    }
    beginBy(body, argument, [&](Beginning* beginning) {
      error = __real__Z19startDetachedThreadPFPvS_ES_m(beginThread, beginning, stackSize);
      return error == 0;
    });
  }
  stress::pass();
  return error;
}

int __wrap__ZN12CWorkerQueue3runERNS_4BodyE(CWorkerQueue::Body* body) {
  if (self().stage == nullptr) {
    return __real__ZN12CWorkerQueue3runERNS_4BodyE(body);
  }
  int error = 0;
  beginBy(body->function, body->argument, [body, &error](Beginning* beginning) {
    body->function = beginThread;
    body->argument = beginning;
    error = __real__ZN12CWorkerQueue3runERNS_4BodyE(body);
    return error == 0;
  });
  return error;
}

bool __wrap__ZN14CReserveThread3RunERNS_4BodyE(CReserveThread::Body* body) {
  if (self().stage == nullptr) {
    return __real__ZN14CReserveThread3RunERNS_4BodyE(body);
  }
  return beginBy(body->function, body->argument, [body](Beginning* beginning) {
    body->function = beginThread;
    body->argument = beginning;
    return __real__ZN14CReserveThread3RunERNS_4BodyE(body);
  });
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* limit) {
  constexpr long Second = 1000000000;
  timespec soon{};
  clock_gettime(clock, &soon);
  soon.tv_nsec += LongestSleepNs;
  if (soon.tv_nsec >= Second) {
    soon.tv_nsec -= Second;
    ++soon.tv_sec;
  }
  const bool isSooner =
      std::pair(soon.tv_sec, soon.tv_nsec) < std::pair(limit->tv_sec, limit->tv_nsec);
  return __real_pthread_cond_clockwait(condition, mutex, clock, isSooner ? &soon : limit);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
