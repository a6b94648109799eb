// Time in the hands of the test. A timer never expires by itself; `Timers::fire` calls it back on
// the calling thread and keeps the timer's task alive meanwhile, as the real list does. A deleted
// timer is never called back.

#include "tests/unit/selection/doubles/timers.h"

#include <utility>

#include "tests/unit/selection/doubles/gate.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/Clock.h"

namespace doubles {

void ManualClock::reset() { m_now = 1000; }

ManualClock& clock() {
  static ManualClock& instance = *new ManualClock;  // late threads may still read it
  return instance;
}

void Timers::reset() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_hasContext = true;
  m_constructionStatus = 0;
  m_startStatus = 0;
  m_starts.clear();
  m_fire = nullptr;
  m_list = nullptr;
  m_pointerValue = nullptr;
  m_longValue = 0;
  m_live = 0;
  m_created = 0;
  m_acquired = 0;
  m_released = 0;
}

void Timers::removeContext() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_hasContext = false;
}

void Timers::failConstruction(STATUSCODE status) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_constructionStatus = status;
}

void Timers::failStart(STATUSCODE status) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_startStatus = status;
}

bool Timers::fire() {
  std::function<bool()> fireNewest;
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    fireNewest = m_fire;
  }
  return fireNewest && fireNewest();
}

std::vector<unsigned long> Timers::starts() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_starts;
}

CTimerList* Timers::list() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_list;
}

void* Timers::pointerValue() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_pointerValue;
}

unsigned long Timers::longValue() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_longValue;
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
  const std::lock_guard<std::mutex> hold(script.m_lock);
  status = script.m_constructionStatus;
  script.m_fire = [entry = m_pEntry] { return entry->fire(); };
  script.m_list = pTimerList;
  script.m_pointerValue = ptrVal;
  script.m_longValue = longVal;
  ++script.m_live;
  ++script.m_created;
}

CTimer::~CTimer() {
  {
    const std::lock_guard<std::mutex> hold(m_pEntry->lock);
    m_pEntry->armed = false;
  }
  --doubles::timers().m_live;
  doubles::journal().add("timer deleted");
}

STATUSCODE CTimer::StartTimer(unsigned long milliseconds) {
  doubles::Timers& script = doubles::timers();
  STATUSCODE status = 0;
  {
    const std::lock_guard<std::mutex> hold(script.m_lock);
    script.m_starts.push_back(milliseconds);
    status = script.m_startStatus;
  }
  const std::lock_guard<std::mutex> hold(m_pEntry->lock);
  m_pEntry->armed = status == 0;
  return status;
}

void CTimer::keepAlive(ApiRunnable& task) { m_pEntry->keptAlive = &task; }

CExecutionContext::CExecutionContext() : m_pTimerThread(nullptr) {}
CExecutionContext::~CExecutionContext() = default;

CExecutionContext* CExecutionContext::acquireInstance(EXECUTIONCONTEXT_INSTANCE instance) {
  static CExecutionContext& context = *new CExecutionContext;
  doubles::Timers& script = doubles::timers();
  const std::lock_guard<std::mutex> hold(script.m_lock);
  if (!script.m_hasContext || instance != API_INSTANCE) {
    return nullptr;
  }
  ++script.m_acquired;
  return &context;
}

void CExecutionContext::releaseInstance() {
  ++doubles::timers().m_released;
  doubles::journal().add("context released");
}

CTimerList& CExecutionContext::GetTimerList() { return m_timerList; }
