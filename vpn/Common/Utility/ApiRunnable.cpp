// Tasks hold the thread in reserve: their last holder may need it to destroy them.

#include "vpn/Common/Utility/ApiRunnable.h"

#include <pthread.h>

#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/include/Locks.h"

/// What the owner waits for, on its stack.
struct ApiRunnable::Gone {
  CMonitor lock;
  bool is AHS_GUARDED_BY(lock) = false;
};

ApiRunnable::ApiRunnable() { CReserveThread::addHolder(); }

ApiRunnable::ApiRunnable(const ApiRunnable& other) : CCountedLife(other) {
  CReserveThread::addHolder();
}

ApiRunnable::~ApiRunnable() {
  if (m_hasThread) {
    CReserveThread::removeThread();
  }
  CReserveThread::removeHolder();
  if (m_pGone != nullptr) {
    const CAutoLockT<CMonitor> guard(m_pGone->lock);
    m_pGone->is = true;
    m_pGone->lock.notifyAll();
  }
}

void ApiRunnable::keepThread() noexcept {
  m_hasThread = m_hasThread || CReserveThread::addThread() == 0;
}

void ApiRunnable::operator delete(ApiRunnable* object, std::destroying_delete_t) { giveUp(object); }

void ApiRunnable::deleteAndWait() noexcept {
  Gone gone;
  m_pGone = &gone;
  delete this;
  const CAutoLockT<CMonitor> guard(gone.lock);
  while (!gone.is) {
    gone.lock.wait();
  }
}

void ApiRunnable::leave() noexcept { CCountedLife::leave(); }

void ApiRunnable::leaveWithoutWaiting() noexcept {
  if (!isLastOut() || startDetachedThread(destroyerEntry, this, DefaultStackSize) == 0) {
    return;
  }
  // The reserve got the job that the destructor waits for earlier, so that job runs first.
  m_destruction.function = destroyerEntry;
  m_destruction.argument = this;
  if (!CReserveThread::Run(m_destruction)) {
    destroy();
  }
}

void* ApiRunnable::destroyerEntry(void* object) {
  pthread_setname_np(pthread_self(), "ahs");
  static_cast<ApiRunnable*>(object)->destroy();
  return nullptr;
}
