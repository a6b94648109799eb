#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tests {

struct IssuedCertificate;

/// A TLS server's settings. Servers and connections of several threads may share it.
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

/// One accepted connection. Used by its script's thread alone. Every operation ends soon after the
/// server's stop, and none raises SIGPIPE.
class Connection {
 public:
  explicit Connection(int socket, const std::atomic<bool>& stopping);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Does the server's side of a TLS handshake; later operations are encrypted.
  bool startTls(const TlsServerContext& context);

  /// Reads a request's head with the empty line at its end; less if the peer closes first.
  std::string readHead();

  /// Waits for data, and reads what has arrived.
  std::string readSome();

  /// Sends all of it; false if the peer is gone.
  bool send(std::string_view text);

  /// Tells the peer to change its keys, which is no answer (RFC 8446, section 4.6.3); after
  /// `startTls`, under TLS 1.3. False if the peer is gone.
  bool updateKeys();

  /// Waits, at most until the server's stop.
  void wait(std::chrono::milliseconds time) const;

  /// Waits until the peer closes, reading and dropping what it sends.
  void waitForPeer();

  /// The address of the peer.
  std::string peer() const;

  /// Whether the peer has closed, and all that it sent was read.
  bool isPeerGone() const;

  /// Reads and drops pending input, so that closing does not reset the connection.
  void drain();

  /// Resets the connection at the script's end.
  void resetAtEnd();

  /// Carries bytes between this connection and another server of this machine until one side
  /// closes, like a proxy's open tunnel.
  void tunnelTo(unsigned short port);

 private:
  long receive(char* buffer, std::size_t size);
  bool readable() const;

  const int m_socket;
  const std::atomic<bool>& m_stopping;
  std::shared_ptr<void> m_tls;
};

/// A TCP server with scripted answers on a loopback address. A separate thread serves each
/// connection: it runs the script and closes.
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
  std::vector<std::thread> m_connections;  // used by the accepting thread until its end
  std::thread m_acceptor;
};

/// Records the requests that a script has read.
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

/// Like `answering`, over TLS. A failed handshake ends the script.
ScriptedServer::Script answeringOverTls(TlsServerContext context, std::string answer,
                                        RequestLog* log = nullptr);

/// A port that silently drops every attempt to connect, like an unused address.
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
