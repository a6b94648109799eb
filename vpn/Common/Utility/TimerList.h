#pragma once

/// @file
/// Timers, and how arming one ends.

#include <memory>

#include "vpn/include/StatusCode.h"

class ApiRunnable;

/// Status codes of timers (module 0x36).
enum TIMER_ERRORS : STATUSCODE {
  TIMER_SUCCESS = 0,
  /// The list is no longer serviced: its execution context is being taken down.
  TIMER_ERROR_LIST_CLOSED = 0xFE36000A,
};

/// Called when a timer expires, with the two context values given to the timer.
using timercb = void (*)(void* ptrVal, unsigned long longVal);

/// The timers of one execution context, in order of expiry on the monotonic clock.
///
/// `service` is run by one thread, the context's. The other operations belong to `CTimer`. A timer
/// may outlive its list; it then never fires.
class CTimerList {
 public:
  CTimerList();
  ~CTimerList();
  CTimerList(const CTimerList&) = delete;
  CTimerList& operator=(const CTimerList&) = delete;

  /// Calls back each timer as it expires, never early, one at a time, and returns after `close`. An
  /// exception that leaves a callback is logged and changes nothing for the other timers.
  void service();

  /// Ends `service` (a callback under way is not waited for) and refuses further timers; those that
  /// are armed do not fire any more.
  void close();

 private:
  friend class CTimer;
  struct Shared;
  std::shared_ptr<Shared> m_pShared;
};

/// A one-shot timer. The operations may be called from any thread, one at a time, and throw nothing
/// but std::bad_alloc. The callback works for the task of the thread that armed the timer.
///
/// Deleting a timer takes it off its list: its callback is not called from then on. A callback
/// that is under way already goes on, and the destructor does not wait for it, so a timer may be
/// deleted from its own callback and by a thread that holds a lock the callback wants.
class CTimer {
 public:
  /// @param status receives 0.
  /// @param pTimerList the list that calls back.
  /// @param callback called once, on the list's thread, with the two values that follow.
  /// @param ptrVal not owned; null will do.
  /// @param longVal any value.
  CTimer(STATUSCODE& status, CTimerList* pTimerList, timercb callback, void* ptrVal,
         unsigned long longVal);
  ~CTimer();
  CTimer(const CTimer&) = delete;
  CTimer& operator=(const CTimer&) = delete;

  /// Arms the timer to expire after `milliseconds`, 0 for at once; a timer that is armed already is
  /// armed anew.
  /// @return 0; TIMER_ERROR_LIST_CLOSED.
  STATUSCODE StartTimer(unsigned long milliseconds);

  /// Keeps `task` alive while the callback runs, so that the callback may use it even when its
  /// owner deletes it meanwhile. If the callback holds it last, another thread destroys the task,
  /// so that other timers are not held up. A task that is being destroyed is not called back any
  /// more; its destructor deletes this timer at the latest. The timer's expiry ends the task's
  /// time, and the task gets a thread in reserve now. To be called before `StartTimer`.
  void keepAlive(ApiRunnable& task);

 private:
  friend class CTimerList;
  struct Entry;
  const std::shared_ptr<CTimerList::Shared> m_pShared;
  const std::shared_ptr<Entry> m_pEntry;
};
