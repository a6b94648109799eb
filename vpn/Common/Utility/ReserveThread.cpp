// The thread in reserve. It sleeps until there is a body to call or nobody holds the reserve.
// Before it calls a body it tries to start a successor, so that a slow or endless body delays the
// others only while the system has no thread.

#include "vpn/Common/Utility/ReserveThread.h"

#include <pthread.h>

#include <cstddef>
#include <new>
#include <utility>

#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/StackSize.h"
#include "vpn/include/Locks.h"

namespace {

/// The one reserve. It has no destructor that a late thread could trip over: see `reserve`.
struct Reserve {
  CMonitor lock;  // notified of a body, and of the last holder's leaving
  unsigned int holders AHS_GUARDED_BY(lock) = 0;
  bool hasThread AHS_GUARDED_BY(lock) = false;
  CReserveThread::Body* first AHS_GUARDED_BY(lock) = nullptr;
  CReserveThread::Body** end AHS_GUARDED_BY(lock) = &first;
};

Reserve& reserve() noexcept {
  // In static storage: there may be no memory when the reserve is needed. Never destroyed.
  alignas(Reserve) static std::byte storage[sizeof(Reserve)];
  static Reserve& instance = *new (storage) Reserve;
  return instance;
}

/// Takes the next body, waiting for one. Null when nobody holds the reserve any more; there is no
/// reserve thread from then on.
CReserveThread::Body* nextBody(Reserve& all) {
  const CAutoLockT<CMonitor> guard(all.lock);
  while (all.first == nullptr) {
    if (all.holders == 0) {
      all.hasThread = false;
      return nullptr;
    }
    all.lock.wait();
  }
  CReserveThread::Body* const body = all.first;
  all.first = body->next;
  if (all.first == nullptr) {
    all.end = &all.first;
  }
  return body;
}

void* serve(void* nothing);

/// What remains to be done when a body ends its thread, as pthread_exit(3) does. Unwinding the
/// stack gets here; after an ordinary return it is done already.
class Succession {
 public:
  Succession() : m_isSettled(startDetachedThread(serve, nullptr, callbackStackSize()) == 0) {}
  ~Succession() {
    if (!m_isSettled && startDetachedThread(serve, nullptr, callbackStackSize()) != 0) {
      const CAutoLockT<CMonitor> guard(reserve().lock);
      reserve().hasThread = false;  // what waits is left to the next thread that is made
    }
  }
  Succession(const Succession&) = delete;
  Succession& operator=(const Succession&) = delete;

  /// Whether there is a successor; if not, the caller goes on as the reserve thread.
  bool settle() { return std::exchange(m_isSettled, true); }

 private:
  bool m_isSettled;
};

void* serve(void* /*nothing*/) {
  pthread_setname_np(pthread_self(), "ahs");
  while (const CReserveThread::Body* const body = nextBody(reserve())) {
    Succession succession;
    body->function(body->argument);  // the body's storage may go with the call
    if (succession.settle()) {
      return nullptr;
    }
  }
  return nullptr;
}

}  // namespace

int CReserveThread::create() noexcept {
  Reserve& all = reserve();
  const CAutoLockT<CMonitor> guard(all.lock);
  if (!all.hasThread) {
    const int error = startDetachedThread(serve, nullptr, callbackStackSize());
    if (error != 0) {
      return error;
    }
    all.hasThread = true;
  }
  ++all.holders;
  return 0;
}

void CReserveThread::addHolder() noexcept {
  Reserve& all = reserve();
  const CAutoLockT<CMonitor> guard(all.lock);
  ++all.holders;
}

void CReserveThread::removeHolder() noexcept {
  Reserve& all = reserve();
  const CAutoLockT<CMonitor> guard(all.lock);
  if (--all.holders == 0) {
    all.lock.notifyAll();
  }
}

bool CReserveThread::Run(Body& body) noexcept {
  Reserve& all = reserve();
  const CAutoLockT<CMonitor> guard(all.lock);
  if (!all.hasThread) {
    return false;
  }
  body.next = nullptr;
  *all.end = &body;
  all.end = &body.next;
  all.lock.notifyAll();
  return true;
}
