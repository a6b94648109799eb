// One epoll for all threads that wait. The first one leads: it waits for all and takes what is
// ready. When its own wait is over, another one that still waits goes on. What only the leader uses
// has no lock: it passes on with the lead, which a semaphore hands over.

#include "vpn/Common/IP/SocketLoop.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>
#include <vector>

#include "vpn/include/Locks.h"

namespace {

using Clock = SocketLoop::Clock;

constexpr Clock::time_point Awake = Clock::time_point::min();
constexpr std::size_t MostEvents = 128;
constexpr std::chrono::milliseconds LongestSleep = std::chrono::hours(1);

/// A thread that is ended in here would leave the others without a leader.
class NotCancelled {
 public:
  NotCancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
  ~NotCancelled() { pthread_setcancelstate(m_before, &m_before); }
  NotCancelled(const NotCancelled&) = delete;
  NotCancelled& operator=(const NotCancelled&) = delete;

 private:
  int m_before = 0;
};

std::uint64_t eventOf(int socket, std::uint32_t serial) {
  return static_cast<std::uint64_t>(serial) << 32U | static_cast<std::uint32_t>(socket);
}

}  // namespace

struct SocketLoop::All {
  CManualLock lock;
  Wait* first AHS_GUARDED_BY(lock) = nullptr;  // of those that the leader has not seen
  bool isLed AHS_GUARDED_BY(lock) = false;
  Clock::time_point wakesAt AHS_GUARDED_BY(lock) = Awake;  // of the leader
  std::uint32_t lastSerial AHS_GUARDED_BY(lock) = 0;
  /// Atomic without the lock: never closed, as a probe may run at exit.
  std::atomic<int> epoll{-1};
  std::atomic<int> bell{-1};
  std::atomic<bool> mustLook{false};

  // The leader's.
  struct Entry {
    Wait* wait = nullptr;
    std::uint32_t serial = 0;
  };
  std::vector<Entry> sockets;  // by descriptor
  std::vector<Wait*> waits;    // a heap: the one to be looked at first is in front

  int open() AHS_REQUIRES(lock);
  void loseDescriptors(int error) noexcept;
  void ring() const noexcept;
  int watch(Wait& wait) const noexcept;

  // By the leader.
  void turn(Wait& own) noexcept;
  void sleep() noexcept;
  void adopt(Wait* list) noexcept;
  Wait* arrivals(bool sleepsNext) noexcept;
  void noteEvent(std::uint64_t data, std::uint32_t events) noexcept;
  void look(Wait& wait) noexcept;
  void finish(Wait& wait) noexcept;
  void put(Wait& wait, std::size_t place) noexcept;
  void settle(std::size_t place) noexcept;
  void handOver() noexcept;
};

SocketLoop::All& SocketLoop::all() noexcept {
  // In static storage, never destroyed: a probe may run at exit.
  alignas(All) static std::byte storage[sizeof(All)];
  static All& instance = *new (storage) All;
  return instance;
}

SocketLoop::Wait::Wait() : m_turn() { sem_init(&m_turn, 0, 0); }
SocketLoop::Wait::~Wait() { sem_destroy(&m_turn); }

void SocketLoop::Wait::add(int socket, bool& isKnown) {
  m_sockets.at(m_count++) = {socket, std::exchange(isKnown, true)};
}

/// @return 0, or the errno value of what lacks.
int SocketLoop::All::open() {
  if (epoll >= 0) {
    return 0;
  }
  const int made = epoll_create1(EPOLL_CLOEXEC);
  const int rung = made < 0 ? -1 : eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = eventOf(rung, 0);
  if (rung < 0 || epoll_ctl(made, EPOLL_CTL_ADD, rung, &event) != 0) {
    const int error = errno;
    for (const int opened : {made, rung}) {
      if (opened >= 0) {
        ::close(opened);
      }
    }
    return error;
  }
  bell = rung;
  epoll = made;
  return 0;
}

/// A host that closes all descriptors closes these too. Then the next wait opens others.
void SocketLoop::All::loseDescriptors(int error) noexcept {
  if (error == EBADF || error == EINVAL) {
    const CAutoLockT<CManualLock> guard(lock);
    epoll = bell = -1;
  }
}

/// Wakes the leader.
void SocketLoop::All::ring() const noexcept {
  if (const int rung = bell; rung >= 0) {
    eventfd_write(rung, 1);
  }
}

/// Edges only: what happens to a socket is told once.
int SocketLoop::All::watch(Wait& wait) const noexcept {
  for (std::size_t i = 0; i < wait.m_count; ++i) {
    const Wait::Socket& one = wait.m_sockets[i];
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.u64 = eventOf(one.descriptor, wait.m_serial);
    const bool isChanged =
        one.isKnown && epoll_ctl(epoll, EPOLL_CTL_MOD, one.descriptor, &event) == 0;
    if (!isChanged && epoll_ctl(epoll, EPOLL_CTL_ADD, one.descriptor, &event) != 0) {
      return errno;
    }
  }
  return 0;
}

void SocketLoop::prepare() {
  All& shared = all();
  if (shared.epoll < 0) {
    const CAutoLockT<CManualLock> guard(shared.lock);
    static_cast<void>(shared.open());
  }
}

int SocketLoop::wait(Wait& wait, Clock::time_point next) {
  All& shared = all();
  const NotCancelled scope;
  bool leads = false;
  bool mustRing = false;
  {
    const CAutoLockT<CManualLock> guard(shared.lock);
    if (const int error = shared.open(); error != 0) {
      return error;
    }
    wait.m_serial = ++shared.lastSerial;
    wait.m_isOver = wait.m_leads = false;
    wait.m_next = next;
    wait.m_error = 0;
    wait.m_following = std::exchange(shared.first, &wait);
    leads = !std::exchange(shared.isLed, true);
    mustRing = next < shared.wakesAt;
    shared.wakesAt = mustRing ? next : shared.wakesAt;
  }
  // Only now: the leader has to know what an event is for.
  if (const int error = shared.watch(wait); error != 0) {
    wait.m_error = error;
    lookAtAll();
    shared.loseDescriptors(error);
  } else if (mustRing) {
    shared.ring();
  }
  while (!leads && sem_wait(&wait.m_turn) != 0) {
  }
  if (!wait.m_isOver) {
    shared.turn(wait);
  }
  return wait.m_error;
}

void SocketLoop::lookAtAll() noexcept {
  All& shared = all();
  shared.mustLook = true;
  shared.ring();
}

/// Waits for all until its own wait is over.
void SocketLoop::All::turn(Wait& own) noexcept {
  own.m_leads = true;
  while (!own.m_isOver) {
    sleep();
    while (!waits.empty() && waits.front()->m_next <= Clock::now()) {
      look(*waits.front());
    }
  }
  handOver();
}

void SocketLoop::All::sleep() noexcept {
  while (Wait* const list = arrivals(true)) {
    adopt(list);
  }
  if (waits.empty()) {
    return;  // all of them were over at once
  }
  const auto now = Clock::now();
  const auto until = std::clamp(waits.front()->m_next, now, now + LongestSleep);
  std::array<epoll_event, MostEvents> events{};
  const int count = epoll_wait(
      epoll, events.data(), MostEvents,
      static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(until - now).count()));
  const int error = count < 0 && errno != EINTR ? errno : 0;
  adopt(arrivals(false));
  if (mustLook.exchange(false) || error != 0) {
    loseDescriptors(error);
    Wait* list = nullptr;
    for (Wait* const wait : waits) {
      if (error != 0) {
        wait->m_error = error;
      }
      wait->m_following = std::exchange(list, wait);
    }
    while (list != nullptr) {
      look(*std::exchange(list, list->m_following));
    }
  }
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    noteEvent(event.data.u64, event.events);
  }
}

/// Who began to wait meanwhile. @param sleepsNext the leader sleeps next if there is nobody.
SocketLoop::Wait* SocketLoop::All::arrivals(bool sleepsNext) noexcept {
  const CAutoLockT<CManualLock> guard(lock);
  wakesAt = sleepsNext && first == nullptr && !waits.empty() ? waits.front()->m_next : Awake;
  return std::exchange(first, nullptr);
}

void SocketLoop::All::adopt(Wait* list) noexcept {
  while (list != nullptr) {
    Wait& wait = *std::exchange(list, list->m_following);
    try {
      waits.push_back(&wait);
      wait.m_place = waits.size() - 1;
      for (std::size_t i = 0; i < wait.m_count; ++i) {
        const auto socket = static_cast<std::size_t>(wait.m_sockets[i].descriptor);
        sockets.resize(std::max(sockets.size(), socket + 1));
        sockets[socket] = {&wait, wait.m_serial};
      }
      settle(wait.m_place);
    } catch (const std::bad_alloc&) {
      wait.m_error = ENOMEM;
    }
    look(wait);  // its task may have been cancelled before
  }
}

void SocketLoop::All::noteEvent(std::uint64_t data, std::uint32_t events) noexcept {
  const auto socket = static_cast<std::uint32_t>(data);
  const auto serial = static_cast<std::uint32_t>(data >> 32U);
  if (serial == 0) {
    eventfd_t count = 0;
    eventfd_read(bell, &count);
  } else if (socket < sockets.size() && sockets[socket].serial == serial &&
             sockets[socket].wait != nullptr) {
    Wait& wait = *sockets[socket].wait;
    wait.noteEvents(static_cast<int>(socket), events);
    look(wait);
  }
}

void SocketLoop::All::look(Wait& wait) noexcept {
  const auto now = Clock::now();
  if (wait.m_error != 0 || wait.isOver(now, wait.m_next)) {
    finish(wait);
  } else {
    wait.m_next = std::max(wait.m_next, now + std::chrono::microseconds(1));
    settle(wait.m_place);
  }
}

/// Ends a wait, whose thread may destroy it then.
void SocketLoop::All::finish(Wait& wait) noexcept {
  for (std::size_t i = 0; i < wait.m_count; ++i) {
    const auto socket = static_cast<std::size_t>(wait.m_sockets[i].descriptor);
    if (socket < sockets.size() && sockets[socket].wait == &wait) {
      sockets[socket].wait = nullptr;
    }
  }
  if (wait.m_place < waits.size() && waits[wait.m_place] == &wait) {
    Wait& last = *waits.back();
    waits.pop_back();
    if (&last != &wait) {
      put(last, wait.m_place);
      settle(last.m_place);
    }
  }
  wait.m_isOver = true;
  if (!wait.m_leads) {
    sem_post(&wait.m_turn);
  }
}

void SocketLoop::All::put(Wait& wait, std::size_t place) noexcept {
  waits[place] = &wait;
  wait.m_place = place;
}

/// Moves a wait to its place in the heap.
void SocketLoop::All::settle(std::size_t place) noexcept {
  Wait& wait = *waits[place];
  while (place > 0 && wait.m_next < waits[(place - 1) / 2]->m_next) {
    put(*waits[(place - 1) / 2], place);
    place = (place - 1) / 2;
  }
  for (std::size_t child = 2 * place + 1; child < waits.size(); child = 2 * place + 1) {
    child += child + 1 < waits.size() && waits[child + 1]->m_next < waits[child]->m_next ? 1 : 0;
    if (wait.m_next <= waits[child]->m_next) {
      break;
    }
    put(*waits[child], place);
    place = child;
  }
  put(wait, place);
}

/// Somebody who still waits goes on: the last in the heap, who is likely to wait for long.
void SocketLoop::All::handOver() noexcept {
  Wait* heir = nullptr;
  {
    const CAutoLockT<CManualLock> guard(lock);
    heir = waits.empty() ? first : waits.back();
    isLed = heir != nullptr;
  }
  if (heir != nullptr) {
    sem_post(&heir->m_turn);
  }
}
