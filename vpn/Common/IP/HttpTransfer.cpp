// Requests on libcurl. A transfer is left as soon as the head of the answer is complete. Where the
// connection is to be kept, the rest of a short answer is fetched when the next request comes, so
// that a body never holds up the probe that it answers. What the peer sends is bounded in size by
// `AnswerHead` and in time by libcurl's time-out; the address, trust and secrecy of a request are
// fixed when the transfer is made, so a connection cannot come to serve another one.

#include "vpn/Common/IP/HttpTransfer.h"

#include <curl/curl.h>
#include <linux/tcp.h>  // glibc's netinet/tcp.h ends before tcpi_min_rtt
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <string_view>
#include <utility>

#include "vpn/Common/IP/AnswerHead.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/IP/TransportMemory.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A head fits, and there may be a thousand probes at a time. Both are the least that libcurl takes.
constexpr long kReceiveBufferBytes = 1024;
constexpr long kSendBufferBytes = 16L * 1024;

// A transfer has one connection. More are open only while libcurl tries several addresses.
constexpr long kMaxConnections = 1;

// How long the rest of a short answer is waited for, counted from its head: one round trip, which
// is what a new connection would take at least. The bounds are for a network that is nearer than
// two packets of a server are to each other, and for a peer that pretends to be far away.
constexpr microseconds kLeastBodyWait(1000);
constexpr microseconds kMostBodyWait(250'000);

// libcurl knows itself when it has to act; this only keeps a wait from being endless.
constexpr milliseconds kMaxPoll(1000);

// libcurl turns to the next address of a name when it is called, not when one has refused, or has
// had half of the time that is left.
constexpr milliseconds kNextAddress(10);
constexpr milliseconds kLaterAddress(50);

// Parts of a probe's time-out: how long a kept connection may be silent before a fresh one is tried
// in the rest, and how soon a server has to answer for its connection to be kept at all.
constexpr int kSilentPart = 2;
constexpr int kPromptPart = 4;

// The ways to log in to a proxy that take a password.
constexpr long kPasswordLogIns = static_cast<long>(CURLAUTH_BASIC | CURLAUTH_NTLM);

constexpr long long kUnknown = -1;

/// libcurl's own process-wide state. It is never torn down: a probe may still run at exit. Its
/// memory is wiped before it is given back, for it holds credentials in many forms and wipes none
/// itself.
bool initialiseTransport() {
  static const bool done =
      curl_global_init_mem(CURL_GLOBAL_DEFAULT, &TransportMemory::Allocate, &TransportMemory::Free,
                           &TransportMemory::Resize, &TransportMemory::Duplicate,
                           &TransportMemory::AllocateZeroed) == CURLE_OK;
  return done;
}

/// Whether OpenSSL has come up with `initialiseTransport`. If it got no memory for that it stays
/// down, does not say so to libcurl, and crashes when it is used.
bool isTlsUsable() { return OSSL_LIB_CTX_get0_global_default() != nullptr; }

/// The smallest round trip that the kernel saw on a connection, in microseconds.
long long smallestRoundTrip(curl_socket_t connection) {
  tcp_info info{};
  socklen_t length = sizeof info;
  constexpr socklen_t kNeeded = offsetof(tcp_info, tcpi_min_rtt) + sizeof info.tcpi_min_rtt;
  // All ones stand for a connection without a sample; kernels that do not measure leave the zero.
  if (getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || length < kNeeded ||
      info.tcpi_min_rtt == ~0U || info.tcpi_min_rtt == 0) {
    return kUnknown;
  }
  return info.tcpi_min_rtt;
}

long long since(Clock::time_point start) {
  return std::chrono::duration_cast<microseconds>(Clock::now() - start).count();
}

PROBE_OUTCOME endedBy(CURLcode code) {
  PROBE_OUTCOME outcome;
  outcome.code = code;
  return outcome;
}

int portOf(curl_socket_t connection) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (getsockname(connection, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  // The port is at the same place in both families.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

/// The sockets that were opened for one request. libcurl tries several addresses at once, and does
/// not always tell when it closes those that lost.
class Candidates {
 public:
  void add(curl_socket_t opened) {
    auto* free = std::find(m_sockets.begin(), m_sockets.end(), CURL_SOCKET_BAD);
    *(free == m_sockets.end() ? m_sockets.begin() : free) = opened;
    ++m_count;
  }
  void remove(curl_socket_t closed) {
    std::replace(m_sockets.begin(), m_sockets.end(), closed, CURL_SOCKET_BAD);
  }
  bool isEmpty() const { return m_count == 0; }

  /// The one that has become the connection, which starts at this port of ours.
  curl_socket_t connected(int port) const {
    if (m_count == 1) {
      return m_sockets.front();
    }
    const auto* found =
        std::find_if(m_sockets.begin(), m_sockets.end(),
                     [port](curl_socket_t socket) { return portOf(socket) == port; });
    return found == m_sockets.end() ? CURL_SOCKET_BAD : *found;
  }

 private:
  // The last few addresses that were tried, more than are tried at a time.
  std::array<curl_socket_t, 4> m_sockets{CURL_SOCKET_BAD, CURL_SOCKET_BAD, CURL_SOCKET_BAD,
                                         CURL_SOCKET_BAD};
  std::size_t m_count = 0;
};

}  // namespace

/// The libcurl handles of a transfer and what their callbacks gather. The connection lives as long
/// as they, and its socket reports when it closes.
class HttpTransfer::Impl {
 public:
  Impl(const PROBE_REQUEST& request, Connection connection);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  bool serves(const PROBE_REQUEST& request) const;
  PROBE_OUTCOME perform(PROBE_REQUEST& request);

 private:
  /// What the callbacks gather of one attempt to send the request.
  struct GATHERED {
    Clock::time_point start;
    Clock::time_point end;          ///< when the time for it is over
    bool lost = false;              ///< a candidate has failed and libcurl may turn to the next
    bool late = false;              ///< the peer's TLS talk has gone on beyond that
    Clock::time_point silentUntil;  ///< what a kept connection has to say something by
    long long connectedUs = 0;
    long long tlsStartUs = 0;
    Candidates opened;
    /// How often a request was about to be sent, and when it first was.
    unsigned int requests = 0;
    long long requestUs = 0;
    /// The head is complete and the rest of the answer is under way.
    bool bodyDue = false;
    long long closedRttUs = kUnknown;
    std::string request;
    AnswerHead head;
  };

  /// What is known of a connection beyond the attempt that opened it.
  struct CONNECTION {
    bool clientCertificateAsked = false;
    long long tookUs = 0;
    long long rttUs = kUnknown;
  };

  template <class T>
  void set(CURLoption option, T value) {
    if (m_setup == CURLE_OK) {
      m_setup = curl_easy_setopt(m_easy.get(), option, value);
    }
  }
  template <class T>
  T get(CURLINFO info) const {
    T value{};
    return curl_easy_getinfo(m_easy.get(), info, &value) == CURLE_OK ? value : T{};
  }

  void setUp(const PROBE_REQUEST& request);
  void setUpTarget(const PROBE_REQUEST& request);
  void setUpProxy(const PROBE_REQUEST& request);
  void setUpTls();
  void setUpCallbacks();
  void setUpTelling(const PROBE_REQUEST& request);
  void dropCredentials();

  PROBE_OUTCOME attempt(const PROBE_REQUEST& request);
  CURLcode run();
  CURLcode resultOfEnded();
  CURLMcode wait(milliseconds longest, int& ready);
  bool isCancelled() const { return m_task != nullptr && m_task->IsCancelled(); }
  microseconds fetchBody();
  void detach();
  bool staysSilent() const;
  milliseconds longestWait() const;
  bool mayConnect(curl_socket_t opened, int family) const;
  bool isReused() const { return m_seen.requests > 0 && m_seen.opened.isEmpty(); }
  bool hasUnasked() const;
  bool lostKeptConnection(const PROBE_OUTCOME& outcome) const;
  void collect(PROBE_OUTCOME& outcome);
  void collectTimes(PROBE_OUTCOME& outcome);

  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self);
  static curl_socket_t onOpen(void* self, curlsocktype purpose, curl_sockaddr* address);
  static int onClose(void* self, curl_socket_t connection);
  static int onRequest(void* self, char* address, char* local, int port, int localPort);
  static int onTalk(CURL* handle, curl_infotype type, char* data, std::size_t size, void* self);
  static CURLcode onTlsContext(CURL* handle, void* context, void* self);
  static int onClientCertificate(SSL* connection, X509** certificate, EVP_PKEY** key);
  static void onTlsMessage(int sent, int version, int type, const void* data, std::size_t length,
                           SSL* connection, void* self);
  static int contextIndex();

  const PROBE_TARGET m_target;
  const bool m_keeps;
  /// The one of the request under way; null for none.
  ProbeTask* m_task = nullptr;
  /// The rest of an answer is worth waiting for.
  bool m_wantsBody;
  /// The server took long for its last answer.
  bool m_slow = false;
  ProbeSettings::Trust m_trust;
  CURLcode m_setup = CURLE_OK;
  GATHERED m_seen;
  CONNECTION m_connection;
  /// The connection's, while it is open and once a request could be sent.
  curl_socket_t m_socket = CURL_SOCKET_BAD;
  /// The same of a secure one.
  SSL* m_tls = nullptr;
  /// The easy handle is with the multi handle. After an attempt it is only if a body is due.
  bool m_attached = false;
  Clock::time_point m_headAt;
  // Last, so that they go first: the callbacks of the closing sockets write to the others.
  const std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> m_multi;
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> m_easy;
};

HttpTransfer::Impl::Impl(const PROBE_REQUEST& request, Connection connection)
    : m_target(request),
      m_keeps(connection == Connection::Kept),
      m_wantsBody(m_keeps),
      m_multi(curl_multi_init(), curl_multi_cleanup),
      m_easy(curl_easy_init(), curl_easy_cleanup) {
  if (!m_multi || !m_easy ||
      curl_multi_setopt(m_multi.get(), CURLMOPT_MAXCONNECTS, kMaxConnections) != CURLM_OK) {
    m_setup = CURLE_OUT_OF_MEMORY;
    return;
  }
  setUp(request);
}

HttpTransfer::Impl::~Impl() { detach(); }

bool HttpTransfer::Impl::serves(const PROBE_REQUEST& request) const {
  return m_keeps && !m_slow && request.IsDirect() && request == m_target && !hasUnasked() &&
         (!request.secure || m_trust == ProbeSettings::TrustedCertificates());
}

/// Whether something has come on the kept connection after the last answer. Whatever it is, it must
/// not be taken for the answer to the next request.
bool HttpTransfer::Impl::hasUnasked() const {
  if (m_attached || m_socket == CURL_SOCKET_BAD) {
    return false;
  }
  char byte = 0;
  return (m_tls != nullptr && SSL_has_pending(m_tls) != 0) ||
         recv(m_socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) > 0;
}

PROBE_OUTCOME HttpTransfer::Impl::perform(PROBE_REQUEST& request) {
  m_task = request.task;
  if (m_attached && !request.Spend(fetchBody())) {
    return endedBy(CURLE_OPERATION_TIMEDOUT);
  }
  PROBE_OUTCOME outcome = attempt(request);
  // A server may close a connection that it has kept at any time, or forget it, so this says
  // nothing about the server yet: a new connection does.
  if (lostKeptConnection(outcome)) {
    m_wantsBody = m_wantsBody && !staysSilent();
    outcome = request.Spend(microseconds(outcome.totalUs)) ? attempt(request)
                                                           : endedBy(CURLE_OPERATION_TIMEDOUT);
  }
  // Where a new connection takes longer than would be left for it, none is kept.
  m_slow = microseconds(outcome.firstByteUs - outcome.requestUs) > request.timeLeft / kPromptPart ||
           (!outcome.reused && microseconds(outcome.firstByteUs) > request.timeLeft / kSilentPart);
  return outcome;
}

PROBE_OUTCOME HttpTransfer::Impl::attempt(const PROBE_REQUEST& request) {
  if (isCancelled()) {
    return endedBy(CURLE_ABORTED_BY_CALLBACK);
  }
  AnswerHead::Expectations expects;
  expects.tunnel = request.secure && request.Proxied();
  expects.logIn = request.Proxied() && !request.credentials->proxyUser.empty();
  expects.body = m_wantsBody;
  m_seen = GATHERED();
  m_seen.head = AnswerHead(expects);
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeLeft.count()));
  m_seen.start = Clock::now();
  m_seen.end = m_seen.start + request.timeLeft;
  m_seen.silentUntil = m_seen.start + request.timeLeft / kSilentPart;
  PROBE_OUTCOME outcome = endedBy(m_setup == CURLE_OK ? run() : m_setup);
  if (m_easy) {
    dropCredentials();
    collect(outcome);
  }
  if (!m_seen.bodyDue) {
    detach();
  }
  return outcome;
}

/// Drives the transfer to its end, or to the end of the head where the body is for later.
CURLcode HttpTransfer::Impl::run() {
  int running = 1;
  CURLMcode state = curl_multi_add_handle(m_multi.get(), m_easy.get());
  m_attached = state == CURLM_OK;
  int ready = 0;
  while (state == CURLM_OK) {
    state = curl_multi_perform(m_multi.get(), &running);
    if (state == CURLM_OK && running == 0) {
      return resultOfEnded();
    }
    if (state == CURLM_OK && m_wantsBody && m_seen.head.IsComplete()) {
      m_headAt = Clock::now();
      m_seen.bodyDue = true;
      return CURLE_OK;
    }
    if (state == CURLM_OK && staysSilent()) {
      return CURLE_GOT_NOTHING;
    }
    if (state == CURLM_OK) {
      state = wait(longestWait(), ready);
    }
    if (isCancelled()) {
      return CURLE_ABORTED_BY_CALLBACK;
    }
  }
  return state == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_BAD_FUNCTION_ARGUMENT;
}

/// Waits for the network, or for the end of the task.
CURLMcode HttpTransfer::Impl::wait(milliseconds longest, int& ready) {
  curl_waitfd end{m_task != nullptr ? m_task->CancelDescriptor() : -1, CURL_WAIT_POLLIN, 0};
  return curl_multi_poll(m_multi.get(), &end, end.fd >= 0 ? 1 : 0,
                         static_cast<int>(longest.count()), &ready);
}

/// Whether a kept connection has had its time and nothing has come.
bool HttpTransfer::Impl::staysSilent() const {
  return isReused() && m_seen.head.IsEmpty() && Clock::now() >= m_seen.silentUntil &&
         get<curl_off_t>(CURLINFO_STARTTRANSFER_TIME_T) == 0;
}

milliseconds HttpTransfer::Impl::longestWait() const {
  const auto now = Clock::now();
  if (m_seen.requests == 0) {
    const auto half = m_seen.start + (m_seen.end - m_seen.start) / 2;
    if (m_seen.lost) {
      return kNextAddress;
    }
    return now > half
               ? kLaterAddress
               : std::min(std::chrono::ceil<milliseconds>(half - now) + milliseconds(1), kMaxPoll);
  }
  const auto left = std::chrono::ceil<milliseconds>(m_seen.silentUntil - now);
  return isReused() && left.count() > 0 ? std::min(left, kMaxPoll) : kMaxPoll;
}

/// The result of a transfer that libcurl has ended. Once the head is complete, what becomes of the
/// body, which we may have refused ourselves, is of no interest.
CURLcode HttpTransfer::Impl::resultOfEnded() {
  int left = 0;
  const CURLMsg* message = curl_multi_info_read(m_multi.get(), &left);
  const CURLcode result = message != nullptr ? message->data.result : CURLE_OUT_OF_MEMORY;
  if (m_seen.late && !m_seen.head.IsComplete()) {
    return CURLE_OPERATION_TIMEDOUT;
  }
  const bool isBodys = m_wantsBody || result == CURLE_WRITE_ERROR;
  return m_seen.head.IsComplete() && isBodys ? CURLE_OK : result;
}

/// Brings in what is left of the previous answer, so that its connection can be used again, or
/// gives the connection up. A server that lets its body be waited for once is not waited for again.
/// @return how long that took.
microseconds HttpTransfer::Impl::fetchBody() {
  const Clock::time_point start = Clock::now();
  const long long roundTrip =
      m_connection.rttUs != kUnknown ? m_connection.rttUs : m_connection.tookUs;
  const Clock::time_point end =
      m_headAt + std::clamp(microseconds(roundTrip), kLeastBodyWait, kMostBodyWait);
  m_seen.end = std::max(end, start + kLeastBodyWait);
  int running = 1;
  int ready = 0;
  milliseconds left(1);
  // What is there already is read, however late it is.
  while ((left.count() > 0 || ready > 0) && !isCancelled() &&
         curl_multi_perform(m_multi.get(), &running) == CURLM_OK && running != 0) {
    left = std::max(std::chrono::ceil<milliseconds>(end - Clock::now()), milliseconds());
    if (wait(left, ready) != CURLM_OK) {
      break;
    }
  }
  m_wantsBody = running == 0;
  detach();
  return std::chrono::ceil<microseconds>(Clock::now() - start);
}

/// Takes the transfer from libcurl, which closes a connection that is in the midst of an answer.
void HttpTransfer::Impl::detach() {
  if (m_attached) {
    m_attached = false;
    curl_multi_remove_handle(m_multi.get(), m_easy.get());
  }
}

/// Whether a request on a kept connection had no answer of any kind because the connection was
/// gone. libcurl takes the end of a connection for a first byte, so its time alone does not tell.
bool HttpTransfer::Impl::lostKeptConnection(const PROBE_OUTCOME& outcome) const {
  return outcome.reused && outcome.code != CURLE_OK && outcome.code != CURLE_OPERATION_TIMEDOUT &&
         outcome.code != CURLE_ABORTED_BY_CALLBACK && outcome.code != CURLE_OUT_OF_MEMORY &&
         m_seen.head.IsEmpty() && (outcome.code == CURLE_GOT_NOTHING || outcome.firstByteUs == 0);
}

/// The target does not change, so most is said to libcurl once.
void HttpTransfer::Impl::setUp(const PROBE_REQUEST& request) {
  setUpTarget(request);
  setUpProxy(request);
  if (request.secure) {
    setUpTls();
  }
  set(CURLOPT_NOSIGNAL, 1L);
  // The thread that waits for a silent name server is left behind when the time-out passes.
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  set(CURLOPT_UPLOAD_BUFFERSIZE, kSendBufferBytes);
  setUpCallbacks();
  setUpTelling(request);
}

void HttpTransfer::Impl::setUpCallbacks() {
  set(CURLOPT_HEADERFUNCTION, &Impl::onHeader);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &Impl::onBody);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_OPENSOCKETFUNCTION, &Impl::onOpen);
  set(CURLOPT_OPENSOCKETDATA, this);
  set(CURLOPT_CLOSESOCKETFUNCTION, &Impl::onClose);
  set(CURLOPT_CLOSESOCKETDATA, this);
  set(CURLOPT_PREREQFUNCTION, &Impl::onRequest);
  set(CURLOPT_PREREQDATA, this);
}

/// One to a proxy may carry credentials, of which no copy is made.
void HttpTransfer::Impl::setUpTelling(const PROBE_REQUEST& request) {
  if (request.tellsRequest && request.IsDirect()) {
    set(CURLOPT_DEBUGFUNCTION, &Impl::onTalk);
    set(CURLOPT_DEBUGDATA, this);
    set(CURLOPT_VERBOSE, 1L);
  }
}

/// The address is put together from its parts, so that none can reach into another.
void HttpTransfer::Impl::setUpTarget(const PROBE_REQUEST& request) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
  const char* scheme = request.secure ? "https" : "http";
  const std::string port = std::to_string(request.port);
  char* text = nullptr;
  if (!url || curl_url_set(url.get(), CURLUPART_SCHEME, scheme, 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_HOST, request.host.c_str(), 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_PORT, port.c_str(), 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_PATH, "/", 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
    m_setup = CURLE_URL_MALFORMAT;
    return;
  }
  const std::unique_ptr<char, decltype(&curl_free)> address(text, curl_free);
  set(CURLOPT_URL, address.get());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  // Not HEAD, which some servers leave without an answer.
  set(CURLOPT_HTTPGET, 1L);
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  if (!request.userAgent.empty()) {
    set(CURLOPT_USERAGENT, request.userAgent.c_str());
  }
}

void HttpTransfer::Impl::setUpProxy(const PROBE_REQUEST& request) {
  if (!request.environmentProxy) {
    // An empty proxy is none, and an empty list of exceptions has none: without them libcurl would
    // read the environment.
    set(CURLOPT_PROXY, request.proxy.c_str());
    if (!request.heedsExceptions) {
      set(CURLOPT_NOPROXY, "");
    }
  }
  if (request.Proxied() && !request.credentials->proxyUser.empty()) {
    set(CURLOPT_PROXYUSERNAME, request.credentials->proxyUser.c_str());
    set(CURLOPT_PROXYPASSWORD, request.credentials->proxyPswd.c_str());
    set(CURLOPT_PROXYAUTH,
        kPasswordLogIns | (request.mayUseTicket ? static_cast<long>(CURLAUTH_NEGOTIATE) : 0L));
  }
}

void HttpTransfer::Impl::dropCredentials() {
  const char* none = nullptr;
  curl_easy_setopt(m_easy.get(), CURLOPT_PROXYUSERNAME, none);
  curl_easy_setopt(m_easy.get(), CURLOPT_PROXYPASSWORD, none);
}

/// Versions, ciphers and checks stay libcurl's. Only where the trusted certificates come from is
/// ours: from the shared store instead of the disk.
void HttpTransfer::Impl::setUpTls() {
  const char* none = nullptr;
  set(CURLOPT_CAINFO, none);
  set(CURLOPT_CAPATH, none);
  set(CURLOPT_SSL_CTX_FUNCTION, &Impl::onTlsContext);
  set(CURLOPT_SSL_CTX_DATA, this);
}

void HttpTransfer::Impl::collect(PROBE_OUTCOME& outcome) {
  outcome.reused = isReused();
  if (outcome.reused && outcome.code == CURLE_COULDNT_CONNECT) {
    outcome.code = CURLE_GOT_NOTHING;  // what made libcurl ask for another connection
  }
  outcome.clientCertificateAsked = m_connection.clientCertificateAsked;
  outcome.httpStatus = get<long>(CURLINFO_RESPONSE_CODE);
  outcome.tunnelStatus = get<long>(CURLINFO_HTTP_CONNECTCODE);
  outcome.offeredLogIns = get<long>(CURLINFO_PROXYAUTH_AVAIL);
  outcome.osError = get<long>(CURLINFO_OS_ERRNO);
  collectTimes(outcome);
  if (const char* address = get<const char*>(CURLINFO_PRIMARY_IP); address != nullptr) {
    outcome.address = address;
  }
  curl_header* location = nullptr;
  constexpr int kLastRequest = -1;
  if (curl_easy_header(m_easy.get(), "Location", 0, CURLH_HEADER, kLastRequest, &location) ==
      CURLHE_OK) {
    outcome.location = location->value;
  }
  outcome.headers = m_seen.head.TakeLines();
  outcome.request = std::move(m_seen.request);
}

void HttpTransfer::Impl::collectTimes(PROBE_OUTCOME& outcome) {
  outcome.lookupUs = get<curl_off_t>(CURLINFO_NAMELOOKUP_TIME_T);
  // libcurl takes its time once the request is sent. A thread that was held up in between would
  // find the answer there already, and a busy machine would make a server the nearest. Of several
  // requests libcurl's times are sums, and go together.
  outcome.requestUs =
      m_seen.requests == 1 ? m_seen.requestUs : get<curl_off_t>(CURLINFO_PRETRANSFER_TIME_T);
  outcome.firstByteUs = get<curl_off_t>(CURLINFO_STARTTRANSFER_TIME_T);
  outcome.totalUs = since(m_seen.start);
  if (!outcome.reused) {
    outcome.connectUs = get<curl_off_t>(CURLINFO_CONNECT_TIME_T);
    if (m_seen.connectedUs > 0 &&
        (outcome.connectUs == 0 || outcome.connectUs > m_seen.connectedUs)) {
      outcome.connectUs = m_seen.connectedUs;
    }
    outcome.tlsStartUs = m_seen.tlsStartUs;
    outcome.tlsUs = get<curl_off_t>(CURLINFO_APPCONNECT_TIME_T);
    m_connection.tookUs = std::max(outcome.connectUs - outcome.lookupUs, 0LL);
  }
  outcome.connectTookUs = m_connection.tookUs;
  // A connection that is open is asked now; one that has closed was asked as it did.
  outcome.networkRttUs =
      m_socket == CURL_SOCKET_BAD ? m_seen.closedRttUs : smallestRoundTrip(m_socket);
  m_connection.rttUs = outcome.networkRttUs;
}

std::size_t HttpTransfer::Impl::onBody(char*, std::size_t size, std::size_t count, void* self) {
  const std::size_t length = size * count;
  return static_cast<Impl*>(self)->m_seen.head.AddBody(length) ? length : 0;
}

std::size_t HttpTransfer::Impl::onHeader(char* data, std::size_t size, std::size_t count,
                                         void* self) {
  // libcurl is C and cannot be thrown through.
  try {
    const std::size_t length = size * count;
    return static_cast<Impl*>(self)->m_seen.head.Add({data, length}) ? length : 0;
  } catch (...) {
    return 0;
  }
}

/// The host may start programs at any moment: a connection is none of theirs, and would stay open
/// as long as they run. libcurl would send a request again whose connection is lost, and add the
/// times up; see `perform` for how that is done here.
curl_socket_t HttpTransfer::Impl::onOpen(void* self, curlsocktype, curl_sockaddr* address) {
  Impl& transfer = *static_cast<Impl*>(self);
  if (transfer.isReused()) {
    return CURL_SOCKET_BAD;
  }
  if (transfer.m_seen.opened.isEmpty()) {
    transfer.m_seen.closedRttUs = kUnknown;  // that was a kept connection that was found closed
    transfer.m_connection = CONNECTION();
  }
  const curl_socket_t opened =
      socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (opened != CURL_SOCKET_BAD && !transfer.mayConnect(opened, address->family)) {
    close(opened);
    return CURL_SOCKET_BAD;
  }
  if (opened != CURL_SOCKET_BAD) {
    transfer.m_seen.opened.add(opened);
  }
  return opened;
}

/// Whether the task lets a socket connect.
bool HttpTransfer::Impl::mayConnect(curl_socket_t opened, int family) const {
  // libcurl is C and cannot be thrown through.
  try {
    return m_task == nullptr || m_task->SocketOpened(opened, family);
  } catch (...) {
    return false;
  }
}

/// Of several sockets (a name with two families), those that lost the race close before the
/// connection's own, so the last one with a round trip is the connection's.
int HttpTransfer::Impl::onClose(void* self, curl_socket_t connection) {
  Impl& transfer = *static_cast<Impl*>(self);
  const long long rtt = smallestRoundTrip(connection);
  transfer.m_seen.lost = true;
  transfer.m_seen.opened.remove(connection);
  if (rtt != kUnknown) {
    transfer.m_seen.closedRttUs = rtt;
  }
  if (connection == transfer.m_socket) {
    transfer.m_socket = CURL_SOCKET_BAD;
    transfer.m_tls = nullptr;
  }
  return close(connection);
}

/// libcurl calls this when a connection, new or kept, is ready for the request.
int HttpTransfer::Impl::onRequest(void* self, char*, char*, int, int localPort) {
  Impl& transfer = *static_cast<Impl*>(self);
  if (transfer.m_seen.requests++ == 0) {
    transfer.m_seen.requestUs = since(transfer.m_seen.start);
  }
  if (!transfer.m_seen.opened.isEmpty()) {
    transfer.m_socket = transfer.m_seen.opened.connected(localPort);
    const auto* tls = transfer.get<curl_tlssessioninfo*>(CURLINFO_TLS_SSL_PTR);
    transfer.m_tls =
        transfer.m_target.secure && tls != nullptr ? static_cast<SSL*>(tls->internals) : nullptr;
  }
  return CURL_PREREQFUNC_OK;
}

int HttpTransfer::Impl::onTalk(CURL*, curl_infotype type, char* data, std::size_t size,
                               void* self) {
  // libcurl is C and cannot be thrown through.
  try {
    if (type == CURLINFO_HEADER_OUT) {
      static_cast<Impl*>(self)->m_seen.request.assign(data, size);
    }
  } catch (...) {
    return 0;
  }
  return 0;
}

/// libcurl calls this once the connection stands and the handshake is about to start. Some of its
/// versions count the handshake into the time to connect, and give none where it failed.
CURLcode HttpTransfer::Impl::onTlsContext(CURL*, void* context, void* self) {
  Impl& transfer = *static_cast<Impl*>(self);
  transfer.m_seen.connectedUs = since(transfer.m_seen.start);
  auto* tls = static_cast<SSL_CTX*>(context);
  try {
    transfer.m_trust = ProbeSettings::TrustedCertificates();
    if (!transfer.m_trust || SSL_CTX_set_ex_data(tls, contextIndex(), self) != 1) {
      return CURLE_OUT_OF_MEMORY;
    }
    SSL_CTX_set1_cert_store(tls, transfer.m_trust.get());
  } catch (...) {
    return CURLE_OUT_OF_MEMORY;
  }
  // A kept connection is idle most of the time, and there may be a thousand.
  SSL_CTX_set_mode(tls, SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_clear_mode(tls, SSL_MODE_AUTO_RETRY);
  SSL_CTX_set_msg_callback(tls, &Impl::onTlsMessage);
  SSL_CTX_set_msg_callback_arg(tls, self);
  SSL_CTX_set_client_cert_cb(tls, &Impl::onClientCertificate);
  transfer.m_seen.tlsStartUs = since(transfer.m_seen.start);
  return CURLE_OK;
}

/// OpenSSL reads messages that lead to nothing (HelloRequest, KeyUpdate) for as long as they come,
/// and libcurl cannot look at its clock meanwhile: without input OpenSSL has to return.
void HttpTransfer::Impl::onTlsMessage(int sent, int, int type, const void*, std::size_t,
                                      SSL* connection, void* self) {
  Impl& transfer = *static_cast<Impl*>(self);
  if (sent != 0 || type != SSL3_RT_HEADER || transfer.m_seen.late ||
      Clock::now() < transfer.m_seen.end) {
    return;
  }
  if (BIO* const nothing = BIO_new(BIO_s_null()); nothing != nullptr) {
    transfer.m_seen.late = true;
    SSL_set0_rbio(connection, nothing);
  }
}

/// The server asks for a client certificate: there is none, but it is good to know that it asked.
int HttpTransfer::Impl::onClientCertificate(SSL* connection, X509**, EVP_PKEY**) {
  auto* transfer =
      static_cast<Impl*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), contextIndex()));
  if (transfer != nullptr) {
    transfer->m_connection.clientCertificateAsked = true;
  }
  return 0;
}

int HttpTransfer::Impl::contextIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

HttpTransfer::HttpTransfer(const PROBE_REQUEST& request, Connection connection)
    : m_impl(std::make_unique<Impl>(request, connection)) {}

HttpTransfer::~HttpTransfer() = default;

bool HttpTransfer::Serves(const PROBE_REQUEST& request) const { return m_impl->serves(request); }

PROBE_OUTCOME HttpTransfer::Perform(PROBE_REQUEST& request) { return m_impl->perform(request); }

bool HttpTransfer::Initialise(bool secure) {
  return initialiseTransport() && (!secure || isTlsUsable());
}
