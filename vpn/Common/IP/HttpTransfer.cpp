// Requests on libcurl. A request is over as soon as the head of its answer is complete. Where the
// connection is to be kept, the rest of a short answer is fetched before the next request, so that
// a body never holds up the probe that it answers. What the peer sends is bounded in size by
// `AnswerHead` and in time by libcurl's time-out; the address, trust and secrecy of a request are
// fixed when the transfer is made, so a connection cannot come to serve another one.

#include "vpn/Common/IP/HttpTransfer.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <linux/tcp.h>  // glibc's netinet/tcp.h ends before tcpi_min_rtt
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "vpn/Common/IP/MultiHandle.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/IP/TransferSetup.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// A transfer has one connection. More are open only while libcurl tries several addresses.
constexpr long MaxConnections = 1;

// How long to wait for the rest of a short answer, from its head on: one round trip, the least that
// a new connection takes. The lower bound is for networks that are faster than a server sends two
// packets, the upper one for peers that pretend to be far away.
constexpr microseconds LeastBodyWait(1000);
constexpr microseconds MostBodyWait(250'000);

// libcurl knows itself when it has to act; this only keeps a wait from being endless.
constexpr milliseconds MaxPoll(1000);

// A name may have any number of addresses. So many are tried, those of a rotation among gateways
// and no crowd of strangers.
constexpr unsigned int MostAddresses = 16;

// libcurl tries the next address of a name (after a refusal, or half of the time left) only when it
// is called, so it is called this often.
constexpr milliseconds NextAddress(10);
constexpr milliseconds LaterAddress(50);

// How often a rival is looked at, as nothing waits for its connection.
constexpr milliseconds RivalPoll(10);

constexpr long long Unknown = -1;

/// Whether something has answered an attempt to connect.
bool isAnswered(int attempt) {
  constexpr unsigned char SynSent = 2;
  constexpr unsigned char Closed = 7;  // and before connect(2)
  tcp_info info{};
  socklen_t length = sizeof info;
  return getsockopt(attempt, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
         info.tcpi_state != SynSent && info.tcpi_state != Closed;
}

/// The smallest round trip that the kernel saw on a connection, in microseconds.
long long smallestRoundTrip(int connection) {
  tcp_info info{};
  socklen_t length = sizeof info;
  constexpr socklen_t Needed = offsetof(tcp_info, tcpi_min_rtt) + sizeof info.tcpi_min_rtt;
  // All ones stand for a connection without a sample; kernels that do not measure leave the zero.
  if (getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || length < Needed ||
      info.tcpi_min_rtt == ~0U || info.tcpi_min_rtt == 0) {
    return Unknown;
  }
  return info.tcpi_min_rtt;
}

/// Whether a connection to an address ends on this machine, on every machine.
bool leadsToThisMachine(const sockaddr& address) {
  if (address.sa_family == AF_INET6) {
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&v6) || IN6_IS_ADDR_UNSPECIFIED(&v6);
  }
  const std::uint32_t v4 = ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr);
  return address.sa_family == AF_INET && (v4 >> 24 == IN_LOOPBACKNET || v4 == INADDR_ANY);
}

int portOf(int connection) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (getsockname(connection, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  // The port is at the same place in both families.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

/// Whether an attempt to connect had to be repeated: then no telling which one was answered.
bool isRepeated(int connection) {
  tcp_info info{};
  socklen_t length = sizeof info;
  return getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
         info.tcpi_total_retrans > 0;
}

/// The address that a socket is connected to; an empty one where it is not.
RoundTripEvidence::Place peerOf(int connection) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (getpeername(connection, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return {};
  }
  const auto* const v4 = reinterpret_cast<const sockaddr_in*>(&address);
  const auto* const v6 = reinterpret_cast<const sockaddr_in6*>(&address);
  const void* const bytes = address.ss_family == AF_INET6 ? static_cast<const void*>(&v6->sin6_addr)
                                                          : static_cast<const void*>(&v4->sin_addr);
  inet_ntop(address.ss_family, bytes, text.data(), text.size());
  return {text.data(), ntohs(v4->sin_port)};  // the port is at the same place in both families
}

/// Whether its connection goes to the headend, and to a request.
bool measuresDistance(const ProbeRequest& request) {
  return !request.proxied() && request.handshake == nullptr;
}

/// libcurl is C, and a callback must not be thrown through.
template <class Result, class Body>
Result unlessThrown(Result otherwise, Body body) {
  try {
    return body();
  } catch (...) {
    return otherwise;
  }
}

/// Lets the task replace an IPv4 address. libcurl's own object has room for an address of any kind.
void translate(ProbeTask* task, curl_sockaddr& chosen) {
  in6_addr replacement{};
  if (task == nullptr || chosen.family != AF_INET || !unlessThrown(false, [&] {
        return task->translated(reinterpret_cast<const sockaddr_in*>(&chosen.addr)->sin_addr,
                                replacement);
      })) {
    return;
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = reinterpret_cast<const sockaddr_in*>(&chosen.addr)->sin_port;
  address.sin6_addr = replacement;
  chosen.family = AF_INET6;
  chosen.addrlen = sizeof address;
  memcpy(reinterpret_cast<char*>(&chosen) + offsetof(curl_sockaddr, addr), &address,
         sizeof address);
}

}  // namespace

template <class Option, class T>
void HttpTransfer::set(Option option, T value) {
  if (m_setup == CURLE_OK) {
    m_setup = curl_easy_setopt(m_easy.get(), option, value);
  }
}

template <class T, class Info>
T HttpTransfer::get(Info info) const {
  T value{};
  return curl_easy_getinfo(m_easy.get(), info, &value) == CURLE_OK ? value : T{};
}

HttpTransfer::HttpTransfer(const ProbeRequest& request, bool keeps, const Names& names)
    : m_keeps(keeps),
      m_names(names),
      m_multi(makeMultiHandle(), [](void* multi) { curl_multi_cleanup(multi); }),
      m_easy(curl_easy_init(), curl_easy_cleanup) {
  if (!m_multi || !m_easy ||
      curl_multi_setopt(m_multi.get(), CURLMOPT_MAXCONNECTS, MaxConnections) != CURLM_OK) {
    m_setup = CURLE_OUT_OF_MEMORY;
    return;
  }
  m_setup = setUpTransfer(m_easy.get(), request);
  set(CURLOPT_SHARE, names.get());
  if (request.handshake == nullptr) {
    static_assert(sizeof m_failure == CURL_ERROR_SIZE);
    set(CURLOPT_ERRORBUFFER, m_failure.data());
  }
  setUpCallbacks();
  // One with a login carries credentials, of which no copy is made.
  if (request.isDirect() ? request.tellsRequest : !request.secure && !request.logsIn()) {
    setUpTelling();
  }
}

HttpTransfer::~HttpTransfer() { detach(); }

bool HttpTransfer::isCancelled() const {
  return m_request->task != nullptr && m_request->task->isCancelled();
}

long long HttpTransfer::sinceStart(Clock::time_point time) const {
  return std::chrono::duration_cast<microseconds>(time - m_request->start).count();
}

/// Tells the task that the connection stands.
void HttpTransfer::noteConnection() {
  if (m_stands || m_request->task == nullptr || m_request->report == nullptr) {
    return;
  }
  const auto found = std::find_if(m_opened.begin(), m_opened.end(), [](const Attempt& attempt) {
    return attempt.socket != NoSocket && isAnswered(attempt.socket);
  });
  m_stands = found != m_opened.end() || m_outcome.requestUs > 0;
  if (m_stands && !m_request->proxied()) {
    unlessThrown(0, [&] {
      m_request->task->connected(
          *m_request->report, found != m_opened.end() ? smallestRoundTrip(found->socket) : Unknown);
      return 0;
    });
  }
}

/// Asks the task how long to wait for an answer, and leaves what has been silent for longer. An
/// attempt that is left fails, and libcurl turns to the next address if there is one.
void HttpTransfer::checkPatience() {
  const auto current = Clock::now();
  if (m_stands || m_hasEnded || m_request->proxied()) {
    return;
  }
  if (current - m_startedAt >= m_patience.stand) {
    m_outcome.silent = true;
    end(CURLE_OPERATION_TIMEDOUT);
  } else if (m_openedCount > 0 && current >= m_nextLook) {
    askPatience(std::chrono::duration_cast<milliseconds>(current - m_firstOpened));
    const auto again = m_firstOpened + m_patience.again;
    const auto next = current + ConnectPatience::NextLook;
    m_nextLook = again > current ? std::min<Clock::time_point>(again, next) : next;
    for (const Attempt& attempt : m_opened) {
      if (attempt.socket != NoSocket && current - attempt.start >= m_patience.giveUp) {
        m_wasLeft = true;
        shutdown(attempt.socket, SHUT_RDWR);
      }
    }
  }
}

void HttpTransfer::askPatience(milliseconds waited) {
  ProbeTask* const task = m_request->task;
  if (task == nullptr || m_request->report == nullptr || m_request->proxied()) {
    return;
  }
  m_patience =
      unlessThrown(ConnectPatience(), [&] { return task->unanswered(*m_request->report, waited); });
  if (!ProbeSettings::leavesSilent()) {
    m_patience = ConnectPatience();
  }
}

bool HttpTransfer::send(const ProbeRequest& request, Clock::time_point limit, HttpTransfer* rival,
                        bool mayStop) {
  m_request = &request;
  start();
  for (;;) {
    bool isUnderWay = false;
    for (HttpTransfer* const one : {this, rival}) {
      if (one != nullptr && !one->m_hasEnded) {
        one->step();
        one->noteConnection();
        isUnderWay = isUnderWay || !one->m_hasEnded;
      }
    }
    const bool isSecond = rival != nullptr && !rival->m_outcome.reused;
    if (hasAnswer() || (isSecond && (wasHeard() || rival->wasHeard())) ||
        (rival != nullptr && rival->hasAnswer()) || !isUnderWay || Clock::now() >= limit ||
        (mayStop && wantsAnother())) {
      return hasAnswer();
    }
    (m_hasEnded ? rival : this)->checkPatience();
    int ready = 0;
    const milliseconds longest = longestWait(limit);
    const bool waited = wait(rival != nullptr ? std::min(longest, RivalPoll) : longest, ready);
    for (HttpTransfer* const one : {this, rival}) {
      if (one != nullptr && !one->m_hasEnded && (!waited || isCancelled())) {
        one->end(waited ? CURLE_ABORTED_BY_CALLBACK : CURLE_OUT_OF_MEMORY);
      }
    }
  }
}

void HttpTransfer::start() {
  m_hasEnded = false;
  m_outcome = ProbeOutcome();
  m_outcome.reused = m_socket != NoSocket;
  m_outcome.askedProxy = !m_request->secure && m_request->logsIn();
  AnswerHead::Expectations expects;
  expects.tunnel = m_request->secure && m_request->proxied();
  expects.logIn = m_request->logsIn();
  expects.body = m_keeps;
  m_head = AnswerHead(expects);
  m_firstByteMark = 0;
  m_triedAddresses = 0;
  m_startedAt = Clock::now();
  if (!m_stands) {
    askPatience(milliseconds(0));
  }
  m_tlsWatch.setEnd(m_request->deadline);
  const milliseconds left = m_request->timeLeft();
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(left.count()));
  if (m_setup != CURLE_OK) {
    end(m_setup);
  } else if (isCancelled()) {
    end(CURLE_ABORTED_BY_CALLBACK);
  } else if (left.count() <= 0) {
    end(CURLE_OPERATION_TIMEDOUT);
  } else {
    m_attached = curl_multi_add_handle(m_multi.get(), m_easy.get()) == CURLM_OK;
    if (!m_attached) {
      end(CURLE_OUT_OF_MEMORY);
    }
  }
}

/// Lets libcurl do what can be done without waiting.
void HttpTransfer::step() {
  int running = 1;
  const CURLMcode state = curl_multi_perform(m_multi.get(), &running);
  m_lookup.noteStart();
  noteFirstByte();
  if (state != CURLM_OK) {
    end(state == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_BAD_FUNCTION_ARGUMENT);
  } else if (running == 0) {
    end(resultOfEnded());
  } else if (m_keeps && m_head.isComplete()) {
    m_headAt = Clock::now();
    end(CURLE_OK);  // the body is for later
  }
}

void HttpTransfer::end(unsigned int code) {
  m_lookup.end(code == CURLE_COULDNT_RESOLVE_HOST || code == CURLE_COULDNT_RESOLVE_PROXY);
  m_hasEnded = true;
  m_outcome.code = code;
  m_outcome.endedUs = now();
  if (code == CURLE_COULDNT_RESOLVE_HOST || code == CURLE_COULDNT_RESOLVE_PROXY) {
    m_outcome.shortage = shortageOfLookUp();
  }
}

/// libcurl does not tell what a look-up lacked: a pair of sockets, or its thread.
Shortage HttpTransfer::shortageOfLookUp() const {
  std::array<int, 2> pair{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
    return Shortages::fromErrno(errno);
  }
  ::close(pair[0]);
  ::close(pair[1]);
  const bool lacksThread =
      m_lookup.isRefused() ||
      std::string_view(m_failure.data()).find("thread failed") != std::string_view::npos;
  return lacksThread ? Shortage::Threads : Shortage::None;
}

/// The result of a transfer that libcurl has ended. Once the head is complete, an error in the
/// body, which we may have refused ourselves, does not matter.
unsigned int HttpTransfer::resultOfEnded() {
  int left = 0;
  const CURLMsg* message = curl_multi_info_read(m_multi.get(), &left);
  const CURLcode result = message != nullptr ? message->data.result : CURLE_OUT_OF_MEMORY;
  if (m_tlsWatch.isLate() && !m_head.isComplete()) {
    return CURLE_OPERATION_TIMEDOUT;
  }
  if (m_wasLeft && result == CURLE_COULDNT_CONNECT) {
    m_outcome.silent = true;
    return CURLE_OPERATION_TIMEDOUT;
  }
  const bool isBodys = m_keeps || result == CURLE_WRITE_ERROR;
  return m_head.isComplete() && isBodys ? CURLE_OK : result;
}

/// Takes the first byte's time on the clock that times the request: two clocks that start at
/// different moments would make the difference too small.
void HttpTransfer::noteFirstByte() {
  const auto mark = get<curl_off_t>(CURLINFO_STARTTRANSFER_TIME_T);
  if (mark != m_firstByteMark) {
    m_firstByteMark = mark;
    m_outcome.firstByteUs = now();
  }
}

/// Waits for the network or for the end of the task.
bool HttpTransfer::wait(milliseconds longest, int& ready) {
  const int task = m_request->task != nullptr ? m_request->task->cancelDescriptor() : NoSocket;
  curl_waitfd cancel{task, CURL_WAIT_POLLIN, 0};
  return curl_multi_poll(m_multi.get(), &cancel, task != NoSocket ? 1 : 0,
                         static_cast<int>(longest.count()), &ready) == CURLM_OK;
}

milliseconds HttpTransfer::longestWait(Clock::time_point limit) const {
  const auto current = Clock::now();
  milliseconds longest = std::min(std::chrono::ceil<milliseconds>(limit - current), MaxPoll);
  if (m_outcome.requestUs == 0) {
    const auto half = m_startedAt + (m_request->deadline - m_startedAt) / 2;
    const auto toHalf = std::chrono::ceil<milliseconds>(half - current) + milliseconds(1);
    longest = std::min({longest,
                        m_lost           ? NextAddress
                        : current > half ? LaterAddress
                                         : toHalf,
                        toNextLook(current)});
  }
  return longest;
}

bool HttpTransfer::wantsAnother() const {
  return isUnanswered() && Clock::now() - m_firstOpened >= m_patience.again;
}

milliseconds HttpTransfer::toNextLook(Clock::time_point current) const {
  const auto next = m_openedCount > 0 ? m_nextLook : m_startedAt + m_patience.stand;
  return m_stands || m_request->task == nullptr || m_request->proxied()
             ? MaxPoll
             : std::max(std::chrono::ceil<milliseconds>(next - current), milliseconds(0));
}

bool HttpTransfer::isReadyFor(const ProbeRequest& request) {
  m_request = &request;
  if (m_attached) {
    fetchBody();
  }
  char byte = 0;
  return m_socket != NoSocket && (m_tls == nullptr || m_tlsWatch.isTrustCurrent()) &&
         (m_tls == nullptr || SSL_has_pending(m_tls) == 0) &&
         recv(m_socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) < 0;
}

/// Brings in what is left of the answer, or gives the connection up.
void HttpTransfer::fetchBody() {
  const Clock::time_point start = Clock::now();
  const microseconds roundTrip(m_rttUs != Unknown ? m_rttUs : m_tookUs);
  const Clock::time_point end = m_headAt + std::clamp(roundTrip, LeastBodyWait, MostBodyWait);
  m_tlsWatch.setEnd(std::max(end, start + LeastBodyWait));
  int running = 1;
  int ready = 0;
  milliseconds left(1);
  // Bytes that have arrived are read even after the limit.
  while ((left.count() > 0 || ready > 0) && !isCancelled() &&
         curl_multi_perform(m_multi.get(), &running) == CURLM_OK && running != 0) {
    left = std::max(std::chrono::ceil<milliseconds>(end - Clock::now()), milliseconds());
    if (!wait(left, ready)) {
      break;
    }
  }
  detach();
}

/// Takes the transfer from libcurl, which closes a connection that is in the midst of an answer.
void HttpTransfer::detach() {
  if (m_attached) {
    m_attached = false;
    curl_multi_remove_handle(m_multi.get(), m_easy.get());
  }
}

ProbeOutcome HttpTransfer::takeOutcome() {
  if (m_easy) {
    dropCredentials(m_easy.get());
    m_outcome.httpStatus = get<long>(CURLINFO_RESPONSE_CODE);
    m_outcome.tunnelStatus = get<long>(CURLINFO_HTTP_CONNECTCODE);
    m_outcome.offeredLogIns = get<long>(CURLINFO_PROXYAUTH_AVAIL);
    m_outcome.osError = m_outcome.silent ? 0 : get<long>(CURLINFO_OS_ERRNO);
    if (const char* address = get<const char*>(CURLINFO_PRIMARY_IP); address != nullptr) {
      m_outcome.address = address;
      m_outcome.addressPort = static_cast<unsigned short>(get<long>(CURLINFO_PRIMARY_PORT));
    }
    curl_header* location = nullptr;
    constexpr int LastRequest = -1;
    if (curl_easy_header(m_easy.get(), "Location", 0, CURLH_HEADER, LastRequest, &location) ==
        CURLHE_OK) {
      m_outcome.location = location->value;
    }
    collectTimes();
  }
  m_outcome.clientCertificateAsked = m_tlsWatch.isClientCertificateAsked();
  m_outcome.issuer = m_tlsWatch.untrustedIssuer();
  m_outcome.headers = m_head.takeLines();
  if (!(hasAnswer() && m_keeps)) {
    detach();
  }
  return std::move(m_outcome);
}

void HttpTransfer::collectTimes() {
  if (!m_outcome.reused) {
    const auto connected = get<curl_off_t>(CURLINFO_CONNECT_TIME_T);
    const auto secured = get<curl_off_t>(CURLINFO_APPCONNECT_TIME_T);
    // The request went out afterwards, on our own clock.
    const auto latest = m_outcome.requestUs > 0 ? m_outcome.requestUs : m_outcome.endedUs;
    m_outcome.connectUs = connected == 0 ? 0 : std::min<long long>(connected + m_clockUs, latest);
    m_outcome.tlsUs = secured == 0 ? 0 : std::min<long long>(secured + m_clockUs, latest);
    // Some versions count the handshake into the time to connect, and give none where it failed.
    if (m_outcome.tlsStartUs > 0 &&
        (m_outcome.connectUs == 0 || m_outcome.connectUs > m_outcome.tlsStartUs)) {
      m_outcome.connectUs = m_outcome.tlsStartUs;
    }
    m_outcome.openedUs = m_openedUs;
    m_tookUs = std::max(m_outcome.connectUs - m_openedUs, 0LL);
  }
  m_outcome.connectTookUs = m_tookUs;
  // A connection that is open is asked now; one that has closed was asked as it did.
  if (m_socket != NoSocket) {
    m_rttUs = smallestRoundTrip(m_socket);
  }
  m_outcome.openingUs = m_openingUs;
  m_outcome.networkRttUs = m_rttUs;
}

void HttpTransfer::setUpCallbacks() {
  set(
      CURLOPT_HEADERFUNCTION, +[](char* data, std::size_t size, std::size_t count, void* self) {
        const std::string_view line(data, size * count);
        return unlessThrown(std::size_t{0}, [&] {
          return static_cast<HttpTransfer*>(self)->m_head.add(line) ? line.size() : 0;
        });
      });
  set(CURLOPT_HEADERDATA, this);
  set(
      CURLOPT_WRITEFUNCTION, +[](char*, std::size_t size, std::size_t count, void* self) {
        const std::size_t length = size * count;
        return static_cast<HttpTransfer*>(self)->m_head.addBody(length) ? length : 0;
      });
  set(CURLOPT_WRITEDATA, this);
  set(
      CURLOPT_RESOLVER_START_FUNCTION, +[](void*, void*, void* self) {
        HttpTransfer& transfer = *static_cast<HttpTransfer*>(self);
        constexpr int Refused = 1;
        return unlessThrown(Refused, [&] {
          return !transfer.m_request->needsName() || transfer.m_lookup.begin() ? 0 : Refused;
        });
      });
  set(CURLOPT_RESOLVER_START_DATA, this);
  set(
      CURLOPT_OPENSOCKETFUNCTION, +[](void* self, curlsocktype, curl_sockaddr* address) {
        HttpTransfer& transfer = *static_cast<HttpTransfer*>(self);
        translate(transfer.m_request->task, *address);
        transfer.m_outcome.toThisMachine =
            transfer.m_outcome.toThisMachine || leadsToThisMachine(address->addr);
        return transfer.open(address->family, address->socktype, address->protocol);
      });
  set(CURLOPT_OPENSOCKETDATA, this);
  set(
      CURLOPT_CLOSESOCKETFUNCTION, +[](void* self, curl_socket_t connection) {
        return static_cast<HttpTransfer*>(self)->close(connection);
      });
  set(CURLOPT_CLOSESOCKETDATA, this);
  set(
      CURLOPT_PREREQFUNCTION, +[](void* self, char*, char*, int, int localPort) {
        static_cast<HttpTransfer*>(self)->noteRequest(localPort);
        return CURL_PREREQFUNC_OK;
      });
  set(CURLOPT_PREREQDATA, this);
  set(
      CURLOPT_SSL_CTX_FUNCTION, +[](CURL*, void* context, void* self) {
        HttpTransfer& transfer = *static_cast<HttpTransfer*>(self);
        transfer.m_outcome.tlsStartUs = transfer.now();
        transfer.noteOpening();
        return unlessThrown(CURLE_OUT_OF_MEMORY, [&] {
          const bool done = transfer.m_tlsWatch.attach(static_cast<SSL_CTX*>(context),
                                                       transfer.m_request->handshake);
          return done ? CURLE_OK : CURLE_OUT_OF_MEMORY;
        });
      });
  set(CURLOPT_SSL_CTX_DATA, this);
}

/// libcurl itself does not tell whether an exception of the environment, or a SOCKS proxy, leaves
/// the request to the headend.
void HttpTransfer::setUpTelling() {
  set(
      CURLOPT_DEBUGFUNCTION,
      +[](CURL*, curl_infotype type, char* data, std::size_t size, void* self) {
        return unlessThrown(0, [&] {
          HttpTransfer& transfer = *static_cast<HttpTransfer*>(self);
          if (type != CURLINFO_HEADER_OUT) {
            return 0;
          }
          if (transfer.m_request->isDirect()) {
            transfer.m_outcome.request.assign(data, size);
          } else if (std::string_view(data, size).starts_with("GET http://")) {
            transfer.m_outcome.askedProxy = true;  // RFC 9112, section 3.2.2
          }
          return 0;
        });
      });
  set(CURLOPT_DEBUGDATA, this);
  set(CURLOPT_VERBOSE, 1L);
}

/// Programs that the host starts must not inherit a connection, which would stay open as long as
/// they run. libcurl must not repeat a request that a kept connection loses.
int HttpTransfer::open(int family, int type, int protocol) {
  m_lookup.end(true);
  if (m_outcome.reused || ++m_triedAddresses > MostAddresses) {
    return NoSocket;
  }
  ProbeTask* const task = m_request->task;
  if (m_openedUs == 0) {
    m_openedUs = now();
    m_clockUs = m_openedUs - get<curl_off_t>(CURLINFO_NAMELOOKUP_TIME_T);
    unlessThrown(false, [&] {
      if (task != nullptr && measuresDistance(*m_request)) {
        task->noteConnecting({m_request->host, m_request->port});
      }
      return true;
    });
  }
  const int opened = socket(family, type | SOCK_CLOEXEC, protocol);
  if (opened == NoSocket && m_outcome.shortage == Shortage::None) {
    m_outcome.shortage = Shortages::fromErrno(errno);
  }
  if (opened != NoSocket && task != nullptr &&
      !unlessThrown(false, [&] { return task->socketOpened(opened, family); })) {
    ::close(opened);
    return NoSocket;
  }
  const Attempt attempt{opened, Clock::now()};
  if (m_openedCount == 0) {
    m_firstOpened = attempt.start;
    m_nextLook = attempt.start + ConnectPatience::FirstLook;
  }
  m_opened.at(m_openedCount++ % m_opened.size()) = attempt;
  return opened;
}

/// Of several sockets (a name with two families), those that lost the race close before the
/// connection's own, so the last one with a round trip is the connection's.
int HttpTransfer::close(int connection) {
  const long long rtt = smallestRoundTrip(connection);
  m_lost = true;
  for (Attempt& attempt : m_opened) {
    attempt.socket = attempt.socket == connection ? NoSocket : attempt.socket;
  }
  if (rtt != Unknown) {
    m_rttUs = rtt;
  }
  if (connection == m_socket) {
    m_socket = NoSocket;
    m_tls = nullptr;
  }
  return ::close(connection);
}

/// Takes the kernel's first sample of the connection that stands, before data goes out on it: later
/// ones can be acknowledgements that were sent ahead.
void HttpTransfer::noteOpening() {
  if (m_openingUs != Unknown || !measuresDistance(*m_request)) {
    return;
  }
  for (const Attempt& attempt : m_opened) {
    const int connection = attempt.socket;
    if (connection == NoSocket || !isAnswered(connection)) {
      continue;
    }
    const long long rtt = smallestRoundTrip(connection);
    m_outcome.openedAgain = m_outcome.openedAgain || isRepeated(connection);
    if (rtt == Unknown || m_outcome.openedAgain) {
      continue;
    }
    m_openingUs = rtt;
    unlessThrown(false, [&] {
      if (m_request->task != nullptr) {
        m_request->task->noteOpened({m_request->host, m_request->port}, peerOf(connection), rtt);
      }
      return true;
    });
  }
}

/// A connection, new or kept, is ready for the request. libcurl notes its time only after sending:
/// a thread delayed in between would find the answer there already, and on a busy machine a server
/// would seem the nearest.
void HttpTransfer::noteRequest(int localPort) {
  if (m_outcome.requestUs == 0) {
    m_outcome.requestUs = now();
  }
  noteOpening();
  m_triedAddresses = 0;
  // Only a finished transfer knows its socket.
  const auto* const found = std::find_if(
      m_opened.begin(), m_opened.end(),
      [localPort](const Attempt& attempt) { return portOf(attempt.socket) == localPort; });
  m_socket = found == m_opened.end() ? NoSocket : found->socket;
  const auto* tls = get<curl_tlssessioninfo*>(CURLINFO_TLS_SSL_PTR);
  m_tls = m_request->secure && tls != nullptr ? static_cast<SSL*>(tls->internals) : nullptr;
}

HttpTransfer::Names HttpTransfer::makeNames() {
  Names names(curl_share_init(), [](void* share) { curl_share_cleanup(share); });
  if (names) {
    curl_share_setopt(names.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  }
  return names;
}
