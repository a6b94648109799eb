// The threads in reserve. They sleep until there is a body to call or there are more of them than
// are wanted. Before one calls a body and no other is idle it tries to start a successor, so that a
// slow or endless body delays the others only while the system has no thread.

#include "vpn/Common/Utility/ReserveThread.h"

#include <pthread.h>

#include <cstddef>
#include <new>

#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/StackSize.h"
#include "vpn/include/Locks.h"

namespace {

void* serve(void* nothing);

/// The one reserve. It has no destructor that a late thread could trip over: see `reserve`.
struct Reserve {
  CMonitor lock;  // notified of a body, and when fewer threads are wanted
  unsigned int holders AHS_GUARDED_BY(lock) = 0;
  unsigned int own AHS_GUARDED_BY(lock) = 0;  // threads that `addThread` asked for
  unsigned int threads AHS_GUARDED_BY(lock) = 0;
  unsigned int busy AHS_GUARDED_BY(lock) = 0;
  CReserveThread::Body* first AHS_GUARDED_BY(lock) = nullptr;
  CReserveThread::Body** end AHS_GUARDED_BY(lock) = &first;

  unsigned int wanted() const AHS_REQUIRES(lock) { return own + (holders != 0 ? 1 : 0); }
  unsigned int idle() const AHS_REQUIRES(lock) { return threads - busy; }

  int start() noexcept AHS_REQUIRES(lock) {
    const int error = startDetachedThread(serve, nullptr, callbackStackSize());
    threads += error == 0 ? 1 : 0;
    return error;
  }
};

Reserve& reserve() noexcept {
  // In static storage: there may be no memory when the reserve is needed. Never destroyed.
  alignas(Reserve) static std::byte storage[sizeof(Reserve)];
  static Reserve& instance = *new (storage) Reserve;
  return instance;
}

/// Takes the next body, waiting for one. Null when this thread is one too many; it is no reserve
/// thread from then on.
CReserveThread::Body* nextBody(Reserve& all) {
  const CAutoLockT<CMonitor> guard(all.lock);
  while (all.first == nullptr) {
    if (all.idle() > all.wanted()) {
      --all.threads;
      return nullptr;
    }
    all.lock.wait();
  }
  CReserveThread::Body* const body = all.first;
  all.first = body->next;
  if (all.first == nullptr) {
    all.end = &all.first;
  }
  ++all.busy;
  if (all.idle() == 0) {
    static_cast<void>(all.start());
  }
  return body;
}

/// Ends a call, also when the body ends its thread, as pthread_exit(3) does.
class Call {
 public:
  Call() = default;
  ~Call() {
    Reserve& all = reserve();
    const CAutoLockT<CMonitor> guard(all.lock);
    --all.busy;
    all.threads -= m_hasReturned ? 0 : 1;
    if (!m_hasReturned && all.idle() < all.wanted()) {
      static_cast<void>(all.start());  // failing that, what waits is left to the next thread
    }
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  void noteReturn() { m_hasReturned = true; }

 private:
  bool m_hasReturned = false;
};

void* serve(void* /*nothing*/) {
  pthread_setname_np(pthread_self(), "ahs");
  while (const CReserveThread::Body* const body = nextBody(reserve())) {
    Call call;
    body->function(body->argument);  // the body's storage may go with the call
    call.noteReturn();
  }
  return nullptr;
}

}  // namespace

int CReserveThread::create() noexcept {
  Reserve& all = reserve();
  const CAutoLockT<CMonitor> guard(all.lock);
  if (const int error = all.threads == 0 ? all.start() : 0; error != 0) {
    return error;
  }
  ++all.holders;
  return 0;
}

int CReserveThread::addThread() noexcept {
  Reserve& all = reserve();
  const CAutoLockT<CMonitor> guard(all.lock);
  const int error = all.start();
  all.own += error == 0 ? 1 : 0;
  return error;
}

void CReserveThread::removeThread() noexcept {
  Reserve& all = reserve();
  const CAutoLockT<CMonitor> guard(all.lock);
  --all.own;
  all.lock.notifyAll();
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
  if (all.threads == 0) {
    return false;
  }
  body.next = nullptr;
  *all.end = &body;
  all.end = &body.next;
  all.lock.notifyAll();
  return true;
}
