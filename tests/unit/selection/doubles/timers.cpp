// Time in the hands of the test. A timer never expires by itself; `Timers::fire` calls it back on
// the calling thread and keeps the timer's task alive meanwhile, as the real list does. A deleted
// timer is never called back.

#include "tests/unit/selection/doubles/timers.h"

#include <memory>
#include <mutex>

#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/Clock.h"

namespace doubles {

void ManualClock::reset() { m_now = 1000; }

ManualClock& clock() {
  static ManualClock& instance = *new ManualClock;  // late threads may still read it
  return instance;
}

void Timers::reset() {
  hasContext = true;
  constructionStatus = 0;
  startStatus = 0;
  live = 0;
  created = 0;
  starts.set({});
  contextAcquired = 0;
  contextReleased = 0;
  newest.set(nullptr);
}

bool Timers::fire() {
  const std::function<bool()> fireNewest = newest.get();
  return fireNewest && fireNewest();
}

Timers& timers() {
  static Timers& instance = *new Timers;  // late threads may still use it
  return instance;
}

}  // namespace doubles

unsigned long GetCurrentTimeMillis() { return doubles::clock().now(); }

struct CTimerList::Shared {};

CTimerList::CTimerList() : m_pShared(std::make_shared<Shared>()) {}
CTimerList::~CTimerList() = default;
void CTimerList::service() {}
void CTimerList::close() {}

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

CTimer::CTimer(STATUSCODE& status, CTimerList* pTimerList, timercb callback, void* ptrVal,
               unsigned long longVal)
    : m_pEntry(std::make_shared<Entry>()) {
  m_pEntry->callback = callback;
  m_pEntry->pointerValue = ptrVal;
  m_pEntry->longValue = longVal;
  doubles::Timers& script = doubles::timers();
  status = script.constructionStatus;
  script.newest.set([entry = m_pEntry] { return entry->fire(); });
  script.list = pTimerList;
  script.pointerValue = ptrVal;
  script.longValue = longVal;
  ++script.live;
  ++script.created;
}

CTimer::~CTimer() {
  {
    const std::lock_guard<std::mutex> hold(m_pEntry->lock);
    m_pEntry->armed = false;
  }
  --doubles::timers().live;
  doubles::journal().add("timer deleted");
}

STATUSCODE CTimer::StartTimer(unsigned long milliseconds) {
  doubles::timers().starts.with([&](auto& all) { all.push_back(milliseconds); });
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

void CExecutionContext::releaseInstance() {
  ++doubles::timers().contextReleased;
  doubles::journal().add("context released");
}

CTimerList& CExecutionContext::GetTimerList() { return m_timerList; }
