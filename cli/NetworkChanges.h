#pragma once

#include <chrono>
#include <string>

/// Hears from the kernel when the machine's network changes: links, addresses and routes, of both
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

  /// Waits for a change. A network that changes does so in many steps; the wait ends when it has
  /// been at rest for a second, or has not come to rest within ten.
  Heard wait(std::chrono::milliseconds longest);

 private:
  bool readable(std::chrono::milliseconds longest) const;
  bool drain() const;

  int m_socket;
  std::string m_problem;
};
