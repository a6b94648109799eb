// Jobs on a thread that lives as long as there are any. What thread and writer share is held by
// both, so that neither has to wait for the other; a child of fork, which has the one and not the
// other, leaves it alone.

#include "vpn/Api/AHS/CacheWriter.h"

#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <exception>
#include <utility>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/Locks.h"

namespace {

/// Threads of all writers of the process. More than one are there only when a disk does not answer
/// and the writer that waited for it has been given up; the next ones would wait as well.
constexpr unsigned int MostThreads = 4;

/// Belongs to the process whose id it bears, with the number of its threads in the lower half: a
/// child of fork has none of them. Never destroyed.
constinit std::atomic<unsigned long> threads{0};

constexpr unsigned int IdShift = 32;
constexpr unsigned long CountMask = (1UL << IdShift) - 1;

unsigned long noThreads() { return static_cast<unsigned long>(getpid()) << IdShift; }

bool countThread() {
  unsigned long before = threads.load();
  unsigned long after = 0;
  do {
    const unsigned long own = (before & ~CountMask) == noThreads() ? before : noThreads();
    if ((own & CountMask) == MostThreads) {
      return false;
    }
    after = own + 1;
  } while (!threads.compare_exchange_weak(before, after));
  return true;
}

void uncountThread() { threads.fetch_sub(1); }

CCacheWriter::Outcome failureOf(unsigned long number) noexcept {
  CCacheWriter::Outcome outcome;
  outcome.number = number;
  outcome.status = HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
  return outcome;
}

}  // namespace

struct CCacheWriter::State {
  /// Does jobs until there are none.
  static void* serve(void* argument);

  bool takeJob(Job& job, unsigned long& number);
  void end(Outcome&& outcome);

  const pid_t process = getpid();
  CMonitor lock;  // notified of a job's end
  Job next AHS_GUARDED_BY(lock);
  unsigned long nextNumber AHS_GUARDED_BY(lock) = 0;  // 0: there is none to come
  unsigned long lastNumber AHS_GUARDED_BY(lock) = 0;  // of those handed over
  unsigned long endedNumber AHS_GUARDED_BY(lock) = 0;
  Outcome outcome AHS_GUARDED_BY(lock);
  bool isTaken AHS_GUARDED_BY(lock) = true;
  bool hasThread AHS_GUARDED_BY(lock) = false;
};

bool CCacheWriter::State::takeJob(Job& job, unsigned long& number) {
  const CAutoLockT<CMonitor> guard(lock);
  if (nextNumber == 0) {
    // Its writer has gone, and has taken the job back.
    hasThread = false;
    uncountThread();
    return false;
  }
  job.swap(next);
  next = nullptr;
  number = std::exchange(nextNumber, 0);
  return true;
}

void CCacheWriter::State::end(Outcome&& ended) {
  const CAutoLockT<CMonitor> guard(lock);
  endedNumber = ended.number;
  outcome = std::move(ended);
  isTaken = false;
  lock.NotifyAll();
}

void* CCacheWriter::State::serve(void* argument) {
  const std::unique_ptr<std::shared_ptr<State>> held(
      static_cast<std::shared_ptr<State>*>(argument));
  State& state = **held;
  pthread_setname_np(pthread_self(), "ahs");
  Job job;
  unsigned long number = 0;
  while (state.takeJob(job, number)) {
    Outcome outcome = failureOf(number);
    try {
      outcome = job();
      outcome.number = number;
    } catch (const std::exception&) {
      outcome = failureOf(number);
    }
    job = nullptr;  // what it holds goes before anybody is told that it has ended
    state.end(std::move(outcome));
  }
  return nullptr;
}

CCacheWriter::CCacheWriter() : m_state(new State) {}

CCacheWriter::~CCacheWriter() {
  if (isInherited()) {
    return;  // the lock may be one of the parent's threads'
  }
  const CAutoLockT<CMonitor> guard(m_state->lock);
  m_state->next = nullptr;
  m_state->nextNumber = 0;
}

bool CCacheWriter::isInherited() const { return m_state->process != getpid(); }

bool CCacheWriter::Submit(unsigned long number, Job job) {
  if (isInherited()) {
    m_state.reset(new State);
  }
  // Made before anything is changed; the thread's, once there is one.
  auto handedOver = std::make_unique<std::shared_ptr<State>>(m_state);
  State& state = *m_state;
  const CAutoLockT<CMonitor> guard(state.lock);
  if (!state.hasThread) {
    if (!countThread()) {
      return false;
    }
    if (startDetachedThread(State::serve, handedOver.get(), CThread::DefaultStackSize) != 0) {
      uncountThread();
      return false;
    }
    static_cast<void>(handedOver.release());
    state.hasThread = true;
  }
  state.next.swap(job);
  state.nextNumber = number;
  state.lastNumber = number;
  return true;
}

bool CCacheWriter::IsBusy() const {
  if (isInherited()) {
    return false;
  }
  const CAutoLockT<CMonitor> guard(m_state->lock);
  return m_state->endedNumber < m_state->lastNumber;
}

CCacheWriter::Ticket CCacheWriter::Last() const {
  Ticket ticket;
  if (isInherited()) {
    return ticket;
  }
  const CAutoLockT<CMonitor> guard(m_state->lock);
  ticket.m_state = m_state;
  ticket.m_number = m_state->lastNumber;
  return ticket;
}

bool CCacheWriter::Take(Outcome& outcome) {
  if (isInherited()) {
    return false;
  }
  const CAutoLockT<CMonitor> guard(m_state->lock);
  if (std::exchange(m_state->isTaken, true)) {
    return false;
  }
  outcome = std::move(m_state->outcome);
  return true;
}

bool CCacheWriter::Ticket::WaitUntil(std::chrono::steady_clock::time_point deadline) const {
  if (m_state == nullptr) {
    return true;
  }
  State& state = *m_state;
  const CAutoLockT<CMonitor> guard(state.lock);
  while (state.endedNumber < m_number && std::chrono::steady_clock::now() < deadline) {
    state.lock.WaitUntil(deadline);
  }
  return state.endedNumber >= m_number;
}
