#pragma once

#include <chrono>
#include <string>

/// Hears from the kernel when the machine's network changes: links, addresses and routes of both
/// families (rtnetlink(7)). Used by one thread.
class NetworkChanges {
 public:
  /// What a wait ended with.
  enum class Heard { Change, Nothing };

  NetworkChanges();
  ~NetworkChanges();
  NetworkChanges(const NetworkChanges&) = delete;
  NetworkChanges& operator=(const NetworkChanges&) = delete;

  /// Why nothing can be heard; empty if it can. Waits then last their whole time.
  const std::string& problem() const { return m_problem; }

  /// Takes the network as it is now for the one that changes are told against.
  void remember();

  /// Waits until the network is another one than the one remembered. One that changes does so in
  /// many steps; the wait ends when nothing has been heard for a second, or after ten. Messages
  /// that leave it as it was (an address whose time is prolonged, a search for radio stations) end
  /// no wait.
  Heard wait(std::chrono::milliseconds longest);

 private:
  bool readable(std::chrono::milliseconds longest) const;
  void drain() const;

  int m_socket;
  std::string m_problem;
  std::string m_remembered;
};
