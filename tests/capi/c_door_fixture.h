#pragma once

#include <ahs/ahs.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/ScriptedServer.h"

namespace tests {

/// A gateway in this process that answers as many requests as it is told to, each on a connection
/// of its own, lets the others wait, and knows who came and who has gone. Any thread may use it.
class Gateway {
 public:
  struct Settings {
    unsigned int answers = UINT_MAX;                ///< requests that are answered from the start
    std::vector<std::chrono::milliseconds> delays;  ///< of the first answers
    std::string where = "127.0.0.1";
    std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  };

  Gateway();
  explicit Gateway(Settings settings);
  /// One that answers nothing until it is told to.
  static Settings silent();
  ~Gateway();

  std::string Address() const;
  std::string Port() const { return std::to_string(m_server.port()); }
  /// So many of all requests are answered from now on, those that wait and were answered included.
  void Answer(unsigned int requests) { m_answers = requests; }
  bool WaitUntilAsked(unsigned int requests = 1);
  /// Waits until a client has closed its connection while its request waited.
  bool WaitUntilLeft(unsigned int clients = 1);
  /// How many connections were made before this call, whether or not their clients said a word.
  std::size_t CountConnections();
  /// The clients' addresses.
  std::vector<std::string> Peers() const;

 private:
  void Serve(Connection& connection);

  const Settings m_settings;
  std::atomic<unsigned int> m_answers;
  std::atomic<unsigned int> m_asked{0};
  std::atomic<unsigned int> m_left{0};
  mutable std::mutex m_mutex;
  std::vector<std::pair<std::string, unsigned int>> m_peers;  // address and port, not the counter's
  std::vector<unsigned int> m_counters;                       // ports
  ScriptedServer m_server;  // last, because its threads use the others
};

/// What a result says of one headend.
struct Candidate {
  std::string name;
  std::string headend;
  std::string address;
  std::uint32_t metric = 0;
  std::uint32_t outcome = 0;
  std::vector<std::uint32_t> samples;
};

/// A result, copied.
struct Result {
  ahs_status status = UINT32_MAX;
  std::uint32_t reason = UINT32_MAX;
  std::vector<std::string> headends;
  std::string realm;
  std::vector<Candidate> candidates;
  bool fromCache = false;
  std::int64_t cacheAge = 0;

  /// That of a name; one without a name when there is none.
  Candidate Of(const std::string& name) const;
};

/// What a client is told of one probe, copied.
struct Probe {
  std::string name;
  std::string headend;
  std::string address;
  bool ended = false;
  std::uint32_t outcome = 0;
  std::uint32_t rttMs = 0;
  std::uint32_t probesStarted = 0;
  std::uint32_t probesEnded = 0;
  std::uint32_t headendsAnswered = 0;
  std::uint32_t headendCount = 0;
  bool afterResult = false;  ///< it was told after a result
};

/// A client of one selection that remembers what it is told and then reacts as the test wants it
/// to. The reactions are set before the selection is started.
class Client {
 public:
  std::function<void(ahs_selection*)> atResult;
  std::function<void(const ahs_probe&, ahs_selection*)> atProbe;
  std::function<int(int, ahs_selection*)> atSocket;
  /// Set by the library, before anything is told.
  ahs_selection* selection = nullptr;

  static void OnResult(const ahs_result* result, void* context);
  static void OnProgress(const ahs_probe* probe, void* context);
  static int OnSocket(int socket, void* context);

  bool WaitUntilTold();
  std::vector<Result> Results() const;
  std::vector<Probe> Probes() const;
  /// The status of the one result; 1 when there was none, 2 when there were several.
  ahs_status Status() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<Result> m_results;
  std::vector<Probe> m_probes;
};

using Preferences = std::map<std::string, std::string>;

/// A library that is up for the addresses of a test, with limits that no test waits for, one probe
/// a headend and no proxy.
class Library {
 public:
  using Change = std::function<void(ahs_options&)>;

  explicit Library(const std::vector<std::string>& addresses, const Preferences& preferences = {},
                   const Change& change = {});
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  ahs_library* Get() const { return m_library; }
  ahs_status Status() const { return m_status; }
  void Stop();

 private:
  ahs_library* m_library = nullptr;
  ahs_status m_status = AHS_SUCCESS;
};

/// A selection of a client, which tells it everything: a reconnection, so that nothing but the
/// gateways is probed, without a last headend.
class Selection {
 public:
  using Change = std::function<void(ahs_request&)>;

  /// @throws std::runtime_error when there is none.
  Selection(const Library& library, Client& client, const Change& change = {});
  ~Selection();
  Selection(const Selection&) = delete;
  Selection& operator=(const Selection&) = delete;

  ahs_selection* Get() const { return m_selection; }
  /// The result; a failure of the test when there is none within `Limit`.
  Result Wait() const;
  /// Gives it back; the destructor does not then.
  ahs_status Free();

 private:
  ahs_selection* m_selection = nullptr;
};

/// One selection, to its end.
Result selectOnce(const Library& library, const Selection::Change& change = {});

/// A log, as it is told to a client.
class Log {
 public:
  struct Message {
    std::uint32_t level;
    std::string text;
    std::string function;
    std::uint64_t lost;
  };

  static void OnLog(const ahs_log_message* message, void* context);
  /// Sets it in a library's options.
  void Hear(ahs_options& options);
  std::vector<Message> All() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<Message> m_messages;
};

/// Something that one thread waits for and another says.
class Signal {
 public:
  void Give();
  /// @return whether it was given within `Limit`.
  bool Wait();

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_given = false;
};

}  // namespace tests
