#pragma once

/// @file
/// One thread, and how starting it and waiting for it end.

#include <cstddef>
#include <memory>

#include "vpn/Common/Utility/CountedLife.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/ReserveThread.h"
#include "vpn/Common/Utility/Task.h"
#include "vpn/Common/Utility/WorkerQueue.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"
#include "vpn/include/ThreadAnnotations.h"

class ApiRunnable;

/// Status codes of threads (module 0x34).
enum THREAD_ERRORS : STATUSCODE {
  THREAD_SUCCESS = 0,
  /// A thread could not be created; the system's limit of threads or memory is reached.
  THREAD_ERROR_CREATE_FAILED = 0xFE34000A,
  /// The time-out of a wait passed.
  THREAD_ERROR_TIMEOUT = 0xFE34000B,
  /// Started before, or waited for though it does not run and was never started.
  THREAD_ERROR_INVALID_STATE = 0xFE34000D,
};

/// Something with a body that a thread can run.
class IRunnable {
 public:
  IRunnable() = default;
  /// The body. @return 0 or a failure.
  virtual STATUSCODE Run() = 0;
  virtual ~IRunnable() = default;
  /// Another one like this, the caller's; null if there can be none.
  virtual IRunnable* Clone() = 0;
  /// Ends the object's life, where that is not the part of `delete`.
  virtual void Destroy() = 0;

  IRunnable(const IRunnable&) = delete;
  IRunnable& operator=(const IRunnable&) = delete;
};

/// One thread: derive, write `Run`, call `Start`. It works for the task of the thread that starts
/// it.
///
/// Objects are created with `new` and given up with `delete`, by one owner, who also calls `Start`.
/// Deleting an object whose thread still runs is allowed: `delete` returns at once and the object
/// is destroyed when its thread has left it, on that thread. Signals are blocked in the thread; see
/// `startDetachedThread`. An exception that leaves `Run` is logged and ends the thread.
class CThread : public IRunnable, public CCountedLife<CThread> {
 public:
  /// No time-out, for `WaitForCompletion`.
  static constexpr unsigned int Infinite = 0xFFFFFFFF;
  /// Exit code of a thread that did not end by returning from `Run`.
  static constexpr unsigned int AbnormalExitCode = 0xFFFFFFFF;

  /// @param stackSize bytes of stack, 0 for `DefaultStackSize`; less than the system's minimum is
  ///        raised to it.
  explicit CThread(std::size_t stackSize = 0);
  ~CThread() override;

  /// Starts the thread, which runs `Run()` once. Throws nothing.
  /// @return 0; THREAD_ERROR_INVALID_STATE when it was started before; THREAD_ERROR_CREATE_FAILED
  ///         when the system gives no thread (the reason is logged), after which the object can
  ///         still be waited for (as a thread that was never started), started again or deleted.
  ///         A thread that uses the reserve is then started on that, and the result is 0.
  STATUSCODE Start();

  /// Waits until the thread has ended. Any thread but itself may call it, also more than once.
  /// @param exitCode receives the low 32 bits of `Run()`'s result when the thread has ended.
  /// @param timeoutMs longest wait in milliseconds, `Infinite` for no limit.
  /// @return 0; THREAD_ERROR_TIMEOUT; THREAD_ERROR_INVALID_STATE for a thread that does not run and
  ///         was never started.
  STATUSCODE WaitForCompletion(unsigned int& exitCode, unsigned int timeoutMs);

  /// Threads cannot be cloned: a null pointer.
  IRunnable* Clone() override;
  /// Threads are deleted, not destroyed: logs an error and does nothing.
  void Destroy() override;

  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;
  static void operator delete(CThread* object, std::destroying_delete_t);

  /// Threads of this class that exist in the process now, for tests and diagnosis. A thread counts
  /// until it has touched its object for the last time.
  static unsigned int RunningCount() noexcept;

 protected:
  /// Keeps `task` alive from `Start` until `Run` has returned, so that the thread may use it even
  /// when its owner has deleted it. The hold is given up before the thread counts as ended: who has
  /// waited for the thread finds it gone. To be called before `Start`, at most once.
  ///
  /// Where the process lacks descriptors or threads, such a thread waits for its turn after
  /// `Start` (`CWorkerQueue`). If the task's time is over by then, it ends without `Run`, with the
  /// exit code THREAD_ERROR_TIMEOUT.
  void keepAlive(ApiRunnable& task);

  /// Lets the thread that is kept in reserve run the body when the system gives no thread. For
  /// what must happen at any price, and that alone: to call the client, whose code gets a main
  /// thread's stack. To be called before `Start`.
  void useReserve();

 private:
  enum class State { NotStarted, Running, Ended };
  class Ending;

  STATUSCODE start(int& error);
  static void* threadEntry(void* object);
  void setEnded(unsigned int exitCode);

  const std::size_t m_stackSize;
  // Written before Start, read by the thread: ordered by its creation.
  ApiRunnable* m_pKeptAlive = nullptr;
  std::shared_ptr<CTask> m_task;    // written by Start, taken over by the thread
  bool m_usesReserve = false;       // written before Start, read by it
  CReserveThread::Body m_reserved;  // the reserve thread's, once Start has handed it over
  CWorkerQueue::Body m_waiting;     // the same of the queue of workers

  CMonitor m_stateLock;  // notified when the thread has ended
  State m_state AHS_GUARDED_BY(m_stateLock) = State::NotStarted;
  unsigned int m_exitCode AHS_GUARDED_BY(m_stateLock) = 0;
};
