// One-shot timers in order of expiry. A timer is called back only while it is on the list, and it
// is taken off under the list's lock, together with everything that the call needs; the timer
// itself is not touched from then on, so it may be deleted at any moment, also by its own callback.

#include "vpn/Common/Utility/TimerList.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <new>
#include <utility>

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/GuardedCall.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/Common/Utility/Task.h"
#include "vpn/include/Locks.h"

namespace {

using Clock = MonotonicClock;

constexpr char SourceFile[] = "vpn/Common/Utility/TimerList";

// The clock counts nanoseconds in 63 bits, which end after 292 years.
constexpr unsigned long LongestMilliseconds = 100UL * 365 * 24 * 60 * 60 * 1000;

Clock::time_point expiryOf(unsigned long milliseconds) {
  return Clock::now() + std::chrono::milliseconds(std::min(milliseconds, LongestMilliseconds));
}

void logException(const char* what) {
  CAppLog::LogDebugMessage("Service", SourceFile, __LINE__, Logging::DBG_Error,
                           "timer callback ended by an exception: %s", what);
}

}  // namespace

struct CTimerList::Shared {
  using Armed = std::multimap<Clock::time_point, std::shared_ptr<CTimer::Entry>>;

  bool takeExpired(CTimer::Entry& expired) AHS_REQUIRES(lock);
  bool waitForExpired(CTimer::Entry& expired);

  CMonitor lock;  // notified of a new first timer, and of the end
  bool closed AHS_GUARDED_BY(lock) = false;
  Armed armed AHS_GUARDED_BY(lock);
};

/// What a timer and its place on the list share; guarded by the list's lock.
struct CTimer::Entry {
  timercb callback = nullptr;
  void* ptrVal = nullptr;
  unsigned long longVal = 0;
  ApiRunnable* pKeptAlive = nullptr;
  std::shared_ptr<CTask> task;
  bool isArmed = false;
  CTimerList::Shared::Armed::iterator position = {};
};

/// Takes the first timer off the list if its time has come and its task is still there to be
/// called.
bool CTimerList::Shared::takeExpired(CTimer::Entry& expired) {
  const auto first = armed.begin();
  const std::shared_ptr<CTimer::Entry> entry = first->second;
  armed.erase(first);
  entry->isArmed = false;
  expired = *entry;
  entry->task.reset();
  // The run's memory is there: it deletes the timer first, which takes the lock held here.
  return expired.pKeptAlive == nullptr || expired.pKeptAlive->enterIfHeld();
}

/// @return false when the list has been closed.
bool CTimerList::Shared::waitForExpired(CTimer::Entry& expired) {
  const CAutoLockT<CMonitor> guard(lock);
  while (!closed) {
    if (armed.empty()) {
      lock.Wait();
    } else if (const Clock::time_point next = armed.begin()->first; next > Clock::now()) {
      lock.WaitUntil(next);
    } else if (takeExpired(expired)) {
      return true;
    }
  }
  return false;
}

namespace {

/// Gives the kept task up however the callback was left.
class KeptTask {
 public:
  explicit KeptTask(ApiRunnable* task) : m_task(task) {}
  ~KeptTask() {
    if (m_task != nullptr) {
      m_task->leaveWithoutWaiting();
    }
  }
  KeptTask(const KeptTask&) = delete;
  KeptTask& operator=(const KeptTask&) = delete;

 private:
  ApiRunnable* const m_task;
};

}  // namespace

CTimerList::CTimerList() : m_pShared(std::make_shared<Shared>()) {}

CTimerList::~CTimerList() { Close(); }

void CTimerList::Service() {
  // A callback may destroy the list.
  const std::shared_ptr<Shared> shared = m_pShared;
  CTimer::Entry expired;
  while (shared->waitForExpired(expired)) {
    const CTask::Scope scope(std::move(expired.task));
    const KeptTask keptTask(expired.pKeptAlive);
    guardedCall([&expired] { expired.callback(expired.ptrVal, expired.longVal); }, logException);
  }
}

void CTimerList::Close() {
  const CAutoLockT<CMonitor> guard(m_pShared->lock);
  m_pShared->closed = true;
  m_pShared->lock.NotifyAll();
}

CTimer::CTimer(STATUSCODE& status, CTimerList* pTimerList, timercb callback, void* ptrVal,
               unsigned long longVal) {
  if (pTimerList == nullptr || callback == nullptr) {
    status = TIMER_ERROR_BAD_PARAMETER;
    return;
  }
  try {
    m_pEntry = std::make_shared<Entry>();
  } catch (const std::bad_alloc&) {
    status = TIMER_ERROR_MEMALLOC_FAILED;
    return;
  }
  m_pEntry->callback = callback;
  m_pEntry->ptrVal = ptrVal;
  m_pEntry->longVal = longVal;
  m_pShared = pTimerList->m_pShared;
  status = TIMER_SUCCESS;
}

CTimer::~CTimer() {
  if (m_pShared == nullptr) {
    return;
  }
  const CAutoLockT<CMonitor> guard(m_pShared->lock);
  if (m_pEntry->isArmed) {
    m_pShared->armed.erase(m_pEntry->position);
  }
}

STATUSCODE CTimer::StartTimer(unsigned long milliseconds) {
  if (m_pShared == nullptr) {
    return TIMER_ERROR_BAD_PARAMETER;
  }
  const CAutoLockT<CMonitor> guard(m_pShared->lock);
  if (m_pShared->closed) {
    return TIMER_ERROR_LIST_CLOSED;
  }
  CTimerList::Shared::Armed& armed = m_pShared->armed;
  CTimerList::Shared::Armed::iterator position;
  try {
    position = armed.emplace(expiryOf(milliseconds), m_pEntry);
  } catch (const std::bad_alloc&) {
    return TIMER_ERROR_MEMALLOC_FAILED;
  }
  if (m_pEntry->isArmed) {
    armed.erase(m_pEntry->position);
  }
  m_pEntry->task = CTask::Current();
  m_pEntry->position = position;
  m_pEntry->isArmed = true;
  if (position == armed.begin()) {
    m_pShared->lock.NotifyAll();
  }
  return TIMER_SUCCESS;
}

void CTimer::KeepAlive(ApiRunnable& task) {
  if (m_pShared == nullptr) {
    return;
  }
  const CAutoLockT<CMonitor> guard(m_pShared->lock);
  m_pEntry->pKeptAlive = &task;
}
