#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tests {

struct IssuedCertificate;

/// What a TLS server needs. May be shared by servers and connections of several threads.
class TlsServerContext {
 public:
  struct Settings {
    bool demandClientCertificate = false;
    /// Protocol versions as OpenSSL numbers them (TLS1_2_VERSION); 0 for no limit.
    int minVersion = 0;
    int maxVersion = 0;
  };

  explicit TlsServerContext(const IssuedCertificate& certificate);
  TlsServerContext(const IssuedCertificate& certificate, const Settings& settings);

  void* native() const { return m_context.get(); }

 private:
  std::shared_ptr<void> m_context;
};

/// One accepted connection, in the hands of a script. Used by the script's thread alone. Every
/// operation ends soon after the server is being stopped, and none raises SIGPIPE.
class Connection {
 public:
  explicit Connection(int socket, const std::atomic<bool>& stopping);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Does the server's side of a TLS handshake; what follows is encrypted.
  bool startTls(const TlsServerContext& context);

  /// Reads up to and with the empty line that ends a request's head; what has come if the peer
  /// closes before.
  std::string readHead();

  /// Waits for what comes first, and reads what is there of it.
  std::string readSome();

  /// Sends all of it; false if the peer is gone.
  bool send(std::string_view text);

  /// Tells the peer to change its keys, which is no answer (RFC 8446, section 4.6.3); after
  /// `startTls`, under TLS 1.3. False if the peer is gone.
  bool updateKeys();

  /// Waits, not longer than until the server is being stopped.
  void wait(std::chrono::milliseconds time) const;

  /// Waits until the peer closes, reading and dropping what it sends.
  void waitForPeer();

  /// The address of the peer.
  std::string peer() const;

  /// Whether the peer has closed, and all that it sent was read.
  bool isPeerGone() const;

  /// Reads and drops what the peer has sent, so that closing is no reset.
  void drain();

  /// Makes the end of the script a reset of the connection.
  void resetAtEnd();

  /// Carries bytes both ways between this connection and another server of this machine until one
  /// side closes: what a proxy does once a tunnel is open.
  void tunnelTo(unsigned short port);

 private:
  long receive(char* buffer, std::size_t size);
  bool readable() const;

  const int m_socket;
  const std::atomic<bool>& m_stopping;
  std::shared_ptr<void> m_tls;
};

/// A TCP server on a loopback address whose answers a test writes. Each connection is served by a
/// thread of its own that runs the script and then closes.
class ScriptedServer {
 public:
  using Script = std::function<void(Connection&)>;

  /// Listens at once, on a free port if `port` is 0. Throws std::runtime_error if it cannot.
  explicit ScriptedServer(Script script, const std::string& address = "127.0.0.1",
                          unsigned short port = 0);
  /// Ends all connections and waits for their threads.
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  unsigned short port() const { return m_port; }

  /// How many connections have been accepted so far.
  unsigned int accepted() const { return m_accepted; }

 private:
  void acceptLoop();

  const Script m_script;
  int m_listener = -1;
  unsigned short m_port = 0;
  std::atomic<bool> m_stopping{false};
  std::atomic<unsigned int> m_accepted{0};
  std::vector<std::thread> m_connections;  // touched by the accepting thread until it has ended
  std::thread m_acceptor;
};

/// Remembers the requests that a script has read, for the test to look at.
class RequestLog {
 public:
  void add(const std::string& request);
  std::vector<std::string> all() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_requests;
};

/// A script that answers each request of the connection with `answer` until the client closes.
ScriptedServer::Script answering(std::string answer, RequestLog* log = nullptr);

/// The same over TLS. A failed handshake ends the script.
ScriptedServer::Script answeringOverTls(TlsServerContext context, std::string answer,
                                        RequestLog* log = nullptr);

/// A port that drops every attempt to connect without a word, as a dead address does.
class SilentPort {
 public:
  explicit SilentPort(const std::string& address = "127.0.0.1", unsigned short port = 0);
  ~SilentPort();
  SilentPort(const SilentPort&) = delete;
  SilentPort& operator=(const SilentPort&) = delete;
  unsigned short port() const { return m_port; }

 private:
  int m_listener = -1;
  unsigned short m_port = 0;
  std::vector<int> m_fillers;
};

}  // namespace tests
