// The wrappers that the linker puts in front of real operations (--wrap): each lets the calling
// thread come by the harness, counts, and calls the real one. Their names are the mangled names of
// the operations; a name that no longer fits shows as a place that nobody ever passes.

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <utility>

#include "tests/stress/stage.h"
#include "tests/unit/selection/selection_access.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/ReserveThread.h"

namespace stress {
namespace {

// How long the timer thread sleeps at most: it then finds the time that a run has moved, without
// any call from the run's threads that would order their memory accesses before its own.
constexpr long LongestSleepNs = 50000;

void passLock(const CManualLock* lock, Place place) {
  if (Stage* const stage = self().stage) {
    stage->passLock(lock, place);
  }
}

/// A thread of a run from its creation to its end, or the thread in reserve while it is a run's.
struct Beginning {
  void* (*body)(void*);
  void* argument;
  Stage* stage;
  Role role;
  unsigned char worker;
};

void* beginThread(void* argument) {
  const std::unique_ptr<Beginning> mine(static_cast<Beginning*>(argument));
  enter(mine->stage, mine->role, mine->worker);
  mine->stage->pass(Place::ThreadBegins);
  void* const result = mine->body(mine->argument);
  enter(nullptr, Role::Main, 0);
  // Release: whoever sees the thread gone sees what it did.
  census().threads.fetch_sub(1, std::memory_order_release);
  return result;
}

/// What the thread that is being asked for will be.
Role roleWanted() { return self().nextRole != Role::Main ? self().nextRole : Role::Reaper; }

bool isRefused(const Scenario& run, Role role, unsigned int worker) {
  switch (role) {
    case Role::Worker:
      return run.refusesWorker(worker);
    case Role::Results:
      return run.refusesResults;
    default:
      return run.refusesReaper;
  }
}

}  // namespace
}  // namespace stress

using stress::census;
using stress::Place;
using stress::Role;
using stress::self;
using stress::Stage;

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*): the linker's names
extern "C" {

void __real__ZN11ApiRunnableC2Ev(ApiRunnable* runnable);
void __real__ZN11ApiRunnableD2Ev(ApiRunnable* runnable);
void __real__ZN11ApiRunnable5leaveEv(ApiRunnable* runnable);
void __real__ZN11ApiRunnable19leaveWithoutWaitingEv(ApiRunnable* runnable);
void __real__ZN7CThreadC2Em(CThread* thread, std::size_t stackSize);
void __real__ZN7CThreadD2Ev(CThread* thread);
STATUSCODE __real__ZN7CThread5StartEv(CThread* thread);
STATUSCODE __real__ZN7CThread17WaitForCompletionERjj(CThread* thread, unsigned int* exitCode,
                                                     unsigned int timeoutMs);
void __real__ZN11CManualLock4LockEv(CManualLock* lock);
void __real__ZN11CManualLock6UnlockEv(CManualLock* lock);
STATUSCODE __real__ZN6CTimer10StartTimerEm(CTimer* timer, unsigned long milliseconds);
void __real__ZN17CHeadendSelection14OnTimerExpiredEPvm(void* ptrVal, unsigned long longVal);
CExecutionContext* __real__ZN17CExecutionContext15acquireInstanceE25EXECUTIONCONTEXT_INSTANCE(
    EXECUTIONCONTEXT_INSTANCE instance);
void __real__ZN17CExecutionContext15releaseInstanceEv(CExecutionContext* context);
int __real__Z19startDetachedThreadPFPvS_ES_m(void* (*body)(void*), void* argument,
                                             std::size_t stackSize);
bool __real__ZN14CReserveThread3RunERNS_4BodyE(CReserveThread::Body* body);
int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* limit);

void __wrap__ZN11ApiRunnableC2Ev(ApiRunnable* runnable) {
  census().runnables.make();
  __real__ZN11ApiRunnableC2Ev(runnable);
}

void __wrap__ZN11ApiRunnableD2Ev(ApiRunnable* runnable) {
  __real__ZN11ApiRunnableD2Ev(runnable);
  census().runnables.go();
}

void __wrap__ZN11ApiRunnable5leaveEv(ApiRunnable* runnable) {
  if (self().role == Role::Worker) {
    self().stage->pass(Place::WorkerLeaves);
  }
  __real__ZN11ApiRunnable5leaveEv(runnable);
}

void __wrap__ZN11ApiRunnable19leaveWithoutWaitingEv(ApiRunnable* runnable) {
  if (Stage* const stage = self().stage) {
    stage->pass(Place::TimerLeaves);
  }
  __real__ZN11ApiRunnable19leaveWithoutWaitingEv(runnable);
  stress::enter(nullptr, Role::Timer, 0);
}

void __wrap__ZN7CThreadC2Em(CThread* thread, std::size_t stackSize) {
  census().threadObjects.make();
  __real__ZN7CThreadC2Em(thread, stackSize);
}

void __wrap__ZN7CThreadD2Ev(CThread* thread) {
  __real__ZN7CThreadD2Ev(thread);
  census().threadObjects.go();
}

STATUSCODE __wrap__ZN7CThread5StartEv(CThread* thread) {
  Stage* const stage = self().stage;
  if (stage == nullptr) {
    return __real__ZN7CThread5StartEv(thread);
  }
  if (dynamic_cast<tests::Worker*>(thread) == nullptr) {
    self().nextRole = Role::Results;
    const STATUSCODE status = __real__ZN7CThread5StartEv(thread);
    self().nextRole = Role::Main;
    return status;
  }
  const unsigned int worker = stage->startsAsked.fetch_add(1, std::memory_order_relaxed);
  self().nextRole = Role::Worker;
  self().nextWorker = static_cast<unsigned char>(worker);
  const STATUSCODE status = __real__ZN7CThread5StartEv(thread);
  self().nextRole = Role::Main;
  stage->isStarted[worker % stress::MostHeadends].store(status == 0, std::memory_order_relaxed);
  stage->pass(Place::WorkerStarted);
  return status;
}

STATUSCODE __wrap__ZN7CThread17WaitForCompletionERjj(CThread* thread, unsigned int* exitCode,
                                                     unsigned int timeoutMs) {
  const STATUSCODE status = __real__ZN7CThread17WaitForCompletionERjj(thread, exitCode, timeoutMs);
  if (Stage* const stage = self().stage) {
    stage->pass(Place::WorkerAwaited);
  }
  return status;
}

void __wrap__ZN11CManualLock4LockEv(CManualLock* lock) {
  stress::passLock(lock, Place::OtherLockWanted);
  __real__ZN11CManualLock4LockEv(lock);
  stress::passLock(lock, Place::OtherLockHeld);
}

void __wrap__ZN11CManualLock6UnlockEv(CManualLock* lock) {
  __real__ZN11CManualLock6UnlockEv(lock);
  stress::passLock(lock, Place::OtherLockGiven);
}

STATUSCODE __wrap__ZN6CTimer10StartTimerEm(CTimer* timer, unsigned long milliseconds) {
  const STATUSCODE status = __real__ZN6CTimer10StartTimerEm(timer, milliseconds);
  if (Stage* const stage = self().stage) {
    stage->setArmed(milliseconds);
    stage->pass(Place::TimerArmed);
  }
  return status;
}

void __wrap__ZN17CHeadendSelection14OnTimerExpiredEPvm(void* ptrVal, unsigned long longVal) {
  Stage* const stage = stress::stages().find(ptrVal);
  stress::enter(stage, Role::Timer, 0);
  if (stage != nullptr) {
    stage->reach(stress::TimerIsIn);
    stage->pass(Place::TimerCalled);
  }
  __real__ZN17CHeadendSelection14OnTimerExpiredEPvm(ptrVal, longVal);
  if (stage != nullptr) {
    stage->reach(stress::TimerIsBack);
  }
}

CExecutionContext* __wrap__ZN17CExecutionContext15acquireInstanceE25EXECUTIONCONTEXT_INSTANCE(
    EXECUTIONCONTEXT_INSTANCE instance) {
  CExecutionContext* const context =
      __real__ZN17CExecutionContext15acquireInstanceE25EXECUTIONCONTEXT_INSTANCE(instance);
  if (context != nullptr) {
    census().contexts.make();
  }
  return context;
}

void __wrap__ZN17CExecutionContext15releaseInstanceEv(CExecutionContext* context) {
  __real__ZN17CExecutionContext15releaseInstanceEv(context);
  census().contexts.go();
}

int __wrap__Z19startDetachedThreadPFPvS_ES_m(void* (*body)(void*), void* argument,
                                             std::size_t stackSize) {
  const stress::Self me = self();
  if (me.stage == nullptr) {
    return __real__Z19startDetachedThreadPFPvS_ES_m(body, argument, stackSize);
  }
  me.stage->pass(Place::ThreadWanted);
  const Role role = stress::roleWanted();
  if (stress::isRefused(me.stage->scenario, role, me.nextWorker)) {
    return EAGAIN;
  }
  auto beginning = std::make_unique<stress::Beginning>(
      stress::Beginning{body, argument, me.stage, role, me.nextWorker});
  census().threads.fetch_add(1, std::memory_order_relaxed);
  const int error =
      __real__Z19startDetachedThreadPFPvS_ES_m(stress::beginThread, beginning.get(), stackSize);
  if (error == 0) {
    static_cast<void>(beginning.release());  // the thread's own now
  } else {
    census().threads.fetch_sub(1, std::memory_order_relaxed);
  }
  me.stage->pass(Place::ThreadMade);
  return error;
}

bool __wrap__ZN14CReserveThread3RunERNS_4BodyE(CReserveThread::Body* body) {
  Stage* const stage = self().stage;
  if (stage == nullptr) {
    return __real__ZN14CReserveThread3RunERNS_4BodyE(body);
  }
  auto beginning = std::make_unique<stress::Beginning>(
      stress::Beginning{body->function, body->argument, stage, stress::roleWanted(), 0});
  body->function = stress::beginThread;
  body->argument = beginning.get();
  census().threads.fetch_add(1, std::memory_order_relaxed);
  const bool runs = __real__ZN14CReserveThread3RunERNS_4BodyE(body);
  if (runs) {
    static_cast<void>(beginning.release());  // the reserve thread's own now
  } else {
    census().threads.fetch_sub(1, std::memory_order_relaxed);
  }
  return runs;
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* limit) {
  constexpr long Second = 1000000000;
  timespec soon{};
  clock_gettime(clock, &soon);
  soon.tv_nsec += stress::LongestSleepNs;
  if (soon.tv_nsec >= Second) {
    soon.tv_nsec -= Second;
    ++soon.tv_sec;
  }
  const bool isSooner =
      std::pair(soon.tv_sec, soon.tv_nsec) < std::pair(limit->tv_sec, limit->tv_nsec);
  return __real_pthread_cond_clockwait(condition, mutex, clock, isSooner ? &soon : limit);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
