// One loop plays all gateways. Sockets are watched edge-triggered; each event drives its connection
// until nothing more can be read or written. A connection that waits, for its gateway's delay or
// its idle time-out, has an appointment in one queue. Bounds limit what peers can make this process
// hold: the head of a request, the number of connections, and the time of each.

#include "simulator/GatewayServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <optional>
#include <system_error>

namespace simulator {
namespace {

/// The usual limit of web servers.
constexpr std::size_t MostHeadBytes = 16 * 1024;
/// Beyond this number, new connections are closed.
constexpr std::size_t MostConnections = 50'000;
/// Longer than any probe waits: the client, not the gateway, gives up.
constexpr auto LongestIdle = std::chrono::seconds(90);
/// The kernel reduces it to its own limit (net.core.somaxconn).
constexpr int Backlog = 65'535;
/// A connection's turn ends after so many pieces: a fast reader of an endless answer must not keep
/// the others waiting.
constexpr std::size_t MostPiecesAtOnce = 16;
constexpr auto PauseBetweenTurns = std::chrono::microseconds(100);
/// First byte of a TLS handshake record.
constexpr unsigned char TlsHandshake = 0x16;

/// Keys for epoll: listeners by index, then these, then connections.
constexpr std::uint64_t StopKey = 1'000'000'000;
constexpr std::uint64_t AlarmKey = StopKey + 1;
constexpr std::uint64_t ServeTooKey = StopKey + 2;
constexpr std::uint64_t FirstConnectionKey = StopKey + 3;

[[noreturn]] void fail(const std::string& operation) {
  throw std::system_error(errno, std::generic_category(), operation);
}

enum class Io { Done, WouldBlock, Ended };

void setManner(SSL* tls, const TlsManner& manner) {
  // Versions below 1.2 need signatures that OpenSSL refuses by default.
  const bool isOld = manner.newestVersion != 0 && manner.newestVersion < TLS1_2_VERSION;
  if (isOld) SSL_set_security_level(tls, 0);
  SSL_set_min_proto_version(tls, isOld ? TLS1_VERSION : manner.oldestVersion);
  SSL_set_max_proto_version(tls, manner.newestVersion);
  if (manner.demandsClientCertificate) {
    SSL_set_verify(tls, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
}

}  // namespace

/// One client: its input, its pending answer, and when that is due.
class Connection {
 public:
  Connection(FileDescriptor socket, const Gateway& gateway, const Behaviour& behaviour,
             std::function<OpenSslPtr<SSL>(int)> makeTls)
      : m_socket(std::move(socket)),
        m_gateway(gateway),
        m_behaviour(&behaviour),
        m_makeTls(std::move(makeTls)),
        m_idleUntil(Clock::now() + LongestIdle) {}

  /// Does what is possible now. @return false when the connection is over.
  bool advance(Clock::time_point now);

  /// When to call `advance` again if no event comes first.
  Clock::time_point nextAppointment() const {
    return m_due ? std::min(*m_due, m_idleUntil) : m_idleUntil;
  }

  /// This connection's time in the server's queue.
  Clock::time_point appointment;

 private:
  enum class Phase { Unspoken, Plain, Tls };

  bool read();
  bool beginIfAsked(Clock::time_point now);
  bool nextPiece(Clock::time_point now);
  bool endAnswer();
  Io readSome(char* buffer, std::size_t size, std::size_t& count);
  Io writeSome();
  Io makeNoise();
  Io tlsResult(int result);

  FileDescriptor m_socket;
  const Gateway& m_gateway;
  const Behaviour* m_behaviour;
  std::function<OpenSslPtr<SSL>(int)> m_makeTls;
  Clock::time_point m_idleUntil;
  Phase m_phase = Phase::Unspoken;
  OpenSslPtr<SSL> m_tls;
  std::string m_input;
  /// The request that is being answered.
  std::optional<Request> m_request;
  std::size_t m_nextPiece = 0;
  std::string m_output;
  /// When `m_output` may be sent.
  std::optional<Clock::time_point> m_due;
};

bool Connection::advance(Clock::time_point now) {
  if (now >= m_idleUntil) return false;
  if (!read()) return false;
  // The time of the handshake is no part of the gateway's delay.
  now = Clock::now();
  // Terminates: each turn answers a request or sends one of a limited number of pieces, and the
  // input that was read is finite.
  for (std::size_t piece = 1; beginIfAsked(now); ++piece) {
    if (m_due && now < *m_due) return true;
    m_due.reset();
    switch (writeSome()) {
      case Io::WouldBlock:
        return true;
      case Io::Ended:
        return false;
      case Io::Done:
        break;
    }
    m_idleUntil = now + LongestIdle;
    if (!nextPiece(now) && !endAnswer()) return false;
    if (piece % MostPiecesAtOnce == 0 && m_request)
      m_due = std::max(*m_due, now) + PauseBetweenTurns;
  }
  return true;
}

bool Connection::read() {
  if (m_phase == Phase::Unspoken) {
    unsigned char first = 0;
    const ssize_t count = recv(m_socket.get(), &first, 1, MSG_PEEK);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    m_phase = Phase::Plain;
    if (first == TlsHandshake && m_behaviour->acts == Behaviour::Acts::OnRequest) {
      m_phase = Phase::Tls;
      m_tls = m_makeTls(m_socket.get());
      if (!m_tls) return false;
    }
  }
  std::array<char, 4096> buffer;
  // Terminates: the input is bounded.
  while (m_input.size() <= MostHeadBytes) {
    std::size_t count = 0;
    switch (readSome(buffer.data(), buffer.size(), count)) {
      case Io::WouldBlock:
        return true;
      case Io::Ended:
        return false;
      case Io::Done:
        break;
    }
    m_input.append(buffer.data(), count);
  }
  // A gateway that never acts reads nothing more: its peer fills the kernel's buffers.
  return m_behaviour->acts == Behaviour::Acts::Never;
}

/// @return whether an answer is in progress.
bool Connection::beginIfAsked(Clock::time_point now) {
  if (m_request) return true;
  if (m_behaviour->acts == Behaviour::Acts::Never) return false;
  Request request;
  if (m_behaviour->acts == Behaviour::Acts::OnFirstBytes) {
    if (m_input.empty()) return false;
    m_input.clear();
  } else if (m_behaviour->acts == Behaviour::Acts::OnRequest) {
    constexpr std::string_view HeadEnd = "\r\n\r\n";
    const std::size_t end = m_input.find(HeadEnd);
    if (end == std::string::npos) return false;
    request.secure = m_phase == Phase::Tls;
    request.head = m_input.substr(0, end + HeadEnd.size());
    m_input.erase(0, end + HeadEnd.size());
  }
  m_request = std::move(request);
  m_nextPiece = 0;
  nextPiece(now);
  m_due = m_due.value_or(now) + m_gateway.delay;
  return true;
}

/// @return whether the answer has another piece.
bool Connection::nextPiece(Clock::time_point now) {
  if (m_behaviour->answer == nullptr) return false;
  auto piece = m_behaviour->answer(*m_request, m_nextPiece);
  if (!piece) return false;
  ++m_nextPiece;
  m_output = std::move(piece->bytes);
  m_due = now + piece->pause;
  return true;
}

/// @return whether the connection continues.
bool Connection::endAnswer() {
  using Afterwards = Behaviour::Afterwards;
  const bool goesOn =
      m_behaviour->afterwards == Afterwards::Keep ||
      (m_behaviour->afterwards == Afterwards::AsHttpSays && !endsConnection(*m_request));
  m_request.reset();
  if (goesOn) {
    if (!m_behaviour->later.empty()) m_behaviour = findBehaviour(m_behaviour->later);
    return true;
  }
  if (m_behaviour->afterwards == Afterwards::Reset) {
    const linger atOnce{1, 0};
    setsockopt(m_socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  } else if (m_tls) {
    SSL_shutdown(m_tls.get());
  }
  return false;
}

Io Connection::readSome(char* buffer, std::size_t size, std::size_t& count) {
  if (m_tls) {
    ERR_clear_error();
    return tlsResult(SSL_read_ex(m_tls.get(), buffer, size, &count));
  }
  const ssize_t result = recv(m_socket.get(), buffer, size, 0);
  if (result > 0) {
    count = static_cast<std::size_t>(result);
    return Io::Done;
  }
  if (result < 0 && (errno == EAGAIN || errno == EINTR)) return Io::WouldBlock;
  return Io::Ended;
}

Io Connection::writeSome() {
  if (m_output.empty() && m_tls && m_behaviour->tls.noise != TlsNoise::None) return makeNoise();
  while (!m_output.empty()) {
    std::size_t count = 0;
    if (m_tls) {
      ERR_clear_error();
      const Io result =
          tlsResult(SSL_write_ex(m_tls.get(), m_output.data(), m_output.size(), &count));
      if (result != Io::Done) return result;
    } else {
      const ssize_t result = ::send(m_socket.get(), m_output.data(), m_output.size(), MSG_NOSIGNAL);
      if (result < 0) return errno == EAGAIN || errno == EINTR ? Io::WouldBlock : Io::Ended;
      count = static_cast<std::size_t>(result);
    }
    m_output.erase(0, count);
  }
  return Io::Done;
}

Io Connection::makeNoise() {
  SSL* const tls = m_tls.get();
  const TlsNoise noise = m_behaviour->tls.noise;
  Io result = Io::Done;
  for (int i = 0; i < NoiseAtOnce && result == Io::Done; ++i) {
    ERR_clear_error();
    if (!SSL_in_init(tls)) {  // else the message before is not out yet
      if (noise == TlsNoise::HelloRequests) {
        SSL_renegotiate(tls);
      } else if (noise == TlsNoise::Tickets) {
        SSL_new_session_ticket(tls);
      } else {
        SSL_key_update(tls, noise == TlsNoise::KeyUpdates ? SSL_KEY_UPDATE_NOT_REQUESTED
                                                          : SSL_KEY_UPDATE_REQUESTED);
      }
    }
    result = tlsResult(SSL_do_handshake(tls));
  }
  return result;
}

Io Connection::tlsResult(int result) {
  if (result == 1) return Io::Done;
  const int error = SSL_get_error(m_tls.get(), result);
  return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? Io::WouldBlock : Io::Ended;
}

GatewayServer::GatewayServer(const Scene& scene, const CertificateAuthority& authority)
    : m_authority(authority), m_gateways(scene.gateways), m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
  if (!m_epoll) fail("epoll_create1");
  // TLS may write to a peer that is gone; that must not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  makeContext();
  for (const HostName& host : scene.names) m_namesOfAddress.emplace(host.address.text(), host.name);

  // Connections refer to the listeners' gateways: neither may move from here on.
  for (std::size_t i = 0; i < m_gateways.size(); ++i) {
    const Behaviour* behaviour = findBehaviour(m_gateways[i].behaviour);
    if (behaviour == nullptr) throw SceneError("no behaviour '" + m_gateways[i].behaviour + "'");
    listen(i, *behaviour);
  }
  for (std::size_t i = 0; i < m_listeners.size(); ++i)
    watch(m_listeners[i].socket.get(), i, EPOLLIN);
  watch(m_alarm.fd(), AlarmKey, EPOLLIN);
  m_nextKey = FirstConnectionKey;
}

GatewayServer::~GatewayServer() = default;

void GatewayServer::makeContext() {
  m_context.reset(SSL_CTX_new(TLS_server_method()));
  if (!m_context) throw std::runtime_error("SSL_CTX_new failed");
  // Thousands of clients come only once: no session is remembered.
  SSL_CTX_set_session_cache_mode(m_context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_mode(m_context.get(), SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                        SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

void GatewayServer::listen(std::size_t gateway, const Behaviour& behaviour) {
  const IpAddress& address = m_gateways[gateway].address;
  FileDescriptor socket(
      ::socket(address.isV4() ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const std::string where = address.text() + " port " + std::to_string(m_gateways[gateway].port);
  if (!socket) fail(where);
  const int on = 1;
  setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // An address of a routed range belongs to no interface.
  setsockopt(socket.get(), SOL_IP, IP_FREEBIND, &on, sizeof on);
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

  sockaddr_storage name;
  socklen_t length = address.toSocketAddress(m_gateways[gateway].port, name);
  const bool isClosed = behaviour.door == Behaviour::Door::Closed;
  const bool isBlocked = behaviour.door == Behaviour::Door::Blocked;
  if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&name), length) != 0 ||
      (!isClosed && ::listen(socket.get(), isBlocked ? 0 : Backlog) != 0) ||
      getsockname(socket.get(), reinterpret_cast<sockaddr*>(&name), &length) != 0) {
    fail(where);
  }
  // Both kinds of address hold the port at the same offset.
  m_gateways[gateway].port = ntohs(reinterpret_cast<const sockaddr_in*>(&name)->sin_port);
  if (isBlocked) block(m_gateways[gateway]);
  if (isClosed || isBlocked) {
    m_placeholders.push_back(std::move(socket));
  } else {
    m_listeners.push_back({std::move(socket), gateway, &behaviour, nullptr});
  }
}

/// Fills a listener's queue and leaves it full: the kernel drops later attempts.
void GatewayServer::block(const Gateway& gateway) {
  constexpr int MoreThanTheQueueHolds = 4;
  sockaddr_storage name;
  const socklen_t length = gateway.address.toSocketAddress(gateway.port, name);
  for (int i = 0; i < MoreThanTheQueueHolds; ++i) {
    FileDescriptor filler(::socket(name.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (connect(filler.get(), reinterpret_cast<sockaddr*>(&name), length) != 0 &&
        errno != EINPROGRESS) {
      fail(gateway.address.text());
    }
    m_placeholders.push_back(std::move(filler));
  }
}

void GatewayServer::watch(int fd, std::uint64_t key, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
}

void GatewayServer::serveToo(int fd, std::function<void()> serve) {
  m_serveToo = std::move(serve);
  watch(fd, ServeTooKey, EPOLLIN);
}

void GatewayServer::Run(int stopFd) {
  watch(stopFd, StopKey, EPOLLIN);
  std::array<epoll_event, 256> events;
  // Ends when the stop file becomes readable.
  while (true) {
    m_alarm.set(m_appointments.empty() ? std::nullopt : std::optional(m_appointments.top().due));
    const int count = epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()), -1);
    if (count < 0 && errno != EINTR) fail("epoll_wait");
    for (int i = 0; i < count; ++i) {
      const std::uint64_t key = events[static_cast<std::size_t>(i)].data.u64;
      if (key == StopKey) return;
      if (key == AlarmKey) {
        m_alarm.acknowledge();
      } else if (key == ServeTooKey) {
        m_serveToo();
      } else if (key < StopKey) {
        accept(m_listeners[key]);
      } else {
        advance(key);
      }
    }
    keepAppointments();
  }
}

void GatewayServer::accept(Listener& listener) {
  // A longer queue waits for its turn: the listener stays readable.
  constexpr int MostAtOnce = 64;
  for (int i = 0; i < MostAtOnce; ++i) {
    FileDescriptor socket(
        accept4(listener.socket.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) return;
    if (m_connections.size() >= MostConnections) continue;
    const std::uint64_t key = m_nextKey++;
    const int fd = socket.get();
    auto& connection = m_connections[key];
    connection = std::make_unique<Connection>(
        std::move(socket), m_gateways[listener.gateway], *listener.behaviour,
        [this, &listener](int tlsFd) { return makeTls(tlsFd, listener); });
    appoint(key, *connection);
    watch(fd, key, EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET);
  }
}

void GatewayServer::advance(std::uint64_t key) {
  const auto found = m_connections.find(key);
  if (found == m_connections.end()) return;
  Connection& connection = *found->second;
  if (!connection.advance(Clock::now())) {
    m_connections.erase(found);
  } else if (connection.nextAppointment() < connection.appointment) {
    // A later appointment is made when the earlier one is due.
    appoint(key, connection);
  }
}

void GatewayServer::appoint(std::uint64_t key, Connection& connection) {
  connection.appointment = connection.nextAppointment();
  m_appointments.push({connection.appointment, key});
}

void GatewayServer::keepAppointments() {
  const auto now = Clock::now();
  while (!m_appointments.empty() && m_appointments.top().due <= now) {
    const auto [due, key] = m_appointments.top();
    m_appointments.pop();
    const auto found = m_connections.find(key);
    // An earlier appointment has replaced this one.
    if (found == m_connections.end() || found->second->appointment != due) continue;
    if (found->second->advance(now)) {
      appoint(key, *found->second);
    } else {
      m_connections.erase(found);
    }
  }
}

OpenSslPtr<SSL> GatewayServer::makeTls(int fd, Listener& listener) {
  const IpAddress& address = m_gateways[listener.gateway].address;
  if (!listener.certificate) {
    std::vector<std::string> names;
    const auto [begin, end] = m_namesOfAddress.equal_range(address.text());
    for (auto name = begin; name != end; ++name) names.push_back(name->second);
    listener.certificate = m_authority.issue(address, names, listener.behaviour->tls.flaw);
  }
  OpenSslPtr<SSL> tls(SSL_new(m_context.get()));
  if (!tls || SSL_set_fd(tls.get(), fd) != 1 ||
      SSL_use_certificate(tls.get(), listener.certificate.get()) != 1 ||
      SSL_use_PrivateKey(tls.get(), m_authority.serverKey()) != 1) {
    return nullptr;
  }
  setManner(tls.get(), listener.behaviour->tls);
  SSL_set_accept_state(tls.get());
  return tls;
}

}  // namespace simulator
