// Requests without a proxy, the bulk of what is measured. A request is over as soon as the head of
// its answer is complete. Where the connection is to be kept, the rest of a short answer is
// fetched before the next request, so that a body never holds up the probe that it answers.

#include "vpn/Common/IP/DirectTransfer.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "vpn/Common/IP/KernelTrips.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/IP/SocketLoop.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// How long to wait for the rest of a short answer, from its head on: one round trip, the least that
// a new connection takes. The lower bound is for networks that are faster than a server sends two
// packets, the upper one for peers that pretend to be far away.
constexpr microseconds LeastBodyWait(1000);
constexpr microseconds MostBodyWait(250'000);

constexpr std::size_t ReceiveBufferBytes = 2048;

// A name may have any number of addresses. So many are tried, those of a rotation among gateways
// and no crowd of strangers.
constexpr std::size_t MostAddresses = 16;

// Addresses of the second family have their turn after this time (RFC 8305).
constexpr milliseconds SecondFamily(200);

/// What a task throws concerns neither the probe nor those whose sockets the thread waits for.
template <class Result, class Body>
Result unlessThrown(Result otherwise, Body body) {
  try {
    return body();
  } catch (...) {
    return otherwise;
  }
}

/// The host as libcurl writes it: an IPv6 address without its zone, and short.
std::string hostOf(const std::string& host) {
  in6_addr binary{};
  std::array<char, INET6_ADDRSTRLEN> text{};
  const std::string literal = literalOf(host);
  if (!host.starts_with('[') || inet_pton(AF_INET6, literal.c_str(), &binary) != 1) {
    return host;
  }
  const std::string shown = inet_ntop(AF_INET6, &binary, text.data(), text.size());
  return "[" + (shown.size() < literal.size() ? shown : literal) + "]";
}

/// The request as libcurl writes it. Not HEAD, which some servers leave without an answer.
std::string requestTo(const ProbeTarget& target) {
  const unsigned short usual = target.secure ? 443 : 80;
  std::string text = "GET / HTTP/1.1\r\nHost: ";
  text += hostOf(target.host);
  text += target.port == usual ? "" : ":" + std::to_string(target.port);
  text += target.userAgent.empty() ? "" : "\r\nUser-Agent: " + target.userAgent;
  return text + "\r\nAccept: */*\r\n\r\n";
}

/// Lets the task replace an IPv4 address.
void translate(ProbeTask* task, sockaddr_in6& address) {
  in6_addr replacement{};
  const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
  if (task != nullptr && address.sin6_family == AF_INET &&
      unlessThrown(false, [&] { return task->translated(v4.sin_addr, replacement); })) {
    sockaddr_in6 other{};
    other.sin6_family = AF_INET6;
    other.sin6_port = address.sin6_port;  // at the same place in both families
    other.sin6_addr = replacement;
    address = other;
  }
}

}  // namespace

/// One call of `send`.
class DirectTransfer::Race : public SocketLoop::Wait {
 public:
  Race(DirectTransfer& first, DirectTransfer* rival, Clock::time_point limit, bool mayStop)
      : m_first(first), m_rival(rival), m_limit(limit), m_mayStop(mayStop) {}

  /// Waits for the sockets.
  void run() {
    for (;;) {
      forEach([](DirectTransfer& one) {
        if (std::exchange(one.m_mustStep, false)) {
          one.step();
        }
      });
      Clock::time_point next;
      if (isOver(Clock::now(), next)) {
        if (mustStep()) {
          continue;
        }
        return;
      }
      forget();
      forEach([this](DirectTransfer& one) { one.forEachSocket(*this); });
      if (const int error = SocketLoop::wait(*this, next); error != 0) {
        forEach([error](DirectTransfer& one) {
          one.m_outcome.shortage = Shortages::fromErrno(error);
          one.end(CURLE_OUT_OF_MEMORY);
        });
      }
    }
  }

 private:
  /// Does something with those that have not ended.
  template <class Body>
  void forEach(Body body) noexcept {
    for (DirectTransfer* const one : {&m_first, m_rival}) {
      if (one != nullptr && !one->m_hasEnded &&
          !unlessThrown(false, [&] { return body(*one), true; })) {
        one->end(CURLE_OUT_OF_MEMORY);
      }
    }
  }

  void noteEvents(int socket, std::uint32_t events) noexcept override {
    forEach([socket, events](DirectTransfer& one) { one.noteEvents(socket, events); });
  }

  bool isOver(Clock::time_point now, Clock::time_point& next) noexcept override {
    next = m_limit;
    forEach([&](DirectTransfer& one) {
      one.checkTime(now);
      one.m_mustStep = !one.m_hasEnded && (one.m_mustStep || one.isConnectingDue(now));
      next = std::min({next, one.m_request->deadline, one.nextConnecting()});
    });
    if (mustStep() || isDecided(now)) {
      return true;
    }
    // A second attempt is looked at first; the other one is older.
    forEach([&](DirectTransfer& one) {
      if (&one == &m_first || m_first.m_hasEnded) {
        one.checkPatience(now);
        next = std::min(next, one.nextLook());
      }
    });
    if (m_mayStop && m_first.isUnanswered()) {
      next = std::min<Clock::time_point>(next, m_first.m_openedAt + m_first.m_patience.again);
    }
    return mustStep() || isDecided(now);
  }

  /// Whether there is something to do for the thread that waits.
  bool mustStep() const {
    return m_first.m_mustStep || (m_rival != nullptr && m_rival->m_mustStep);
  }

  bool isDecided(Clock::time_point now) const {
    const bool isSecond = m_rival != nullptr && !m_rival->m_outcome.reused;
    const bool isUnderWay = !m_first.m_hasEnded || (m_rival != nullptr && !m_rival->m_hasEnded);
    return m_first.hasAnswer() || (isSecond && (m_first.wasHeard() || m_rival->wasHeard())) ||
           (m_rival != nullptr && m_rival->hasAnswer()) || !isUnderWay || now >= m_limit ||
           (m_mayStop && m_first.wantsAnother(now));
  }

  DirectTransfer& m_first;
  DirectTransfer* const m_rival;
  const Clock::time_point m_limit;
  const bool m_mayStop;
};

bool DirectTransfer::serves(const ProbeRequest& request) {
  return !request.proxied() && request.handshake == nullptr;
}

DirectTransfer::DirectTransfer(const ProbeRequest& request, bool keeps, Addresses& addresses)
    : m_keeps(keeps), m_request(&request), m_text(requestTo(request)), m_addresses(addresses) {
  SocketLoop::prepare();
}

DirectTransfer::~DirectTransfer() { close(); }

bool DirectTransfer::isCancelled() const {
  return m_request->task != nullptr && m_request->task->isCancelled();
}

long long DirectTransfer::now() const {
  return std::chrono::duration_cast<microseconds>(Clock::now() - m_request->start).count();
}

bool DirectTransfer::send(const ProbeRequest& request, Clock::time_point limit,
                          DirectTransfer* rival, bool mayStop) {
  m_request = &request;
  start();
  Race(*this, rival, limit, mayStop).run();
  return hasAnswer();
}

void DirectTransfer::start() {
  m_hasEnded = false;
  m_outcome = ProbeOutcome();
  m_outcome.reused = m_socket != NoSocket;
  m_reader = AnswerReader(m_keeps);
  m_sent = 0;
  m_events = 0;
  m_mustStep = false;
  m_startedAt = Clock::now();
  if (!m_stands) {
    askPatience(milliseconds(0));
  }
  checkTime(m_startedAt);
  if (m_hasEnded) {
    return;
  }
  if (!m_outcome.reused) {
    if (findAddresses()) {
      beginToConnect();
    }
    return;
  }
  if (m_tls) {
    m_tls->watch().setEnd(m_request->deadline);
  }
  write();
}

bool DirectTransfer::findAddresses() {
  if (!m_addresses.all.empty()) {
    return true;
  }
  const auto stand = m_startedAt + m_patience.stand;
  AddressLookup found = AddressLookup::of(
      *m_request, std::min<Clock::time_point>(m_request->deadline, stand), m_addresses.late);
  if (!found.addresses.empty()) {
    m_addresses.all.swap(found.addresses);
    return true;
  }
  m_outcome.shortage = found.shortage;
  m_outcome.unresolved = true;
  m_outcome.silent = found.code == CURLE_OPERATION_TIMEDOUT && stand < m_request->deadline;
  end(found.code);
  return false;
}

/// One address of each family at a time is tried, the second family's somewhat later.
void DirectTransfer::beginToConnect() {
  m_openedUs = now();
  m_openedAt = Clock::now();
  m_nextLook = m_openedAt + m_patience.nextLook(milliseconds(0));
  m_secondAt = m_openedAt + SecondFamily;
  m_ways[0].family = m_addresses.all.front().sin6_family;
  m_ways[1].family = m_ways[0].family == AF_INET ? AF_INET6 : AF_INET;
  ProbeTask* const task = m_request->task;
  unlessThrown(false, [&] {
    if (task != nullptr && !m_request->connectsOnly) {
      task->noteConnecting({m_request->host, m_request->port});
    }
    return true;
  });
  connectOn();
}

/// The next address of a way's family; null for none.
const sockaddr_in6* DirectTransfer::nextOf(Way& way) const {
  while (way.next < m_addresses.all.size() && m_addresses.all[way.next].sin6_family != way.family) {
    ++way.next;
  }
  return way.next < m_addresses.all.size() && m_tried < MostAddresses ? &m_addresses.all[way.next]
                                                                      : nullptr;
}

/// Opens what is due, and fails once all addresses have.
void DirectTransfer::connectOn() {
  const auto current = Clock::now();
  bool isFirstOver = false;
  for (Way& way : m_ways) {
    const bool isDue = &way == &m_ways[0] || isFirstOver || current >= m_secondAt;
    if (way.socket != NoSocket && (way.hasFailed || current >= way.limit)) {
      close(way);
    }
    while (way.socket == NoSocket && isDue && nextOf(way) != nullptr) {
      open(way, m_addresses.all[way.next++]);
    }
    isFirstOver = way.socket == NoSocket;
  }
  if (isConnecting() || m_hasEnded || nextOf(m_ways[1]) != nullptr) {
    return;
  }
  m_outcome.silent = m_wasLeft;
  end(m_wasLeft || m_outcome.osError == ETIMEDOUT ? CURLE_OPERATION_TIMEDOUT
                                                  : CURLE_COULDNT_CONNECT);
}

/// Programs that the host starts must not inherit a connection, which would stay open as long as
/// they run.
void DirectTransfer::open(Way& way, const sockaddr_in6& address) {
  ++m_tried;
  ProbeTask* const task = m_request->task;
  way.address = address;
  translate(task, way.address);
  const auto& generic = reinterpret_cast<const sockaddr&>(way.address);
  m_outcome.toThisMachine = m_outcome.toThisMachine || KernelTrips::leadsToThisMachine(generic);
  way.socket = socket(generic.sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (way.socket == NoSocket) {
    m_outcome.shortage = Shortages::fromErrno(errno);
    return;
  }
  way.isKnown = way.hasFailed = false;
  way.start = Clock::now();
  way.limit = nextOf(way) != nullptr ? way.start + (m_request->deadline - way.start) / 2
                                     : Clock::time_point::max();
  if (task != nullptr &&
      !unlessThrown(false, [&] { return task->socketOpened(way.socket, generic.sa_family); })) {
    close(way);
    return;
  }
  const socklen_t length =
      generic.sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (connect(way.socket, &generic, length) != 0 && errno != EINPROGRESS) {
    m_outcome.osError = errno;
    close(way);
  }
}

void DirectTransfer::close(Way& way) {
  if (way.socket != NoSocket) {
    const long long rtt = KernelTrips::of(way.socket).smallestUs;  // of one that was reset
    m_rttUs = rtt != Unknown ? rtt : m_rttUs;
    ::close(std::exchange(way.socket, NoSocket));
  }
}

bool DirectTransfer::isConnecting() const {
  return m_ways[0].socket != NoSocket || m_ways[1].socket != NoSocket;
}

bool DirectTransfer::isConnectingDue(Clock::time_point now) const {
  return !m_stands && now >= nextConnecting();
}

DirectTransfer::Clock::time_point DirectTransfer::nextConnecting() const {
  auto next = Clock::time_point::max();
  if (m_stands) {
    return next;
  }
  for (const Way& way : m_ways) {
    next = way.socket == NoSocket ? next
           : way.hasFailed        ? Clock::time_point::min()
                                  : std::min(next, way.limit);
  }
  Way second = m_ways[1];
  const bool begins = second.socket == NoSocket && second.next == 0 && nextOf(second) != nullptr;
  return begins ? std::min(next, m_secondAt) : next;
}

void DirectTransfer::forEachSocket(SocketLoop::Wait& wait) {
  if (m_stands) {
    wait.add(m_socket, m_isKnown);
    return;
  }
  for (Way& way : m_ways) {
    if (way.socket != NoSocket) {
      wait.add(way.socket, way.isKnown);
    }
  }
}

void DirectTransfer::noteEvents(int socket, std::uint32_t events) {
  if (!m_stands) {
    const auto way = std::ranges::find(m_ways, socket, &Way::socket);
    if (way == m_ways.end()) {
      return;
    }
    if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
      int error = 0;
      socklen_t length = sizeof error;
      getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length);
      m_outcome.osError = error;
      way->hasFailed = m_mustStep = true;
      return;
    }
    if ((events & EPOLLOUT) == 0) {
      return;
    }
    noteConnection(*way);
  } else if (socket != m_socket || (events == EPOLLOUT && m_tls && !m_tls->mustWrite())) {
    return;  // each wait is told anew that a socket can be written to
  }
  m_events |= events;
  if (m_hasEnded) {
    return;
  }
  if (m_request->secure || isConnecting()) {
    m_mustStep = true;  // on its own thread, for it computes, or closes another socket
  } else {
    step();
  }
}

/// An attempt to connect has been answered. Takes the kernel's first sample before data goes out:
/// later ones can be acknowledgements that were sent ahead.
void DirectTransfer::noteConnection(Way& way) {
  m_stands = true;
  m_socket = std::exchange(way.socket, NoSocket);
  m_isKnown = way.isKnown;
  m_address = way.address;
  m_outcome.connectUs = now();
  const KernelTrips::Trips trips = KernelTrips::of(m_socket);
  m_opensAgain = trips.isRepeated;
  m_openingUs = m_opensAgain ? Unknown : trips.smallestUs;
  if (m_request->connectsOnly) {
    end(CURLE_OK);
    return;
  }
  if (!m_request->secure) {
    write();  // before anybody is told: that may take some time
  }
  unlessThrown(false, [&] {
    ProbeTask* const task = m_request->task;
    if (task != nullptr && m_openingUs != Unknown) {
      task->noteOpened({m_request->host, m_request->port},
                       {textOf(m_address), ntohs(m_address.sin6_port)}, m_openingUs);
    }
    if (task != nullptr && m_request->report != nullptr) {
      task->connected(*m_request->report, trips.smallestUs);
    }
    return true;
  });
}

/// Does what can be done without waiting.
void DirectTransfer::step() {
  if (!m_stands) {
    connectOn();
    return;
  }
  for (Way& way : m_ways) {
    close(way);
  }
  if (m_request->secure && !m_isSecured) {
    shakeHands();
  }
  if (!m_hasEnded && m_isSecured == m_request->secure) {
    write();
  }
  constexpr std::uint32_t Readable = EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR;
  if (!m_hasEnded && m_sent == m_text.size() && (m_tls || (m_events & Readable) != 0)) {
    read();
  }
  m_events = 0;
}

void DirectTransfer::shakeHands() {
  if (!m_tls) {
    const int on = 1;
    setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    m_outcome.tlsStartUs = now();
    m_tls = TlsConnection::make(m_socket, m_request->host);
    if (!m_tls) {
      end(CURLE_OUT_OF_MEMORY);
      return;
    }
    m_tls->watch().setEnd(m_request->deadline);
  }
  TlsConnection::State state = TlsConnection::State::Waits;
  do {
    state = m_tls->shakeHands();
  } while (state == TlsConnection::State::Waits && !m_tls->isDrained() && isInTime());
  if (state == TlsConnection::State::Failed) {
    fail(codeOf(0), 0);
  } else if (state == TlsConnection::State::Done) {
    m_isSecured = true;
    m_outcome.tlsUs = now();
  }
}

/// Whether a server that sends and sends may be read on.
bool DirectTransfer::isInTime() const {
  return !isCancelled() && Clock::now() < m_request->deadline;
}

unsigned int DirectTransfer::codeOf(unsigned int plain) const {
  return !m_tls                    ? plain
         : m_tls->watch().isLate() ? static_cast<unsigned int>(CURLE_OPERATION_TIMEDOUT)
                                   : m_tls->code();
}

TlsConnection::State DirectTransfer::receive(char* bytes, std::size_t size, std::size_t& count) {
  if (m_tls) {
    return m_tls->read(bytes, size, count);
  }
  ssize_t received = 0;
  do {
    received = recv(m_socket, bytes, size, MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  count = static_cast<std::size_t>(received);
  return received > 0      ? TlsConnection::State::Done
         : received == 0   ? TlsConnection::State::Closed
         : errno == EAGAIN ? TlsConnection::State::Waits
                           : TlsConnection::State::Failed;
}

TlsConnection::State DirectTransfer::send(const char* bytes, std::size_t size, std::size_t& count) {
  if (m_tls) {
    return m_tls->write(bytes, size, count);
  }
  ssize_t sent = 0;
  do {
    sent = ::send(m_socket, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  count = static_cast<std::size_t>(sent);
  return sent >= 0         ? TlsConnection::State::Done
         : errno == EAGAIN ? TlsConnection::State::Waits
                           : TlsConnection::State::Failed;
}

void DirectTransfer::write() {
  if (m_outcome.requestUs == 0) {
    m_outcome.requestUs = now();
  }
  while (m_sent < m_text.size()) {
    std::size_t count = 0;
    const TlsConnection::State state = send(m_text.data() + m_sent, m_text.size() - m_sent, count);
    if (state == TlsConnection::State::Waits) {
      return;
    }
    if (state != TlsConnection::State::Done) {
      fail(codeOf(CURLE_SEND_ERROR), errno);
      return;
    }
    m_sent += count;
  }
}

void DirectTransfer::read() {
  std::array<char, ReceiveBufferBytes> bytes;  // NOLINT: filled before it is read
  const bool isLast = (m_events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  while (!m_hasEnded && isInTime()) {
    std::size_t count = 0;
    const TlsConnection::State state = receive(bytes.data(), bytes.size(), count);
    if (state == TlsConnection::State::Waits) {
      if (m_tls && !m_tls->isDrained()) {
        continue;
      }
      return;
    }
    if (state == TlsConnection::State::Failed) {
      fail(codeOf(CURLE_RECV_ERROR), errno);
    } else if (state == TlsConnection::State::Closed) {
      m_reader.takeEnd();
      end(m_reader.code());
    } else {
      if (m_outcome.firstByteUs == 0) {
        m_outcome.firstByteUs = now();
      }
      if (!m_reader.take({bytes.data(), count}) || m_reader.isHeadComplete()) {
        end(m_reader.code());  // a body is for later
      } else if (!m_tls && !isLast && count < bytes.size()) {
        return;  // that was all: the next bytes are an event of their own
      }
    }
  }
}

void DirectTransfer::fail(unsigned int code, int error) {
  m_outcome.osError = error;
  end(code);
}

void DirectTransfer::end(unsigned int code) {
  m_hasEnded = true;
  m_mustStep = false;
  m_headAt = Clock::now();
  m_outcome.code = code;
  m_outcome.endedUs = now();
}

void DirectTransfer::checkTime(Clock::time_point now) {
  if (isCancelled()) {
    end(CURLE_ABORTED_BY_CALLBACK);
  } else if (now >= m_request->deadline) {
    end(CURLE_OPERATION_TIMEDOUT);
  }
}

/// Asks the task how long to wait for an answer, and leaves what has been silent for longer.
void DirectTransfer::checkPatience(Clock::time_point now) {
  if (m_stands || m_hasEnded) {
    return;
  }
  const bool isLeft = now - m_startedAt >= m_patience.stand;
  if (!isLeft && now >= m_nextLook) {
    const auto waited = std::chrono::duration_cast<milliseconds>(now - m_openedAt);
    askPatience(waited);
    m_nextLook = m_openedAt + m_patience.nextLook(waited);
    for (Way& way : m_ways) {
      if (way.socket != NoSocket && now - way.start >= m_patience.giveUp) {
        m_wasLeft = way.hasFailed = m_mustStep = true;
      }
    }
  }
  if (isLeft) {
    m_outcome.silent = true;
    end(CURLE_OPERATION_TIMEDOUT);
  }
}

void DirectTransfer::askPatience(milliseconds waited) {
  ProbeTask* const task = m_request->task;
  if (task == nullptr || m_request->report == nullptr) {
    return;
  }
  m_patience =
      unlessThrown(ConnectPatience(), [&] { return task->unanswered(*m_request->report, waited); });
  if (!ProbeSettings::leavesSilent()) {
    m_patience = ConnectPatience();
  }
}

bool DirectTransfer::wantsAnother(Clock::time_point now) const {
  return isUnanswered() && now - m_openedAt >= m_patience.again;
}

DirectTransfer::Clock::time_point DirectTransfer::nextLook() const {
  return m_stands || m_hasEnded || m_request->task == nullptr
             ? Clock::time_point::max()
             : std::min<Clock::time_point>(m_nextLook, m_startedAt + m_patience.stand);
}

bool DirectTransfer::isReadyFor(const ProbeRequest& request) {
  m_request = &request;
  if (m_socket != NoSocket && (!m_tls || m_tls->watch().isTrustCurrent()) && m_reader.take({})) {
    fetchBody();
  }
  char byte = 0;
  return m_socket != NoSocket && m_reader.isWhole() &&
         (!m_tls || (!m_tls->hasPending() && m_tls->watch().isTrustCurrent())) &&
         recv(m_socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) < 0;
}

/// Brings in what is left of the answer. Bytes that have arrived are read even after the limit. Not
/// inlined: its bytes on the stack would be touched where there is nothing to fetch.
[[gnu::noinline]] void DirectTransfer::fetchBody() {
  const Clock::time_point start = Clock::now();
  const microseconds roundTrip(m_rttUs != Unknown ? m_rttUs : m_tookUs);
  const Clock::time_point end = m_headAt + std::clamp(roundTrip, LeastBodyWait, MostBodyWait);
  const Clock::time_point last = std::max(end, start + LeastBodyWait);
  if (m_tls) {
    m_tls->watch().setEnd(last);
  }
  const int task = m_request->task != nullptr ? m_request->task->cancelDescriptor() : NoSocket;
  std::array<char, ReceiveBufferBytes> bytes;  // NOLINT: filled before it is read
  bool isMoreWanted = true;
  while (isMoreWanted && !isCancelled()) {
    std::size_t count = 0;
    const TlsConnection::State state = receive(bytes.data(), bytes.size(), count);
    if (state == TlsConnection::State::Done) {
      isMoreWanted = m_reader.take({bytes.data(), count});
      continue;
    }
    if (state == TlsConnection::State::Waits && m_tls && !m_tls->isDrained() &&
        Clock::now() < last) {
      continue;
    }
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
    std::array<pollfd, 2> both{{{m_socket, POLLIN, 0}, {task, POLLIN, 0}}};
    if (state != TlsConnection::State::Waits || left.count() <= 0 ||
        poll(both.data(), both.size(), static_cast<int>(left.count())) <= 0) {
      return;
    }
  }
}

void DirectTransfer::close() {
  for (Way& way : m_ways) {
    close(way);
  }
  if (m_socket != NoSocket) {
    m_tls.reset();
    ::close(std::exchange(m_socket, NoSocket));
  }
}

ProbeOutcome DirectTransfer::takeOutcome() {
  m_outcome.httpStatus = static_cast<long>(m_reader.status());
  m_outcome.location = m_reader.takeLocation();
  m_outcome.headers = m_reader.takeLines();
  m_outcome.request =
      m_request->tellsRequest && m_request->isDirect() ? m_text.substr(0, m_sent) : std::string();
  m_outcome.osError = m_outcome.silent ? 0 : m_outcome.osError;
  m_outcome.address = textOf(m_address);
  m_outcome.addressPort = ntohs(m_address.sin6_port);
  if (!m_outcome.reused) {
    m_outcome.openedUs = m_openedUs;
    m_tookUs = m_outcome.connectUs == 0 ? 0 : m_outcome.connectUs - m_openedUs;
  }
  m_outcome.connectTookUs = m_tookUs;
  m_outcome.openingUs = m_openingUs;
  m_outcome.openedAgain = m_opensAgain;
  m_rttUs = m_socket != NoSocket ? KernelTrips::of(m_socket).smallestUs : m_rttUs;
  m_outcome.networkRttUs = m_rttUs;
  if (m_tls) {
    m_outcome.clientCertificateAsked = m_tls->watch().isClientCertificateAsked();
    m_outcome.issuer = m_tls->watch().untrustedIssuer();
  }
  if (!(hasAnswer() && m_keeps)) {
    close();
  }
  return std::move(m_outcome);
}
