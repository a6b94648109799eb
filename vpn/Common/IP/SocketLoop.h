#pragma once

#include <semaphore.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

/// Lets threads wait for their sockets, one of them for all: it asks the system and does what there
/// is to do for the others, which sleep until their wait is over. So a socket that has something
/// costs no change of threads, and there is no thread that has to be had. Any thread may call it.
class SocketLoop {
 public:
  using Clock = std::chrono::steady_clock;

  /// One thread's wait. While it lasts, the object belongs to the thread that waits for all.
  class Wait {
   public:
    Wait();
    virtual ~Wait();
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    /// Adds a socket. Each has one `isKnown` over all its waits, false at first; it is set here,
    /// before the leader may look at it.
    void add(int socket, bool& isKnown);
    void forget() { m_count = 0; }

   protected:
    /// Something has happened to a socket (EPOLL*). Must not block, nor throw.
    virtual void noteEvents(int socket, std::uint32_t events) noexcept = 0;
    /// Looks whether the wait is over: after events, at the time that the last look has named, and
    /// when a task was cancelled. Must not block, nor throw.
    /// @param next receives when to look again.
    virtual bool isOver(Clock::time_point now, Clock::time_point& next) noexcept = 0;

   private:
    friend class SocketLoop;
    static constexpr std::size_t MostSockets = 4;

    struct Socket {
      int descriptor;
      bool isKnown;
    };
    std::array<Socket, MostSockets> m_sockets{};
    std::size_t m_count = 0;
    std::uint32_t m_serial = 0;
    std::size_t m_place = 0;  // among those that wait
    Clock::time_point m_next;
    Wait* m_following = nullptr;
    sem_t m_turn;
    std::atomic<int> m_error{0};
    bool m_isOver = false;
    bool m_leads = false;  // waits for all from now on
  };

  SocketLoop() = delete;

  /// Opens its two descriptors, which stay open, if that can be done.
  static void prepare();

  /// Waits. @param next when to look first. @return 0, or the errno value of why it could not.
  static int wait(Wait& wait, Clock::time_point next);

  /// Has all waits looked at. Never blocks.
  static void lookAtAll() noexcept;

 private:
  struct All;
  static All& all() noexcept;
};
