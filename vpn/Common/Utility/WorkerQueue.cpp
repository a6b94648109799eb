// Workers that wait are bodies without a thread. The first worker of a crowd counts the descriptors
// and the memory that are left; each one takes its share, most of it while it may look a name up.
// One worker always runs, whatever is left.

#include "vpn/Common/Utility/WorkerQueue.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <new>
#include <utility>

#include "vpn/Common/Utility/Descriptors.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/include/Locks.h"

namespace {

using Body = CWorkerQueue::Body;

/// What a worker may have open: a pair of libcurl's, unless there are few; while it looks a name up
/// another pair and two of glibc's; later its socket, and perhaps one more.
struct Needs {
  long toLookUp = 6;
  long later = 4;
};
constexpr Needs NeedsOfFew{4, 2};

/// How many workers there is memory for. Where address space is limited, stacks must not take all
/// of it: the allocator needs some for each thread.
long mostByMemory() noexcept {
  constexpr long BytesOfAWorker = 4L * 1024 * 1024;
  rlimit space{};
  if (getrlimit(RLIMIT_AS, &space) != 0 || space.rlim_cur > LONG_MAX) {
    return LONG_MAX;
  }
  long pages = 0;
  if (FILE* const sizes = fopen("/proc/self/statm", "re"); sizes != nullptr) {
    std::array<char, 32> text{};  // the first number counts all pages
    pages =
        fgets(text.data(), text.size(), sizes) != nullptr ? strtol(text.data(), nullptr, 10) : 0;
    fclose(sizes);
  }
  return (static_cast<long>(space.rlim_cur) - pages * sysconf(_SC_PAGESIZE)) / BytesOfAWorker;
}

struct Queue {
  CMonitor lock;
  long running AHS_GUARDED_BY(lock) = 0;
  long most AHS_GUARDED_BY(lock) = 0;
  Needs needs AHS_GUARDED_BY(lock);
  long room AHS_GUARDED_BY(lock) = 0;  // descriptors that no worker has taken
  Body* first AHS_GUARDED_BY(lock) = nullptr;
  Body** end AHS_GUARDED_BY(lock) = &first;

  /// Given back without the lock, which is held while a thread is created. Then somebody who waits
  /// is seen: first the one is written and then the other one read, here as there.
  std::atomic<long> returned{0};
  std::atomic<bool> someWait{false};

  bool hasRoom() AHS_REQUIRES(lock) {
    room += returned.exchange(0);
    return (room >= needs.toLookUp && running < most) || running == 0;
  }

  void append(Body& body) AHS_REQUIRES(lock) {
    body.next = nullptr;
    body.hasWaited = false;
    *end = &body;
    end = &body.next;
  }

  /// Takes the next body and its share. Null if there is none, or no room.
  Body* take() AHS_REQUIRES(lock) {
    Body* const body = first;
    if (body == nullptr || !hasRoom()) {
      return nullptr;
    }
    first = body->next;
    end = first == nullptr ? &first : end;
    ++running;
    room -= needs.toLookUp;
    body->toLookUp = needs.toLookUp;
    body->later = needs.later;
    return body;
  }

  void giveBack(long taken) AHS_REQUIRES(lock) {
    --running;
    room += taken;
  }

  /// Undoes `take`.
  void putBack(Body& body) AHS_REQUIRES(lock) {
    giveBack(needs.toLookUp);
    body.next = first;
    end = first == nullptr ? &body.next : end;
    first = &body;
  }
};

Queue& queue() noexcept {
  // In static storage: there may be no memory. Never destroyed.
  alignas(Queue) static std::byte storage[sizeof(Queue)];
  static Queue& instance = *new (storage) Queue;
  return instance;
}

/// What this thread's body has taken; 0 on threads that are no workers'.
thread_local long share = 0;
thread_local long later = 0;  // of that, what it keeps once it looks no name up

void hold(const Body& body) {
  share = body.toLookUp;
  later = body.later;
}

/// Gives this thread's share back. @return the body that this thread has to call next, if any.
Body* next() noexcept {
  Queue& all = queue();
  const CAutoLockT<CMonitor> guard(all.lock);
  all.giveBack(share);
  Body* const body = all.take();
  share = later = 0;
  if (body != nullptr) {
    hold(*body);
  }
  return body;
}

void callAll(Body* body) {
  for (; body != nullptr; body = next()) {
    body->function(body->argument);  // the body's storage may go with the call
  }
}

void* serve(void* body);

/// Goes on with what waits when a body ends its thread, as pthread_exit(3) does.
class Succession {
 public:
  Succession() = default;
  ~Succession() {
    if (m_hasEnded) {
      return;
    }
    if (Body* const body = next();
        body != nullptr && startDetachedThread(serve, body, DefaultStackSize) != 0) {
      callAll(body);
    }
  }
  Succession(const Succession&) = delete;
  Succession& operator=(const Succession&) = delete;

  void end() { m_hasEnded = true; }

 private:
  bool m_hasEnded = false;
};

void* serve(void* body) {
  hold(*static_cast<Body*>(body));
  Succession succession;
  callAll(static_cast<Body*>(body));
  succession.end();
  return nullptr;
}

/// Starts threads for the bodies that there is room for. Under the lock, so that nobody relies on a
/// worker whose thread does not come about.
/// @return 0, or the errno value of why there was no thread for one.
int startAll(Queue& all) noexcept AHS_REQUIRES(all.lock) {
  for (;;) {
    Body* body = all.take();
    if (body == nullptr && all.first != nullptr) {
      all.someWait = true;
      body = all.take();  // what was given back before that is seen here
    }
    if (body == nullptr) {
      all.someWait = all.first != nullptr;
      return 0;
    }
    if (const int error = startDetachedThread(serve, body, DefaultStackSize); error != 0) {
      all.putBack(*body);
      all.someWait = true;
      return error;
    }
  }
}

}  // namespace

int CWorkerQueue::run(Body& body) noexcept {
  Queue& all = queue();
  const CAutoLockT<CMonitor> guard(all.lock);
  if (all.running == 0) {
    all.needs = Descriptors::areFew() ? NeedsOfFew : Needs();
    all.room = Descriptors::left();
    all.returned = 0;
    all.most = mostByMemory();
  }
  all.append(body);
  const int error = startAll(all);
  if (all.end == &body.next) {
    body.hasWaited = true;  // it is the last one in the queue
  }
  if (error == 0 || all.running != 0) {
    return 0;
  }
  all.take();  // nothing else waits where nobody runs
  all.giveBack(all.needs.toLookUp);
  return error;
}

void CWorkerQueue::needFew() noexcept {
  if (share == later) {
    return;
  }
  Queue& all = queue();
  all.returned += std::exchange(share, later) - later;
  if (all.someWait) {
    const CAutoLockT<CMonitor> guard(all.lock);
    static_cast<void>(startAll(all));
  }
}

Shortage CWorkerQueue::waitsFor() noexcept {
  Queue& all = queue();
  const CAutoLockT<CMonitor> guard(all.lock);
  return all.first == nullptr      ? Shortage::None
         : all.hasRoom()           ? Shortage::Threads
         : all.running >= all.most ? Shortage::Memory
                                   : Shortage::Descriptors;
}
