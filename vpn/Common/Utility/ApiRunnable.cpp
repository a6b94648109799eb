// Tasks and the thread in reserve: a task holds it, and its last holder may need it to be rid of
// the task.

#include "vpn/Common/Utility/ApiRunnable.h"

#include <pthread.h>

#include "vpn/Common/Utility/DetachedThread.h"

ApiRunnable::ApiRunnable() { CReserveThread::addHolder(); }

ApiRunnable::ApiRunnable(const ApiRunnable& other) : CCountedLife(other) {
  CReserveThread::addHolder();
}

ApiRunnable::~ApiRunnable() { CReserveThread::removeHolder(); }

void ApiRunnable::operator delete(ApiRunnable* object, std::destroying_delete_t) { giveUp(object); }

void ApiRunnable::leave() noexcept { CCountedLife::leave(); }

void ApiRunnable::leaveWithoutWaiting() noexcept {
  if (!isLastOut() || startDetachedThread(destroyerEntry, this, DefaultStackSize) == 0) {
    return;
  }
  // What the destructor waits for has been handed to the reserve before, so it comes first there.
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
