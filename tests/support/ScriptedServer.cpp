// Servers for tests, on plain sockets so that a script can make them misbehave in every way.
// Whatever a script does, its thread checks the server's stop flag every few milliseconds, so a
// server ends soon after its test.

#include "tests/support/ScriptedServer.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include "tests/support/LoopbackSockets.h"
#include "tests/support/TestAuthority.h"

namespace tests {

namespace {

// How often a waiting thread checks its stop flag.
constexpr std::chrono::milliseconds kStopCheck(10);

bool waitReadable(int socket) {
  pollfd entry{socket, POLLIN, 0};
  return poll(&entry, 1, static_cast<int>(kStopCheck.count())) > 0;
}

/// Repeats an OpenSSL operation while the socket's time-out is the only reason that it ends.
template <class Operation>
int repeated(const std::shared_ptr<void>& connection, const std::atomic<bool>& stopping,
             const Operation& operation) {
  auto* const tls = static_cast<SSL*>(connection.get());
  int result = 0;
  int error = 0;
  do {
    ERR_clear_error();
    result = operation(tls);
    error = result > 0 ? SSL_ERROR_NONE : SSL_get_error(tls, result);
  } while ((error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) && !stopping);
  ERR_clear_error();
  return result;
}

/// OpenSSL's writes must not end the test program with SIGPIPE.
void blockSigPipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace

TlsServerContext::TlsServerContext(const IssuedCertificate& certificate)
    : TlsServerContext(certificate, Settings()) {}

TlsServerContext::TlsServerContext(const IssuedCertificate& certificate, const Settings& settings)
    : m_context(SSL_CTX_new(TLS_server_method()),
                [](void* context) { SSL_CTX_free(static_cast<SSL_CTX*>(context)); }) {
  auto* context = static_cast<SSL_CTX*>(m_context.get());
  SSL_CTX_use_certificate(context, static_cast<X509*>(certificate.certificate.get()));
  SSL_CTX_use_PrivateKey(context, static_cast<EVP_PKEY*>(certificate.key.get()));
  // Allows offering old versions, which clients must refuse.
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_min_proto_version(context, settings.minVersion);
  SSL_CTX_set_max_proto_version(context, settings.maxVersion);
  if (settings.demandClientCertificate) {
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
}

Connection::Connection(int socket, const std::atomic<bool>& stopping)
    : m_socket(socket), m_stopping(stopping) {}

Connection::~Connection() {
  m_tls.reset();
  close(m_socket);
}

bool Connection::startTls(const TlsServerContext& context) {
  m_tls = std::shared_ptr<void>(SSL_new(static_cast<SSL_CTX*>(context.native())),
                                [](void* tls) { SSL_free(static_cast<SSL*>(tls)); });
  SSL_set_fd(static_cast<SSL*>(m_tls.get()), m_socket);
  return repeated(m_tls, m_stopping, SSL_accept) == 1;
}

bool Connection::updateKeys() {
  return SSL_key_update(static_cast<SSL*>(m_tls.get()), SSL_KEY_UPDATE_NOT_REQUESTED) == 1 &&
         repeated(m_tls, m_stopping, SSL_do_handshake) == 1 && !m_stopping;
}

bool Connection::readable() const {
  if (m_tls && SSL_pending(static_cast<SSL*>(m_tls.get())) > 0) {
    return true;
  }
  while (!m_stopping) {
    if (waitReadable(m_socket)) {
      return true;
    }
  }
  return false;
}

long Connection::receive(char* buffer, std::size_t size) {
  if (!readable()) {
    return 0;
  }
  if (m_tls) {
    return repeated(m_tls, m_stopping,
                    [&](SSL* tls) { return SSL_read(tls, buffer, static_cast<int>(size)); });
  }
  return recv(m_socket, buffer, size, 0);
}

std::string Connection::readHead() {
  // Far above the size of a probe; protects the memory from a faulty client.
  constexpr std::size_t kMaxHead = 64UL * 1024;
  std::string head;
  std::array<char, 4096> buffer{};
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < kMaxHead) {
    const long got = receive(buffer.data(), buffer.size());
    if (got <= 0) {
      break;
    }
    head.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return head;
}

std::string Connection::readSome() {
  std::array<char, 4096> buffer{};
  const long got = receive(buffer.data(), buffer.size());
  return got > 0 ? std::string(buffer.data(), static_cast<std::size_t>(got)) : std::string();
}

bool Connection::send(std::string_view text) {
  if (m_tls && !text.empty()) {
    return repeated(m_tls, m_stopping, [&](SSL* tls) {
             return SSL_write(tls, text.data(), static_cast<int>(text.size()));
           }) > 0;
  }
  while (!text.empty() && !m_stopping) {
    // The kernel's send time-out bounds each call, so a peer that does not read cannot delay
    // stopping.
    const long sent = ::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent <= 0 && errno != EAGAIN) {
      return false;
    }
    text.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
  }
  return text.empty();
}

void Connection::wait(std::chrono::milliseconds time) const {
  const auto end = std::chrono::steady_clock::now() + time;
  while (!m_stopping && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
        kStopCheck, end - std::chrono::steady_clock::now()));
  }
}

void Connection::waitForPeer() {
  std::array<char, 4096> buffer{};
  while (receive(buffer.data(), buffer.size()) > 0) {
  }
}

std::string Connection::peer() const {
  sockaddr_storage where{};
  socklen_t length = sizeof where;
  auto* const address = reinterpret_cast<sockaddr*>(&where);
  std::array<char, NI_MAXHOST> text{};
  getpeername(m_socket, address, &length);
  getnameinfo(address, length, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST);
  return text.data();
}

bool Connection::isPeerGone() const {
  char byte = 0;
  const ssize_t got = recv(m_socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got == 0 || (got < 0 && errno != EAGAIN);
}

void Connection::drain() {
  std::array<char, 4096> buffer{};
  while (recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
  }
}

void Connection::resetAtEnd() {
  const linger abort{1, 0};
  setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

void Connection::tunnelTo(unsigned short port) {
  const int other = connectingSocket({"127.0.0.1", port});
  std::array<char, 16384> buffer{};
  bool open = other >= 0;
  while (open && !m_stopping) {
    std::array<pollfd, 2> ends{pollfd{m_socket, POLLIN, 0}, pollfd{other, POLLIN, 0}};
    poll(ends.data(), ends.size(), static_cast<int>(kStopCheck.count()));
    for (std::size_t i = 0; i < ends.size() && open; ++i) {
      if (ends[i].revents != 0) {
        const long got = recv(ends[i].fd, buffer.data(), buffer.size(), 0);
        open = got > 0 && ::send(ends[1 - i].fd, buffer.data(), static_cast<std::size_t>(got),
                                 MSG_NOSIGNAL) == got;
      }
    }
  }
  if (other >= 0) {
    close(other);
  }
}

ScriptedServer::ScriptedServer(Script script, const std::string& address, unsigned short port)
    : m_script(std::move(script)) {
  Endpoint where{address, port};
  m_listener = boundSocket(where);
  m_port = where.port;
  listen(m_listener, SOMAXCONN);
  m_acceptor = std::thread([this] { acceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  m_stopping = true;
  m_acceptor.join();
  for (std::thread& connection : m_connections) {
    connection.join();
  }
  close(m_listener);
}

void ScriptedServer::acceptLoop() {
  blockSigPipe();
  const timeval limit{0, 100000};
  while (!m_stopping) {
    if (!waitReadable(m_listener)) {
      continue;
    }
    const int socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) {
      continue;
    }
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    // Otherwise a TLS answer waits for the client's delayed acknowledgement of the tickets.
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ++m_accepted;
    m_connections.emplace_back([this, socket] {
      Connection connection(socket, m_stopping);
      m_script(connection);
    });
  }
}

void RequestLog::add(const std::string& request) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_requests.push_back(request);
}

std::vector<std::string> RequestLog::all() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_requests;
}

ScriptedServer::Script answering(std::string answer, RequestLog* log) {
  return [answer = std::move(answer), log](Connection& connection) {
    std::string request = connection.readHead();
    bool open = true;
    while (open) {
      if (log != nullptr) {
        log->add(request);
      }
      open = connection.send(answer);
      request = connection.readHead();
      open = open && !request.empty();
    }
  };
}

ScriptedServer::Script answeringOverTls(TlsServerContext context, std::string answer,
                                        RequestLog* log) {
  return [context = std::move(context),
          script = answering(std::move(answer), log)](Connection& connection) {
    if (connection.startTls(context)) {
      script(connection);
    }
  };
}

SilentPort::SilentPort(const std::string& address, unsigned short port) {
  Endpoint where{address, port};
  m_listener = boundSocket(where);
  m_port = where.port;
  listen(m_listener, 0);
  // Nobody empties this listener's queue; once it is full, the kernel drops attempts.
  constexpr int kMoreThanTheQueueHolds = 4;
  for (int i = 0; i < kMoreThanTheQueueHolds; ++i) {
    m_fillers.push_back(connectingSocket(where, SOCK_NONBLOCK));
  }
}

SilentPort::~SilentPort() {
  for (const int filler : m_fillers) {
    close(filler);
  }
  close(m_listener);
}

}  // namespace tests
