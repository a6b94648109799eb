// One-shot timers in order of expiry. A timer is called back only while it is on the list, and it
// is taken off under the list's lock, together with everything that the call needs; the timer
// itself is not touched from then on, so it may be deleted at any moment, also by its own callback.

#include "vpn/Common/Utility/TimerList.h"

#include <chrono>
#include <map>
#include <utility>

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/GuardedCall.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/Common/Utility/Task.h"
#include "vpn/Common/Utility/WorkerQueue.h"
#include "vpn/include/Locks.h"

namespace {

constexpr char SourceFile[] = "vpn/Common/Utility/TimerList";

void logException(const char* what) {
  CAppLog::LogDebugMessage("Service", SourceFile, __LINE__, Logging::DBG_Error,
                           "timer callback ended by an exception: %s", what);
}

}  // namespace

struct CTimerList::Shared {
  bool takeExpired(CTimer::Entry& expired) AHS_REQUIRES(lock);
  bool waitForExpired(CTimer::Entry& expired);
  void disarm(const std::shared_ptr<CTimer::Entry>& entry) AHS_REQUIRES(lock);

  CMonitor lock;  // notified of a new first timer, and of the end
  bool closed AHS_GUARDED_BY(lock) = false;
  std::multimap<MonotonicClock::time_point, std::shared_ptr<CTimer::Entry>> armed
      AHS_GUARDED_BY(lock);
};

/// What a timer and its place on the list share; guarded by the list's lock.
struct CTimer::Entry {
  timercb callback;
  void* ptrVal;
  unsigned long longVal;
  ApiRunnable* pKeptAlive = nullptr;
  std::shared_ptr<CTask> task = nullptr;
};

/// Takes the first timer off the list. @return whether its task is still there to be called.
bool CTimerList::Shared::takeExpired(CTimer::Entry& expired) {
  const auto first = armed.begin();
  expired = *first->second;
  first->second->task.reset();
  armed.erase(first);
  // The run's memory still exists: the run deletes its timer first, under this lock.
  return expired.pKeptAlive == nullptr || expired.pKeptAlive->enterIfHeld();
}

void CTimerList::Shared::disarm(const std::shared_ptr<CTimer::Entry>& entry) {
  std::erase_if(armed, [&entry](const auto& place) { return place.second == entry; });
}

/// @return false when the list has been closed.
bool CTimerList::Shared::waitForExpired(CTimer::Entry& expired) {
  const CAutoLockT<CMonitor> guard(lock);
  while (!closed) {
    if (armed.empty()) {
      lock.wait();
    } else if (const auto next = armed.begin()->first; next > MonotonicClock::now()) {
      lock.waitUntil(next);
    } else if (takeExpired(expired)) {
      return true;
    }
  }
  return false;
}

CTimerList::CTimerList() : m_pShared(std::make_shared<Shared>()) {}

CTimerList::~CTimerList() { close(); }

void CTimerList::service() {
  // A callback may destroy the list.
  const std::shared_ptr<Shared> shared = m_pShared;
  CTimer::Entry expired{};
  while (shared->waitForExpired(expired)) {
    const CTask::Scope scope(std::move(expired.task));
    if (expired.pKeptAlive != nullptr) {
      expired.pKeptAlive->endTime();
      Shortages::note(CWorkerQueue::waitsFor());
    }
    guardedCall([&expired] { expired.callback(expired.ptrVal, expired.longVal); }, logException);
    if (expired.pKeptAlive != nullptr) {
      expired.pKeptAlive->leaveWithoutWaiting();
    }
  }
}

void CTimerList::close() {
  const CAutoLockT<CMonitor> guard(m_pShared->lock);
  m_pShared->closed = true;
  m_pShared->lock.notifyAll();
}

CTimer::CTimer(STATUSCODE& status, CTimerList* pTimerList, timercb callback, void* ptrVal,
               unsigned long longVal)
    : m_pShared(pTimerList->m_pShared),
      m_pEntry(std::make_shared<Entry>(Entry{callback, ptrVal, longVal})) {
  status = TIMER_SUCCESS;
}

CTimer::~CTimer() {
  const CAutoLockT<CMonitor> guard(m_pShared->lock);
  m_pShared->disarm(m_pEntry);
}

STATUSCODE CTimer::StartTimer(unsigned long milliseconds) {
  const CAutoLockT<CMonitor> guard(m_pShared->lock);
  if (m_pShared->closed) {
    return TIMER_ERROR_LIST_CLOSED;
  }
  m_pShared->disarm(m_pEntry);
  const auto expiry = MonotonicClock::now() + std::chrono::milliseconds(milliseconds);
  const auto position = m_pShared->armed.emplace(expiry, m_pEntry);
  m_pEntry->task = CTask::current();
  if (position == m_pShared->armed.begin()) {
    m_pShared->lock.notifyAll();
  }
  return TIMER_SUCCESS;
}

void CTimer::keepAlive(ApiRunnable& task) {
  task.keepThread();
  const CAutoLockT<CMonitor> guard(m_pShared->lock);
  m_pEntry->pKeptAlive = &task;
}
