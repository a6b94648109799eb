// Requests on libcurl. A request is over as soon as the head of its answer is complete. What the
// peer sends is bounded in size by `AnswerHead` and in time by libcurl's time-out; the address,
// trust and secrecy of a request are fixed when the transfer is made, so a connection cannot come
// to serve another one.

#include "vpn/Common/IP/HttpTransfer.h"

#include <curl/curl.h>
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

#include "vpn/Common/IP/KernelTrips.h"
#include "vpn/Common/IP/MultiHandle.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/IP/TransferSetup.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// A transfer has one connection. More are open only while libcurl tries several addresses.
constexpr long MaxConnections = 1;

// libcurl knows itself when it has to act; this only keeps a wait from being endless.
constexpr milliseconds MaxPoll(1000);

// A name may have any number of addresses. So many are tried, those of a rotation among gateways
// and no crowd of strangers.
constexpr unsigned int MostAddresses = 16;

// libcurl tries the next address of a name (after a refusal, or half of the time left) only when it
// is called, so it is called this often.
constexpr milliseconds NextAddress(10);
constexpr milliseconds LaterAddress(50);

constexpr long long Unknown = -1;

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

HttpTransfer::HttpTransfer(const ProbeRequest& request)
    : m_request(request),
      m_multi(makeMultiHandle(), [](void* multi) { curl_multi_cleanup(multi); }),
      m_easy(curl_easy_init(), curl_easy_cleanup) {
  if (!m_multi || !m_easy ||
      curl_multi_setopt(m_multi.get(), CURLMOPT_MAXCONNECTS, MaxConnections) != CURLM_OK) {
    m_setup = CURLE_OUT_OF_MEMORY;
    return;
  }
  m_setup = setUpTransfer(m_easy.get(), request);
  if (request.handshake == nullptr) {
    static_assert(sizeof m_failure == CURL_ERROR_SIZE);
    set(CURLOPT_ERRORBUFFER, m_failure.data());
  }
  setUpCallbacks();
  // One with a login carries credentials, of which no copy is made.
  if (request.proxied() && !request.secure && !request.logsIn()) {
    setUpTelling();
  }
}

HttpTransfer::~HttpTransfer() { detach(); }

bool HttpTransfer::isCancelled() const {
  return m_request.task != nullptr && m_request.task->isCancelled();
}

long long HttpTransfer::now() const {
  return std::chrono::duration_cast<microseconds>(Clock::now() - m_request.start).count();
}

void HttpTransfer::send() {
  start();
  while (!m_hasEnded) {
    step();
    if (m_hasEnded) {
      return;
    }
    const bool waited = wait();
    if (!waited || isCancelled()) {
      end(waited ? CURLE_ABORTED_BY_CALLBACK : CURLE_OUT_OF_MEMORY);
    }
  }
}

void HttpTransfer::start() {
  m_outcome.askedProxy = !m_request.secure && m_request.logsIn();
  AnswerHead::Expectations expects;
  expects.tunnel = m_request.secure && m_request.proxied();
  expects.logIn = m_request.logsIn();
  m_head = AnswerHead(expects);
  m_startedAt = Clock::now();
  m_tlsWatch.setEnd(m_request.deadline);
  const milliseconds left = m_request.timeLeft();
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
  return m_head.isComplete() && result == CURLE_WRITE_ERROR ? CURLE_OK : result;
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
bool HttpTransfer::wait() {
  const int task = m_request.task != nullptr ? m_request.task->cancelDescriptor() : NoSocket;
  curl_waitfd cancel{task, CURL_WAIT_POLLIN, 0};
  return curl_multi_poll(m_multi.get(), &cancel, task != NoSocket ? 1 : 0,
                         static_cast<int>(longestWait().count()), nullptr) == CURLM_OK;
}

milliseconds HttpTransfer::longestWait() const {
  if (m_outcome.requestUs != 0) {
    return MaxPoll;
  }
  const auto current = Clock::now();
  const auto half = m_startedAt + (m_request.deadline - m_startedAt) / 2;
  const auto toHalf = std::chrono::ceil<milliseconds>(half - current) + milliseconds(1);
  return std::min(MaxPoll, m_lost ? NextAddress : current > half ? LaterAddress : toHalf);
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
    m_outcome.osError = get<long>(CURLINFO_OS_ERRNO);
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
  detach();
  return std::move(m_outcome);
}

void HttpTransfer::collectTimes() {
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
  m_outcome.connectTookUs = std::max(m_outcome.connectUs - m_openedUs, 0LL);
  // A connection that is open is asked now; one that has closed was asked as it did.
  curl_socket_t open = CURL_SOCKET_BAD;
  if (curl_easy_getinfo(m_easy.get(), CURLINFO_ACTIVESOCKET, &open) == CURLE_OK &&
      open != CURL_SOCKET_BAD) {
    m_rttUs = KernelTrips::of(open).smallestUs;
  }
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
          return !transfer.m_request.needsName() || transfer.m_lookup.begin() ? 0 : Refused;
        });
      });
  set(CURLOPT_RESOLVER_START_DATA, this);
  set(
      CURLOPT_OPENSOCKETFUNCTION, +[](void* self, curlsocktype, curl_sockaddr* address) {
        HttpTransfer& transfer = *static_cast<HttpTransfer*>(self);
        translate(transfer.m_request.task, *address);
        transfer.m_outcome.toThisMachine =
            transfer.m_outcome.toThisMachine || KernelTrips::leadsToThisMachine(address->addr);
        return transfer.open(address->family, address->socktype, address->protocol);
      });
  set(CURLOPT_OPENSOCKETDATA, this);
  set(
      CURLOPT_CLOSESOCKETFUNCTION, +[](void* self, curl_socket_t connection) {
        return static_cast<HttpTransfer*>(self)->close(connection);
      });
  set(CURLOPT_CLOSESOCKETDATA, this);
  set(
      CURLOPT_PREREQFUNCTION, +[](void* self, char*, char*, int, int) {
        static_cast<HttpTransfer*>(self)->noteRequest();
        return CURL_PREREQFUNC_OK;
      });
  set(CURLOPT_PREREQDATA, this);
  set(
      CURLOPT_SSL_CTX_FUNCTION, +[](CURL*, void* context, void* self) {
        HttpTransfer& transfer = *static_cast<HttpTransfer*>(self);
        transfer.m_outcome.tlsStartUs = transfer.now();
        return unlessThrown(CURLE_OUT_OF_MEMORY, [&] {
          const bool done = transfer.m_tlsWatch.attach(static_cast<SSL_CTX*>(context),
                                                       transfer.m_request.handshake);
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
          if (std::string_view(data, size).starts_with("GET http://")) {
            transfer.m_outcome.askedProxy = true;  // RFC 9112, section 3.2.2
          }
          return 0;
        });
      });
  set(CURLOPT_DEBUGDATA, this);
  set(CURLOPT_VERBOSE, 1L);
}

/// Programs that the host starts must not inherit a connection, which would stay open as long as
/// they run.
int HttpTransfer::open(int family, int type, int protocol) {
  m_lookup.end(true);
  if (++m_triedAddresses > MostAddresses) {
    return NoSocket;
  }
  if (m_openedUs == 0) {
    m_openedUs = now();
    m_clockUs = m_openedUs - get<curl_off_t>(CURLINFO_NAMELOOKUP_TIME_T);
  }
  const int opened = socket(family, type | SOCK_CLOEXEC, protocol);
  if (opened == NoSocket && m_outcome.shortage == Shortage::None) {
    m_outcome.shortage = Shortages::fromErrno(errno);
  }
  if (opened != NoSocket && m_request.task != nullptr &&
      !unlessThrown(false, [&] { return m_request.task->socketOpened(opened, family); })) {
    ::close(opened);
    return NoSocket;
  }
  return opened;
}

/// Of several sockets (a name with two families), those that lost the race close before the
/// connection's own, so the last one with a round trip is the connection's.
int HttpTransfer::close(int connection) {
  const long long rtt = KernelTrips::of(connection).smallestUs;
  m_lost = true;
  if (rtt != Unknown) {
    m_rttUs = rtt;
  }
  return ::close(connection);
}

/// A connection is ready for the request. libcurl notes its time only after sending: a thread
/// delayed in between would find the answer there already, and on a busy machine a server would
/// seem the nearest.
void HttpTransfer::noteRequest() {
  if (m_outcome.requestUs == 0) {
    m_outcome.requestUs = now();
  }
  m_triedAddresses = 0;
}
