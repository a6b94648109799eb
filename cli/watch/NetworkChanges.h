#pragma once

#include <chrono>
#include <cstdint>
#include <string>

/// Time since the machine was started, suspended or not: clock_gettime(2), CLOCK_BOOTTIME.
struct BootClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<BootClock>;
  static constexpr bool is_steady = true;

  static time_point now() noexcept;
};

/// Hears from the kernel when the machine's network changes: links, addresses and routes of both
/// families (rtnetlink(7)). Used by one thread.
class NetworkChanges {
 public:
  /// What a wait ended with.
  enum class Heard { Change, Nothing, Closed };

  /// @param output a descriptor whose reader is waited for to go, too; -1 for none.
  explicit NetworkChanges(int output = -1);
  ~NetworkChanges();
  NetworkChanges(const NetworkChanges&) = delete;
  NetworkChanges& operator=(const NetworkChanges&) = delete;

  /// Why no change can be heard; empty if it can. Waits then last their whole time.
  const std::string& problem() const { return m_problem; }

  /// Takes the network as it is now for the one that changes are told against.
  void remember();

  /// Waits until the network is another one than the one remembered. One that changes does so in
  /// many steps; the wait ends when nothing has been heard for a second, or after ten. Messages
  /// that leave it as it was (an address whose time is prolonged, a search for radio stations) end
  /// no wait.
  /// @param longest a time that goes on while the machine is suspended.
  /// @return Closed when nobody reads the output any more.
  Heard wait(std::chrono::milliseconds longest);

 private:
  static std::uint64_t stateOfNetwork();
  void waitForRest() const;
  void drain() const;

  const int m_output;
  const int m_socket;
  std::string m_problem;
  std::uint64_t m_remembered = 0;
};
