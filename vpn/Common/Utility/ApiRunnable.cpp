// Counted life of a task. The count starts at one, the creator's hold, which a `delete` expression
// gives up. Whoever takes the count to zero is alone with the object: it destroys it and frees the
// memory, and nobody takes a hold from then on.

#include "vpn/Common/Utility/ApiRunnable.h"

#include <pthread.h>

#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/Thread.h"

namespace {

// A destructor waits, deletes and logs; it needs no more than a worker does.
constexpr std::size_t DestroyerStackSize = CThread::DefaultStackSize;

}  // namespace

ApiRunnable::ApiRunnable() : m_holders(1) { CReserveThread::AddHolder(); }

// A copy is an object of its own: nobody but its creator holds it.
ApiRunnable::ApiRunnable(const ApiRunnable&) : m_holders(1) { CReserveThread::AddHolder(); }

ApiRunnable::~ApiRunnable() { CReserveThread::RemoveHolder(); }

void ApiRunnable::enter() noexcept { m_holders.fetch_add(1, std::memory_order_relaxed); }

bool ApiRunnable::enterIfHeld() noexcept {
  unsigned int holders = m_holders.load(std::memory_order_relaxed);
  while (holders != 0) {
    if (m_holders.compare_exchange_weak(holders, holders + 1, std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

void ApiRunnable::leave() noexcept {
  // Release: what this holder did happens before the destruction. Acquire: so did what others did.
  if (m_holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    destroy(this);
  }
}

void ApiRunnable::leaveWithoutWaiting() noexcept {
  if (m_holders.fetch_sub(1, std::memory_order_acq_rel) != 1 ||
      startDetachedThread(destroyerEntry, this, DestroyerStackSize) == 0) {
    return;
  }
  // What the destructor waits for has been handed to the reserve before, so it comes first there.
  m_destruction.function = destroyerEntry;
  m_destruction.argument = this;
  if (!CReserveThread::Run(m_destruction)) {
    destroy(this);
  }
}

void* ApiRunnable::destroyerEntry(void* object) {
  pthread_setname_np(pthread_self(), "ahs");
  destroy(static_cast<ApiRunnable*>(object));
  return nullptr;
}

void ApiRunnable::destroy(ApiRunnable* object) noexcept {
  // The memory starts where the whole object does, which is not where this base need be; after the
  // destructor nobody could tell any more.
  void* const whole = dynamic_cast<void*>(object);
  object->~ApiRunnable();
  ::operator delete(whole);
}

void* ApiRunnable::operator new(std::size_t size) { return ::operator new(size); }

void ApiRunnable::operator delete(ApiRunnable* object, std::destroying_delete_t) {
  if (object != nullptr) {
    object->leave();
  }
}

void ApiRunnable::operator delete(void* memory) noexcept { ::operator delete(memory); }
