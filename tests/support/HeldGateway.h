#pragma once

#include <atomic>
#include <string>

#include "tests/support/ScriptedServer.h"

namespace tests {

/// A gateway in this process that answers as many requests as it is told to, each on a connection
/// of its own, and lets the others wait. Operations may be called from any thread.
class HeldGateway {
 public:
  /// @param answers how many requests are answered from the start.
  explicit HeldGateway(unsigned int answers = 0);
  ~HeldGateway();

  std::string Address() const;
  /// Waits until a request waits for its answer.
  bool WaitUntilAsked();
  /// So many of all requests are answered from now on, those that wait and were answered included.
  void Answer(unsigned int requests) { m_answers = requests; }
  /// All are.
  void Release();

 private:
  void Serve(Connection& connection);

  std::atomic<unsigned int> m_answers;
  std::atomic<unsigned int> m_requests{0};
  std::atomic<unsigned int> m_waiting{0};
  ScriptedServer m_server;  // last, because its threads use the others
};

}  // namespace tests
