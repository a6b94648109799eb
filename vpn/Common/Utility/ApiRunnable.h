#pragma once

#include <atomic>

#include "vpn/Common/Utility/CountedLife.h"
#include "vpn/Common/Utility/ReserveThread.h"

/// A task of the API that is run once and may delete itself. Threads that may come late (a timer
/// that is firing, a worker that nobody waits for) hold it.
///
/// While it exists a thread in reserve exists too, which delivers the task's result when the
/// system gives no other thread; one of its own if `keepThread` could make it.
class ApiRunnable : public CCountedLife<ApiRunnable> {
 public:
  ApiRunnable();
  virtual ~ApiRunnable();
  /// Does the task, once. It may delete the object.
  virtual void run() = 0;

  /// Gives up a hold, once for each `enter`. The last one destroys the object on this thread.
  void leave() noexcept;

  /// As `leave`, for a thread that must not wait in a destructor: the last hold destroys the object
  /// on another thread (on this one only if not even the reserve can be had).
  void leaveWithoutWaiting() noexcept;

  /// Has a thread of its own in reserve, if the system gives one. For the thread that runs it.
  void keepThread() noexcept;

  /// Its time is over: workers of it that wait for their turn return at once. Any thread.
  void endTime() noexcept { m_isLate = true; }
  bool isLate() const noexcept { return m_isLate; }

  /// Deletes the object, for its owner, and returns when it is destroyed, whoever held it last.
  void deleteAndWait() noexcept;

  using CCountedLife::operator delete;
  static void operator delete(ApiRunnable* object, std::destroying_delete_t);

 protected:
  ApiRunnable(const ApiRunnable& other);
  ApiRunnable& operator=(const ApiRunnable&) = delete;

 private:
  struct Gone;

  static void* destroyerEntry(void* object);

  std::atomic<bool> m_isLate{false};
  bool m_hasThread = false;
  Gone* m_pGone = nullptr;  ///< set before the owner's hold ends, read after the last one
  CReserveThread::Body m_destruction;  // the last holder's, and then the reserve thread's
};
