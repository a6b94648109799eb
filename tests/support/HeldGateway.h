#pragma once

#include <atomic>
#include <chrono>
#include <climits>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/ScriptedServer.h"

namespace tests {

/// A gateway in this process that answers as many requests as it is told to, each on a connection
/// of its own, lets the others wait, and knows who came and who has gone. Operations may be called
/// from any thread.
class HeldGateway {
 public:
  static constexpr unsigned int All = UINT_MAX;

  struct Settings {
    unsigned int answers = All;          ///< how many requests are answered from the start
    std::chrono::milliseconds delay{0};  ///< before each answer
    std::string where = "127.0.0.1";
    std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  };

  /// @param answers how many requests are answered from the start.
  explicit HeldGateway(unsigned int answers = 0) : HeldGateway(Settings{.answers = answers}) {}
  explicit HeldGateway(Settings settings);
  ~HeldGateway() { Release(); }

  std::string Address() const;
  /// Waits until so many requests came; without a number, until one waits for its answer.
  bool WaitUntilAsked(unsigned int requests = 0);
  /// Waits until clients have closed their connections while their requests waited; not as long as
  /// a probe takes to end by itself.
  bool WaitUntilLeft(unsigned int clients = 1);
  /// So many of all requests are answered from now on, those that wait and were answered included.
  void Answer(unsigned int requests) { m_answers = requests; }
  /// All are.
  void Release() { Answer(All); }
  /// How many connections were made before this call, whether or not their clients said a word.
  std::size_t CountConnections();
  /// The addresses of those who asked.
  std::vector<std::string> Peers() const;

 private:
  void Serve(Connection& connection);

  const Settings m_settings;
  std::atomic<unsigned int> m_answers;
  std::atomic<unsigned int> m_asked{0};
  std::atomic<unsigned int> m_left{0};
  std::atomic<unsigned int> m_counts{0};
  mutable std::mutex m_mutex;
  std::vector<std::string> m_peers;
  ScriptedServer m_server;  // last, because its threads use the others
};

}  // namespace tests
