#pragma once

#include <chrono>
#include <cstdint>
#include <string>

/// Time since the machine's start, including suspended time: CLOCK_BOOTTIME of clock_gettime(2).
struct BootClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<BootClock>;
  static constexpr bool is_steady = true;

  static time_point now() noexcept;
};

/// Receives the kernel's messages when links, addresses or routes of both families change
/// (rtnetlink(7)). Used by one thread.
class NetworkChanges {
 public:
  /// How a wait ended.
  enum class Heard { Change, Nothing, Closed };

  /// @param output a descriptor; a wait also ends when its reader is gone. -1 for none.
  explicit NetworkChanges(int output = -1);
  ~NetworkChanges();
  NetworkChanges(const NetworkChanges&) = delete;
  NetworkChanges& operator=(const NetworkChanges&) = delete;

  /// Why changes cannot be observed; empty if they can. Otherwise waits last their whole time.
  const std::string& problem() const { return m_problem; }

  /// Saves the present state of the network for later comparison.
  void remember();

  /// Waits until the network differs from the remembered state. A change comes in many steps: the
  /// wait ends after one second without messages, or after ten seconds. Messages that leave the
  /// state unchanged (a prolonged address, a search for radio stations) end no wait.
  /// @param longest includes suspended time.
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
