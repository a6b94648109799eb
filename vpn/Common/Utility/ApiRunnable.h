#pragma once

#include <atomic>
#include <cstddef>
#include <new>

#include "vpn/Common/Utility/ReserveThread.h"

/// A task of the API that is run once and may delete itself.
///
/// Deleting and freeing are two moments. Threads that may come late (a timer that is firing, a
/// worker that nobody waits for) each hold the object with `enter` and give it up with `leave`;
/// the creator holds it from the start. `delete` gives up the creator's hold and returns at once.
/// The last holder out destroys the object and frees its memory. In the ordinary case nobody else
/// holds it and `delete` does both on the spot, on the deleting thread.
///
/// While it exists the thread in reserve is kept too, which delivers what the task ends with when
/// the system gives no other.
///
/// `enter` may be called only by who already knows the object to be held; `leave` once per `enter`.
/// All of it may be called from any thread. Objects that are held or deleted are created with
/// `new`; a class derived from this must not ask for more than the ordinary alignment.
class ApiRunnable {
 public:
  ApiRunnable();
  virtual ~ApiRunnable();
  /// Does the task, once. It may delete the object.
  virtual void run() = 0;

  /// Takes a hold.
  void enter() noexcept;

  /// As `enter`, for who only knows that the memory is still there: takes no hold on an object
  /// whose last holder has left and which is therefore being destroyed.
  /// @return whether the object is held now.
  bool enterIfHeld() noexcept;

  /// Gives up a hold. The last one destroys the object on this thread.
  void leave() noexcept;

  /// As `leave`, for a thread that must not be held up by what a destructor waits for: the last
  /// hold destroys the object on another thread (on this one only if not even the one in reserve
  /// can be had).
  void leaveWithoutWaiting() noexcept;

  /// Allocates memory as the global operator does; here because a class that has its own `delete`
  /// needs its own `new`.
  static void* operator new(std::size_t size);
  /// Gives up the creator's hold: what a `delete` expression calls in place of the destructor.
  static void operator delete(ApiRunnable* object, std::destroying_delete_t);
  /// Frees the memory of an object whose construction threw.
  static void operator delete(void* memory) noexcept;

 protected:
  /// An object of its own, held by its creator alone.
  ApiRunnable(const ApiRunnable&);
  ApiRunnable& operator=(const ApiRunnable&) = delete;

 private:
  static void* destroyerEntry(void* object);
  static void destroy(ApiRunnable* object) noexcept;

  std::atomic<unsigned int> m_holders;
  CReserveThread::Body m_destruction;  // the last holder's, and then the reserve thread's
};
