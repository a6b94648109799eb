#pragma once

#include "vpn/Common/Utility/TimerList.h"
#include "vpn/include/StatusCode.h"

/// Status codes of execution contexts (module 0x8D).
enum EXECUTIONCONTEXT_ERRORS : STATUSCODE {
  EXECUTIONCONTEXT_SUCCESS = 0,
  EXECUTIONCONTEXT_ERROR_MEMALLOC_FAILED = 0xFE8D0004,
  EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS = 0xFE8D0008,
  EXECUTIONCONTEXT_ERROR_NO_INSTANCE = 0xFE8D000A,
};

/// Which of the process's execution contexts.
enum EXECUTIONCONTEXT_INSTANCE { API_INSTANCE = 0 };

/// A place where asynchronous work of the process is serviced: a timer list and its thread, and the
/// thread in reserve.
///
/// The start-up of the client library creates the instance; users acquire and release it in pairs.
/// The last release ends the timer thread and destroys the instance; timers that are armed then do
/// not fire any more. All operations may be called from any thread.
class CExecutionContext {
 public:
  /// Creates the context and acquires it for the caller.
  /// @return 0; EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS; EXECUTIONCONTEXT_ERROR_MEMALLOC_FAILED; a
  ///         code of `CThread::Start` when the system gives no thread.
  static STATUSCODE createInstance(EXECUTIONCONTEXT_INSTANCE instance);

  /// The context with its acquisition counted, or null when it was not created.
  static CExecutionContext* acquireInstance(EXECUTIONCONTEXT_INSTANCE instance);

  /// Gives back one acquisition. The last one waits for a timer's callback that is under way, so
  /// its caller must hold no lock that a callback wants; on the timer thread itself it waits for
  /// nothing.
  void releaseInstance();

  /// The list on which timers of this context are serviced; lives as long as the context.
  CTimerList& GetTimerList();

  CExecutionContext(const CExecutionContext&) = delete;
  CExecutionContext& operator=(const CExecutionContext&) = delete;

 private:
  class CTimerThread;

  CExecutionContext();
  ~CExecutionContext();

  CTimerList m_timerList;  // has a lock of its own
  CTimerThread* const m_pTimerThread;
};
