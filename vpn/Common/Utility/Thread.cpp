// Threads that may outlive their owner. An object is held by its owner and, from Start until the
// thread's very last step, by its thread; the last of the two destroys it. A thread ends in this
// order: Run has returned, the kept task is given up, waiters are woken, the object is given up.

#include "vpn/Common/Utility/Thread.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <utility>

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/GuardedCall.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/Common/Utility/Shortage.h"
#include "vpn/Common/Utility/StackSize.h"

namespace {

constexpr char SourceFile[] = "vpn/Common/Utility/Thread";

// Never destroyed, so that a thread may end while the process exits.
constinit std::atomic<unsigned int> runningThreads{0};

void logException(const char* what) {
  CAppLog::LogDebugMessage("Run", SourceFile, __LINE__, Logging::DBG_Error,
                           "thread ended by an exception: %s", what);
}

}  // namespace

/// Ends the thread however its body was left; pthread_exit(3) and cancellation unwind the stack
/// too.
class CThread::Ending {
 public:
  explicit Ending(CThread* thread) : exitCode(AbnormalExitCode), m_thread(thread) {}
  ~Ending() {
    if (m_thread->m_pKeptAlive != nullptr) {
      m_thread->m_pKeptAlive->leave();
    }
    m_thread->setEnded(exitCode);
    m_thread->leave();
    runningThreads.fetch_sub(1, std::memory_order_release);
  }
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;

  unsigned int exitCode;

 private:
  CThread* const m_thread;
};

CThread::CThread(std::size_t stackSize)
    : m_stackSize(stackSize != 0 ? stackSize : DefaultStackSize) {}

CThread::~CThread() = default;

STATUSCODE CThread::Start() {
  const bool isTasks = m_pKeptAlive != nullptr;
  int error = 0;
  const STATUSCODE status = start(error);
  if (error != 0) {
    const bool onReserve = status == THREAD_SUCCESS;
    CAppLog::LogReturnCode("Start", SourceFile, __LINE__,
                           onReserve ? Logging::DBG_Warning : Logging::DBG_Error, "pthread_create",
                           THREAD_ERROR_CREATE_FAILED, error,
                           onReserve ? "the thread in reserve takes over" : nullptr);
    if (isTasks) {
      Shortages::note(Shortage::Threads);
    }
  }
  return status;
}

/// @param error receives the errno value of why there is no thread of its own, if there is none.
STATUSCODE CThread::start(int& error) {
  // Held until the outcome is known, so that nobody waits for a thread that does not come about.
  const CAutoLockT<CMonitor> lock(m_stateLock);
  if (m_state != State::NotStarted) {
    return THREAD_ERROR_INVALID_STATE;
  }
  // The new thread's holds are taken here: it may end before this one goes on.
  enter();
  runningThreads.fetch_add(1, std::memory_order_relaxed);
  if (m_pKeptAlive != nullptr) {
    m_pKeptAlive->enter();
  }
  m_task = CTask::current();
  m_reserved.function = threadEntry;
  m_reserved.argument = this;

  if (m_pKeptAlive != nullptr && m_stackSize == DefaultStackSize) {
    m_waiting.function = threadEntry;
    m_waiting.argument = this;
    error = CWorkerQueue::run(m_waiting);
  } else {
    const std::size_t clients = m_usesReserve ? callbackStackSize() : 0;
    error = startDetachedThread(threadEntry, this, std::max(m_stackSize, clients));
  }
  if (error == 0 || (m_usesReserve && CReserveThread::Run(m_reserved))) {
    m_state = State::Running;
    return THREAD_SUCCESS;
  }

  // No hold is the last one here: the owner, who starts the thread, holds both.
  m_task.reset();
  if (m_pKeptAlive != nullptr) {
    m_pKeptAlive->leave();
  }
  runningThreads.fetch_sub(1, std::memory_order_relaxed);
  leave();
  return THREAD_ERROR_CREATE_FAILED;
}

void* CThread::threadEntry(void* object) {
  pthread_setname_np(pthread_self(), "ahs");
  auto* const thread = static_cast<CThread*>(object);
  // Destroyed last: the task outlives all that the thread does for it.
  const CTask::Scope scope(std::move(thread->m_task));
  Ending ending(thread);
  if (thread->m_waiting.hasWaited && thread->m_pKeptAlive->isLate()) {
    ending.exitCode = static_cast<unsigned int>(THREAD_ERROR_TIMEOUT);
    return nullptr;
  }
  guardedCall([thread, &ending] { ending.exitCode = static_cast<unsigned int>(thread->Run()); },
              logException);
  return nullptr;
}

void CThread::setEnded(unsigned int exitCode) {
  const CAutoLockT<CMonitor> lock(m_stateLock);
  m_exitCode = exitCode;
  m_state = State::Ended;
  m_stateLock.notifyAll();
}

STATUSCODE CThread::WaitForCompletion(unsigned int& exitCode, unsigned int timeoutMs) {
  const auto limit = MonotonicClock::now() + std::chrono::milliseconds(timeoutMs);
  const CAutoLockT<CMonitor> lock(m_stateLock);
  if (m_state == State::NotStarted) {
    return THREAD_ERROR_INVALID_STATE;
  }
  while (m_state != State::Ended) {
    if (timeoutMs == Infinite) {
      m_stateLock.wait();
    } else if (MonotonicClock::now() < limit) {
      m_stateLock.waitUntil(limit);
    } else {
      return THREAD_ERROR_TIMEOUT;
    }
  }
  exitCode = m_exitCode;
  return THREAD_SUCCESS;
}

IRunnable* CThread::Clone() { return nullptr; }

void CThread::Destroy() {
  CAppLog::LogDebugMessage("Destroy", SourceFile, __LINE__, Logging::DBG_Error,
                           "IRunnable::Destroy not Implemented");
}

void CThread::keepAlive(ApiRunnable& task) { m_pKeptAlive = &task; }

void CThread::useReserve() { m_usesReserve = true; }

void* CThread::operator new(std::size_t size) {
  try {
    return CCountedLife::operator new(size);
  } catch (const std::bad_alloc&) {
    Shortages::note(Shortage::Memory);
    throw;
  }
}

void CThread::operator delete(void* memory) noexcept { CCountedLife::operator delete(memory); }

void CThread::operator delete(CThread* object, std::destroying_delete_t) { giveUp(object); }

unsigned int CThread::RunningCount() noexcept {
  return runningThreads.load(std::memory_order_acquire);
}
