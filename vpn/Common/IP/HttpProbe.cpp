// Single HTTP(S) requests on libcurl. Each probe has a handle of its own, so probes share nothing
// but the settings below, and every way in which a transfer can end is turned into a status in one
// table. What the peer sends is bounded in size by the header callback and in time by libcurl's
// time-out; an outcome that counts as an answer always comes with a round-trip time.

#include "vpn/Common/IP/HttpProbe.h"

#include <curl/curl.h>
#include <dirent.h>
#include <linux/tcp.h>  // glibc's netinet/tcp.h ends before tcpi_min_rtt
#include <locale.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "vpn/Common/IP/SystemProxy.h"
#include "vpn/Common/IP/TransportMemory.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/Locks.h"

namespace {

// Bounds of an answer's head. 64 KiB is what the interface promises to keep. The others are far
// above what servers send and far below what costs anything; libcurl itself refuses single lines
// above 100 KiB.
constexpr std::size_t kMaxKeptHeaderBytes = 64UL * 1024;
constexpr std::size_t kMaxHeaderBytes = 256UL * 1024;
constexpr unsigned int kMaxHeaderLines = 1000;
// A tunnel through a proxy with NTLM takes four answers; the rest is room for interim ones.
constexpr unsigned int kMaxAnswers = 10;

// A head fits; a thousand probes at a time need no more of it. The upload buffer is libcurl's
// smallest.
constexpr long kReceiveBufferBytes = 4L * 1024;
constexpr long kSendBufferBytes = 16L * 1024;

// libcurl refuses time-outs above INT_MAX milliseconds.
constexpr unsigned int kMaxTimeoutSeconds = INT_MAX / 1000;

// The default of the scheme in "http://proxy".
constexpr std::string_view kDefaultProxyPort = "80";

// The ways to log in to a proxy that take a password.
constexpr auto kPasswordLogIns = CURLAUTH_BASIC | CURLAUTH_NTLM;

constexpr unsigned int kProxyChallenge = 407;

constexpr long long kUnknown = -1;

/// The process's settings. Probes run on threads that nobody waits for, so they are never freed.
struct SETTINGS {
  /// Nor may OpenSSL's own state go while the process exits: a probe may be in a handshake then.
  /// Who is first to use OpenSSL in a process decides, so this comes before everything else here.
  SETTINGS() { OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); }

  CManualLock lock;
  std::shared_ptr<HttpProbe::Watcher> watcher AHS_GUARDED_BY(lock);
  /// Null until the first secure probe needs it.
  std::shared_ptr<X509_STORE> trust AHS_GUARDED_BY(lock);
  /// On its own: a probe reads it once and nothing else depends on it.
  std::atomic<HttpProbe::RoundTripMeasure> measure{HttpProbe::RoundTripMeasure::Network};
};

SETTINGS& settings() {
  static SETTINGS& instance = *new SETTINGS;
  return instance;
}

/// Whether OpenSSL can look certificates up in a directory, by links named for their hash. The
/// iterators of the standard library end the process when they get no memory for a name.
bool isCertificateDirectory(const char* path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(path != nullptr ? opendir(path) : nullptr,
                                                      closedir);
  if (!directory) {
    return false;
  }
  while (const dirent* entry = readdir(directory.get())) {
    if (std::string_view(static_cast<const char*>(entry->d_name)).ends_with(".0")) {
      return true;
    }
  }
  return false;
}

/// What libcurl trusts by default, and `extraFile`. One store serves all probes. The system's
/// directory is preferred to its one large file, which takes longer to read than many a probe: what
/// is looked up in a directory is read when it is needed.
std::shared_ptr<X509_STORE> makeTrust(const std::string& extraFile) {
  std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
  if (!store) {
    return store;
  }
  const curl_version_info_data* version = curl_version_info(CURLVERSION_NOW);
  if (isCertificateDirectory(version->capath)) {
    X509_STORE_load_path(store.get(), version->capath);
  } else if (version->cainfo != nullptr) {
    X509_STORE_load_file(store.get(), version->cainfo);
  }
  if (!extraFile.empty()) {
    X509_STORE_load_file(store.get(), extraFile.c_str());
  }
  // As libcurl does: an intermediate certificate that is trusted may end a chain.
  X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
  ERR_clear_error();
  return store;
}

std::shared_ptr<X509_STORE> trust() {
  SETTINGS& process = settings();
  CAutoLockT<CManualLock> guard(process.lock);
  if (!process.trust) {
    process.trust = makeTrust({});
  }
  return process.trust;
}

std::shared_ptr<HttpProbe::Watcher> currentWatcher() {
  SETTINGS& process = settings();
  CAutoLockT<CManualLock> guard(process.lock);
  return process.watcher;
}

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

/// Makes libcurl read the bytes of an international name as UTF-8 on this thread, whatever locale
/// the process runs in. Names in ASCII need nothing.
class Utf8Names {
 public:
  explicit Utf8Names(const std::string& host) {
    const bool ascii = std::all_of(host.begin(), host.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 128; });
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (!ascii && utf8 != nullptr) {
      m_before = uselocale(utf8);
    }
  }
  ~Utf8Names() {
    if (m_before != nullptr) {
      uselocale(m_before);
    }
  }
  Utf8Names(const Utf8Names&) = delete;
  Utf8Names& operator=(const Utf8Names&) = delete;

 private:
  locale_t m_before = nullptr;
};

/// The smallest round trip that the kernel saw on a connection, in microseconds.
long long smallestRoundTrip(curl_socket_t connection) {
  tcp_info info{};
  socklen_t length = sizeof info;
  constexpr socklen_t kNeeded = offsetof(tcp_info, tcpi_min_rtt) + sizeof info.tcpi_min_rtt;
  if (getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || length < kNeeded ||
      info.tcpi_min_rtt == ~0U) {
    return kUnknown;
  }
  return info.tcpi_min_rtt;
}

/// One probe as it is to be sent, checked.
struct REQUEST {
  /// As it stands in a URL.
  std::string host;
  bool secure = false;
  unsigned short port = 0;
  std::string userAgent;
  unsigned int timeoutSeconds = 0;
  /// What is left of the time-out when the request is sent, and what was spent before.
  std::chrono::milliseconds timeLeft{};
  std::chrono::microseconds timeSpent{};
  /// "http://host:port"; empty for none, or for the environment's when `environmentProxy` is set.
  std::string proxy;
  bool environmentProxy = false;
  /// The environment's exceptions (no_proxy) hold for `proxy`, which the system's settings named.
  bool heedsExceptions = false;
  /// Log in with a Kerberos ticket, should the proxy take one.
  bool mayUseTicket = true;
  /// The caller's, which outlives the request: no copy of the credentials is made here.
  const PROXY_DATA* credentials = nullptr;

  bool proxied() const { return environmentProxy || !proxy.empty(); }
};

/// What came of it, as libcurl, the kernel and the callbacks tell.
struct OUTCOME {
  CURLcode code = CURLE_OK;
  bool clientCertificateAsked = false;
  long httpStatus = 0;
  long tunnelStatus = 0;
  /// The ways to log in that the proxy offers (CURLAUTH_).
  long offeredLogIns = 0;
  long osError = 0;
  long long lookupUs = 0;
  long long connectUs = 0;
  long long tlsStartUs = 0;
  long long tlsUs = 0;
  long long requestUs = 0;
  long long firstByteUs = 0;
  long long totalUs = 0;
  long long networkRttUs = kUnknown;
  std::string address;
  std::string headers;
  std::string location;

  /// A connection reset before libcurl looked at it counts: something had answered.
  bool connected() const {
    return connectUs > 0 || networkRttUs != kUnknown || osError == ECONNRESET;
  }
};

struct MEANING {
  CURLcode code;
  STATUSCODE direct;
  STATUSCODE throughProxy;
};

/// What libcurl's codes mean. A code that is not listed means that what was connected to did not
/// answer with HTTP, or, without a connection, that none could be made; see `statusOf`.
constexpr MEANING kMeanings[] = {
    {CURLE_OK, HTTP_SESSION_SUCCESS, HTTP_SESSION_SUCCESS},
    {CURLE_COULDNT_RESOLVE_PROXY, HTTP_SESSION_ERROR_CONNECT, HTTP_SESSION_ERROR_CONNECT},
    {CURLE_COULDNT_RESOLVE_HOST, HTTP_SESSION_ERROR_DNS_RESOLUTION,
     HTTP_SESSION_ERROR_DNS_RESOLUTION},
    // The name has no form that could be looked up.
    {CURLE_URL_MALFORMAT, HTTP_SESSION_ERROR_DNS_RESOLUTION, HTTP_SESSION_ERROR_DNS_RESOLUTION},
    {CURLE_OPERATION_TIMEDOUT, HTTP_SESSION_ERROR_TIMEOUT, HTTP_SESSION_ERROR_TIMEOUT},
    {CURLE_PEER_FAILED_VERIFICATION, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_ISSUER_ERROR, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_CACERT_BADFILE, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_CRL_BADFILE, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_INVALIDCERTSTATUS, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_CLIENTCERT, HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED,
     HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED},
};

STATUSCODE statusOf(const OUTCOME& outcome, bool proxied) {
  const auto* meaning = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                     [&](const MEANING& m) { return m.code == outcome.code; });
  STATUSCODE status = proxied ? HTTP_SESSION_ERROR_CONNECT : HTTP_SESSION_ERROR_CANNOT_CONNECT;
  if (meaning != std::end(kMeanings)) {
    status = proxied ? meaning->throughProxy : meaning->direct;
  } else if (outcome.connected()) {
    status = HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;
  }
  // Interim answers promise a final one; without it nothing has been answered.
  if (status == HTTP_SESSION_SUCCESS && outcome.httpStatus < 200) {
    status = HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;
  }
  if (status == HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE && outcome.clientCertificateAsked) {
    status = HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
  }
  return status;
}

bool isAnswer(STATUSCODE status) {
  return status == HTTP_SESSION_SUCCESS || status == HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE ||
         status == HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE ||
         status == HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
}

/// The status code in the first line of a head, "HTTP/1.1 200 OK"; 0 if it has none.
unsigned int statusOfLine(std::string_view line) {
  const std::size_t blank = line.find(' ');
  unsigned int status = 0;
  if (blank != std::string_view::npos) {
    std::from_chars(line.data() + blank + 1, line.data() + line.size(), status);
  }
  return status;
}

/// A libcurl handle and what its callbacks gather. The handle's connections live as long as it, and
/// their sockets report to it when they close.
class Transfer {
 public:
  Transfer() : m_handle(curl_easy_init(), curl_easy_cleanup) {}

  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// Sends the request and waits for its end. May be called again.
  OUTCOME perform(const REQUEST& request);

 private:
  using Clock = std::chrono::steady_clock;

  /// What the callbacks gather of one probe.
  struct GATHERED {
    Clock::time_point start;
    long long connectedUs = 0;
    long long tlsStartUs = 0;
    bool clientCertificateAsked = false;
    long long networkRttUs = kUnknown;
    std::string headers;
    std::size_t headerBytes = 0;
    unsigned int headerLines = 0;
    unsigned int answers = 0;
    bool headEnded = true;
    /// Of the head under way, from its first line; 0 if that has none.
    unsigned int headStatus = 0;
    /// The next final head is a proxy's.
    bool awaitsTunnel = false;
    /// libcurl answers a proxy's challenge by itself.
    bool mayLogIn = false;
    /// A final head is complete: what is missing is at most its body.
    bool answered = false;
  };

  template <class T>
  void set(CURLoption option, T value) {
    if (m_setup == CURLE_OK) {
      m_setup = curl_easy_setopt(m_handle.get(), option, value);
    }
  }
  template <class T>
  T get(CURLINFO info) const {
    T value{};
    return curl_easy_getinfo(m_handle.get(), info, &value) == CURLE_OK ? value : T{};
  }

  void setUp(const REQUEST& request);
  void setUpTarget(const REQUEST& request);
  void setUpProxy(const REQUEST& request);
  void setUpTls();
  void dropCredentials();
  void collect(OUTCOME& outcome);
  bool keepHeader(std::string_view line);
  bool endOfHead();

  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* transfer);
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* nothing);
  static curl_socket_t onOpen(void* nothing, curlsocktype purpose, curl_sockaddr* address);
  static int onClose(void* transfer, curl_socket_t connection);
  static CURLcode onTlsContext(CURL* handle, void* context, void* transfer);
  static int onClientCertificate(SSL* connection, X509** certificate, EVP_PKEY** key);
  static int contextIndex();

  long long sinceStart() const {
    using std::chrono::microseconds;
    return std::chrono::duration_cast<microseconds>(Clock::now() - m_seen.start).count();
  }

  CURLcode m_setup = CURLE_OK;
  GATHERED m_seen;
  // Last, so that it goes first: the callbacks of its closing sockets write to the others.
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> m_handle;
};

OUTCOME Transfer::perform(const REQUEST& request) {
  OUTCOME outcome;
  if (!m_handle) {
    outcome.code = CURLE_OUT_OF_MEMORY;
    return outcome;
  }
  setUp(request);
  m_seen = GATHERED();
  m_seen.awaitsTunnel = request.secure && request.proxied();
  m_seen.mayLogIn = request.proxied() && !request.credentials->proxyUser.empty();
  m_seen.start = Clock::now();
  outcome.code = m_setup == CURLE_OK ? curl_easy_perform(m_handle.get()) : m_setup;
  if (outcome.code == CURLE_WRITE_ERROR && m_seen.answered) {
    outcome.code = CURLE_OK;  // we stopped it: the rest is of no interest
  }
  dropCredentials();
  collect(outcome);
  return outcome;
}

void Transfer::setUp(const REQUEST& request) {
  curl_easy_reset(m_handle.get());
  m_setup = CURLE_OK;
  setUpTarget(request);
  setUpProxy(request);
  if (request.secure) {
    setUpTls();
  }
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeLeft.count()));
  set(CURLOPT_NOSIGNAL, 1L);
  // The thread that waits for a silent name server is left behind when the time-out passes.
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  set(CURLOPT_UPLOAD_BUFFERSIZE, kSendBufferBytes);
  set(CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &Transfer::onBody);
  set(CURLOPT_OPENSOCKETFUNCTION, &Transfer::onOpen);
  set(CURLOPT_CLOSESOCKETFUNCTION, &Transfer::onClose);
  set(CURLOPT_CLOSESOCKETDATA, this);
}

/// The address is put together from its parts, so that none can reach into another.
void Transfer::setUpTarget(const REQUEST& request) {
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
  // Not HEAD, which some servers leave without an answer. The body is not waited for: see
  // endOfHead.
  set(CURLOPT_HTTPGET, 1L);
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  if (!request.userAgent.empty()) {
    set(CURLOPT_USERAGENT, request.userAgent.c_str());
  }
}

void Transfer::setUpProxy(const REQUEST& request) {
  if (!request.environmentProxy) {
    // An empty proxy is none, and an empty list of exceptions has none: without them libcurl would
    // read the environment.
    set(CURLOPT_PROXY, request.proxy.c_str());
    if (!request.heedsExceptions) {
      set(CURLOPT_NOPROXY, "");
    }
  }
  if (request.proxied() && !request.credentials->proxyUser.empty()) {
    set(CURLOPT_PROXYUSERNAME, request.credentials->proxyUser.c_str());
    set(CURLOPT_PROXYPASSWORD, request.credentials->proxyPswd.c_str());
    set(CURLOPT_PROXYAUTH, static_cast<long>(kPasswordLogIns) |
                               (request.mayUseTicket ? static_cast<long>(CURLAUTH_NEGOTIATE) : 0L));
  }
}

void Transfer::dropCredentials() {
  const char* none = nullptr;
  curl_easy_setopt(m_handle.get(), CURLOPT_PROXYUSERNAME, none);
  curl_easy_setopt(m_handle.get(), CURLOPT_PROXYPASSWORD, none);
}

/// Versions, ciphers and checks stay libcurl's. Only where the trusted certificates come from is
/// ours: from the shared store instead of the disk.
void Transfer::setUpTls() {
  const char* none = nullptr;
  set(CURLOPT_CAINFO, none);
  set(CURLOPT_CAPATH, none);
  set(CURLOPT_SSL_CTX_FUNCTION, &Transfer::onTlsContext);
  set(CURLOPT_SSL_CTX_DATA, this);
}

void Transfer::collect(OUTCOME& outcome) {
  outcome.clientCertificateAsked = m_seen.clientCertificateAsked;
  outcome.httpStatus = get<long>(CURLINFO_RESPONSE_CODE);
  outcome.tunnelStatus = get<long>(CURLINFO_HTTP_CONNECTCODE);
  outcome.offeredLogIns = get<long>(CURLINFO_PROXYAUTH_AVAIL);
  outcome.osError = get<long>(CURLINFO_OS_ERRNO);
  outcome.lookupUs = get<curl_off_t>(CURLINFO_NAMELOOKUP_TIME_T);
  outcome.connectUs = get<curl_off_t>(CURLINFO_CONNECT_TIME_T);
  if (m_seen.connectedUs > 0 &&
      (outcome.connectUs == 0 || outcome.connectUs > m_seen.connectedUs)) {
    outcome.connectUs = m_seen.connectedUs;
  }
  outcome.tlsStartUs = m_seen.tlsStartUs;
  outcome.tlsUs = get<curl_off_t>(CURLINFO_APPCONNECT_TIME_T);
  outcome.requestUs = get<curl_off_t>(CURLINFO_PRETRANSFER_TIME_T);
  outcome.firstByteUs = get<curl_off_t>(CURLINFO_STARTTRANSFER_TIME_T);
  outcome.totalUs = get<curl_off_t>(CURLINFO_TOTAL_TIME_T);
  // A connection that the handle keeps is asked now; one that has closed was asked as it did.
  curl_socket_t open = CURL_SOCKET_BAD;
  curl_easy_getinfo(m_handle.get(), CURLINFO_ACTIVESOCKET, &open);
  outcome.networkRttUs = open == CURL_SOCKET_BAD ? m_seen.networkRttUs : smallestRoundTrip(open);
  if (const char* address = get<const char*>(CURLINFO_PRIMARY_IP); address != nullptr) {
    outcome.address = address;
  }
  curl_header* location = nullptr;
  constexpr int kLastRequest = -1;
  if (curl_easy_header(m_handle.get(), "Location", 0, CURLH_HEADER, kLastRequest, &location) ==
      CURLHE_OK) {
    outcome.location = location->value;
  }
  outcome.headers = std::move(m_seen.headers);
}

/// Keeps a line of a head, the last answer's alone. False when the peer has sent too much.
bool Transfer::keepHeader(std::string_view line) {
  m_seen.headerBytes += line.size();
  ++m_seen.headerLines;
  if (m_seen.headEnded) {
    m_seen.headers.clear();
    ++m_seen.answers;
    m_seen.headStatus = statusOfLine(line);
  }
  m_seen.headEnded = line == "\r\n" || line == "\n";
  if (m_seen.headers.size() + line.size() <= kMaxKeptHeaderBytes) {
    m_seen.headers += line;
  }
  return m_seen.headerBytes <= kMaxHeaderBytes && m_seen.headerLines <= kMaxHeaderLines &&
         m_seen.answers <= kMaxAnswers && !(m_seen.headEnded && endOfHead());
}

/// Whether the head that has just ended is the answer, so that the transfer can stop here. Interim
/// answers are not, nor a proxy's consent to a tunnel, nor a challenge that libcurl may answer.
bool Transfer::endOfHead() {
  constexpr unsigned int kFirstFinal = 200;
  constexpr unsigned int kFirstRefusal = 300;
  if (m_seen.headStatus < kFirstFinal) {
    return false;
  }
  if (m_seen.awaitsTunnel) {
    m_seen.awaitsTunnel = m_seen.headStatus >= kFirstRefusal;
    return false;
  }
  m_seen.answered = true;
  return m_seen.headStatus != kProxyChallenge || !m_seen.mayLogIn;
}

/// Stops the transfer: libcurl hands over the body of an answer that is final after all, such as a
/// proxy's second challenge.
std::size_t Transfer::onBody(char*, std::size_t, std::size_t, void*) { return 0; }

std::size_t Transfer::onHeader(char* data, std::size_t size, std::size_t count, void* transfer) {
  // libcurl is C and cannot be thrown through.
  try {
    const std::size_t length = size * count;
    return static_cast<Transfer*>(transfer)->keepHeader({data, length}) ? length : 0;
  } catch (...) {
    return 0;
  }
}

/// The host may start programs at any moment: a connection is none of theirs, and would stay open
/// as long as they run.
curl_socket_t Transfer::onOpen(void*, curlsocktype, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

/// Of several sockets (a name with two families), those that lost the race close before the
/// connection's own, so the last one with a round trip is the connection's.
int Transfer::onClose(void* transfer, curl_socket_t connection) {
  const long long rtt = smallestRoundTrip(connection);
  if (rtt != kUnknown) {
    static_cast<Transfer*>(transfer)->m_seen.networkRttUs = rtt;
  }
  return close(connection);
}

/// libcurl calls this once the connection stands and the handshake is about to start. Some of its
/// versions count the handshake into the time to connect, and give none where it failed.
CURLcode Transfer::onTlsContext(CURL*, void* context, void* transfer) {
  auto* self = static_cast<Transfer*>(transfer);
  self->m_seen.connectedUs = self->sinceStart();
  auto* tls = static_cast<SSL_CTX*>(context);
  try {
    const std::shared_ptr<X509_STORE> store = trust();
    if (!store || SSL_CTX_set_ex_data(tls, contextIndex(), self) != 1) {
      return CURLE_OUT_OF_MEMORY;
    }
    SSL_CTX_set1_cert_store(tls, store.get());
  } catch (...) {
    return CURLE_OUT_OF_MEMORY;
  }
  SSL_CTX_set_client_cert_cb(tls, &Transfer::onClientCertificate);
  self->m_seen.tlsStartUs = self->sinceStart();
  return CURLE_OK;
}

/// The server asks for a client certificate: there is none, but it is good to know that it asked.
int Transfer::onClientCertificate(SSL* connection, X509**, EVP_PKEY**) {
  auto* transfer =
      static_cast<Transfer*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), contextIndex()));
  if (transfer != nullptr) {
    transfer->m_seen.clientCertificateAsked = true;
  }
  return 0;
}

int Transfer::contextIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

/// The host as it stands in a URL; empty if it is no host.
std::string checkedHost(const std::string& host) {
  const bool bareIPv6 = host.find(':') != std::string::npos && !host.starts_with('[');
  std::string text = bareIPv6 ? "[" + host + "]" : host;
  const std::size_t zoneAt = text.find('%');
  if (zoneAt != std::string::npos && text.compare(zoneAt, 3, "%25") != 0) {
    text.insert(zoneAt + 1, "25");
  }
  const URL url(text);
  // What has more to it than a host, a port or a path for one, differs from its host fragment.
  return url.getHostFragment() == text ? text : std::string();
}

/// "http=http://host:port" as libcurl takes it, "http://host:port"; empty if it is no proxy.
std::string checkedProxy(const std::string& setting) {
  constexpr std::string_view kForScheme = "http=";
  const std::size_t start = setting.starts_with(kForScheme) ? kForScheme.size() : 0;
  const URL url(setting.substr(start));
  const bool scheme =
      url.getProtocol() == URLPROTOCOL_HTTP || url.getProtocol() == URLPROTOCOL_NONE;
  if (!scheme || url.getHost().empty() ||
      (!url.getLocation().empty() && url.getLocation() != "/")) {
    return {};
  }
  return "http://" + url.getHostFragment() + ":" +
         (url.getPort().empty() ? std::string(kDefaultProxyPort) : url.getPort());
}

/// Who has the say about the system's proxy.
enum class SETTLED_BY { Environment, System, Nobody };

bool isSet(const char* name) {
  const char* value = getenv(name);
  return value != nullptr && *value != '\0';
}

/// Whether a variable names no proxy but where to ask for one. libcurl cannot; libproxy can.
bool namesWayToAsk(const char* name) {
  const char* value = getenv(name);
  return value != nullptr && (std::string_view(value).starts_with("pac+") ||
                              std::string_view(value).starts_with("wpad:"));
}

/// The environment, where it names a proxy that libcurl would take. The exceptions in no_proxy are
/// libcurl's to find; a host among them is measured as if there were a proxy. An environment that
/// names proxies, but none for this scheme, means that there is none: libproxy would take the other
/// scheme's, or HTTP_PROXY, which a web server's client can set (RFC 3875, section 4.1.18).
SETTLED_BY systemProxySettledBy(bool secure) {
  for (const char* name : {secure ? "https_proxy" : "http_proxy", secure ? "HTTPS_PROXY" : ""}) {
    if (isSet(name)) {
      return namesWayToAsk(name) ? SETTLED_BY::System : SETTLED_BY::Environment;
    }
  }
  if (isSet("all_proxy") || isSet("ALL_PROXY")) {
    return SETTLED_BY::Environment;
  }
  const bool namesOther =
      isSet("http_proxy") || isSet("HTTP_PROXY") || isSet("https_proxy") || isSet("HTTPS_PROXY");
  return namesOther ? SETTLED_BY::Nobody : SETTLED_BY::System;
}

/// Takes the first entry of the system's list that can be used: a proxy that speaks HTTP, or none.
CURLcode takeFirstUsable(const std::vector<std::string>& entries, REQUEST& request) {
  constexpr std::string_view kHttp = "http://";
  for (const std::string& entry : entries) {
    if (entry == "direct://") {
      return CURLE_OK;
    }
    if (entry.starts_with(kHttp)) {
      request.proxy = checkedProxy(entry);
      if (!request.proxy.empty()) {
        return CURLE_OK;
      }
    }
  }
  return CURLE_COULDNT_RESOLVE_PROXY;
}

CURLcode askSystem(REQUEST& request) {
  const auto start = MonotonicClock::now();
  const std::string url = (request.secure ? "https://" : "http://") + request.host + ":" +
                          std::to_string(request.port) + "/";
  std::vector<std::string> entries;
  const SystemProxy::Outcome outcome = SystemProxy::Find(url, request.timeLeft, entries);
  const auto spent = MonotonicClock::now() - start;
  request.timeSpent = std::chrono::ceil<std::chrono::microseconds>(spent);
  request.timeLeft -= std::chrono::floor<std::chrono::milliseconds>(spent);
  if (outcome == SystemProxy::Outcome::Late || request.timeLeft.count() <= 0) {
    return CURLE_OPERATION_TIMEDOUT;
  }
  request.heedsExceptions = true;
  return outcome == SystemProxy::Outcome::Found ? takeFirstUsable(entries, request)
                                                : CURLE_COULDNT_RESOLVE_PROXY;
}

CURLcode determineProxy(REQUEST& request) {
  const SETTLED_BY settledBy = systemProxySettledBy(request.secure);
  request.environmentProxy = settledBy == SETTLED_BY::Environment;
  return settledBy == SETTLED_BY::System ? askSystem(request) : CURLE_OK;
}

std::string withoutControlCharacters(std::string text) {
  std::erase_if(text, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; });
  return text;
}

/// Checks and completes a request. What cannot be sent is told by the code that libcurl has for it.
CURLcode prepare(const std::string& host, const PROXY_DATA& proxyData, REQUEST& request) {
  if (!initialiseTransport() || (request.secure && !isTlsUsable())) {
    return CURLE_FAILED_INIT;
  }
  request.host = checkedHost(host);
  if (request.host.empty()) {
    return CURLE_URL_MALFORMAT;
  }
  if (request.port == 0) {
    return CURLE_COULDNT_CONNECT;
  }
  request.userAgent = withoutControlCharacters(request.userAgent);
  request.credentials = &proxyData;
  request.timeLeft =
      std::chrono::seconds(std::clamp(request.timeoutSeconds, 1U, kMaxTimeoutSeconds));
  if (proxyData.determineProxy) {
    return determineProxy(request);
  }
  if (!proxyData.proxyServer.empty()) {
    request.proxy = checkedProxy(proxyData.proxyServer);
    if (request.proxy.empty()) {
      return CURLE_COULDNT_RESOLVE_PROXY;
    }
  }
  return CURLE_OK;
}

/// From the request to the first byte of the answer, or to what stood in its place.
long long responseRoundTrip(const OUTCOME& outcome) {
  if (outcome.requestUs == 0) {
    const long long start = std::max({outcome.lookupUs, outcome.connectUs, outcome.tlsStartUs});
    return std::max(outcome.totalUs - start, 0LL);
  }
  return std::max(outcome.firstByteUs > 0 ? outcome.firstByteUs : outcome.totalUs,
                  outcome.requestUs) -
         outcome.requestUs;
}

unsigned int httpStatusOf(const OUTCOME& outcome) {
  const bool refused = outcome.tunnelStatus >= 300;
  const long status =
      outcome.httpStatus == 0 && refused ? outcome.tunnelStatus : outcome.httpStatus;
  return static_cast<unsigned int>(status);
}

long long ifHappened(long long time) { return time > 0 ? time : kUnknown; }

unsigned int toMilliseconds(long long microseconds) {
  return static_cast<unsigned int>((std::max(microseconds, 0LL) + 500) / 1000);
}

/// Takes the address out of `outcome`, so that nothing is allocated here.
void fillReport(OUTCOME& outcome, bool proxied, HttpProbe::RoundTripMeasure measure,
                HttpProbe::Report& report) {
  report.status = statusOf(outcome, proxied);
  report.transportError = outcome.code;
  report.httpStatus = httpStatusOf(outcome);
  report.connectUs = ifHappened(outcome.connectUs);
  report.tlsUs = ifHappened(outcome.tlsUs);
  report.totalUs = outcome.totalUs;
  report.networkRttUs = outcome.networkRttUs;
  if (outcome.connected()) {
    report.address = std::move(outcome.address);
  }
  if (!isAnswer(report.status)) {
    return;
  }
  report.responseRttUs = responseRoundTrip(outcome);
  if (proxied || measure == HttpProbe::RoundTripMeasure::Response) {
    report.rttMs = toMilliseconds(report.responseRttUs);
  } else if (outcome.networkRttUs != kUnknown) {
    report.rttMs = toMilliseconds(outcome.networkRttUs);
  } else {
    report.rttMs = toMilliseconds(outcome.connectUs - outcome.lookupUs);
  }
}

/// The transport's times start with the transfer; the probe's with the search for its proxy.
void countFromStart(long long spentUs, HttpProbe::Report& report) {
  report.totalUs += spentUs;
  for (long long* time : {&report.connectUs, &report.tlsUs}) {
    if (*time != kUnknown) {
      *time += spentUs;
    }
  }
}

/// Whether a log-in failed that a password could have made: of what a proxy offers libcurl tries
/// the strongest alone, and Negotiate without a ticket is no more than another request.
bool passwordIsUntried(const OUTCOME& outcome, const REQUEST& request) {
  const auto offered = static_cast<unsigned long>(outcome.offeredLogIns);
  return httpStatusOf(outcome) == kProxyChallenge && request.proxied() && request.mayUseTicket &&
         !request.credentials->proxyUser.empty() && !request.credentials->proxyPswd.empty() &&
         (offered & CURLAUTH_NEGOTIATE) != 0 && (offered & kPasswordLogIns) != 0;
}

/// Sends the probe. Throws nothing that is not std::bad_alloc's kind.
OUTCOME send(const std::string& host, const PROXY_DATA& proxyData, REQUEST& request) {
  OUTCOME outcome;
  outcome.code = prepare(host, proxyData, request);
  if (outcome.code != CURLE_OK) {
    return outcome;
  }
  const Utf8Names utf8(request.host);
  outcome = Transfer().perform(request);
  const auto spent = std::chrono::microseconds(outcome.totalUs);
  const auto left = request.timeLeft - std::chrono::ceil<std::chrono::milliseconds>(spent);
  if (left.count() > 0 && passwordIsUntried(outcome, request)) {
    request.mayUseTicket = false;
    request.timeLeft = left;
    request.timeSpent += spent;
    outcome = Transfer().perform(request);
  }
  return outcome;
}

void writeResults(const HttpProbe::Report& report, OUTCOME& outcome,
                  HttpProbe::HTTP_PROBE_RESULTS& results) {
  if ((report.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0) {
    results.tstrResponseHeaders = std::move(outcome.headers);
  }
  if ((report.options & HttpProbe::HTTP_PROBE_RETURN_STATUSCODE) != 0) {
    results.uiHttpStatusCode = report.httpStatus;
  }
  if ((report.options & HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR) != 0) {
    results.uiLastError = report.transportError;
  }
  if ((report.options & HttpProbe::HTTP_PROBE_RETURN_RTT) != 0) {
    results.uiRtt = report.rttMs;
  }
  if ((report.options & HttpProbe::HTTP_PROBE_RETURN_LOCATION) != 0) {
    results.tstrLocation = std::move(outcome.location);
  }
}

void tell(const std::shared_ptr<HttpProbe::Watcher>& watcher,
          void (HttpProbe::Watcher::*what)(const HttpProbe::Report&),
          const HttpProbe::Report& report) {
  if (!watcher) {
    return;
  }
  try {
    (watcher.get()->*what)(report);
  } catch (...) {
    // A watcher's trouble is not the probe's.
  }
}

/// The whole of a probe. Not inlined: what it leaves on the stack is then below its caller's frame.
[[gnu::noinline]] STATUSCODE sendAndReport(const std::string& host, bool secure,
                                           unsigned short port, const std::string& userAgent,
                                           unsigned int timeoutSeconds, const PROXY_DATA& proxyData,
                                           unsigned int options,
                                           HttpProbe::HTTP_PROBE_RESULTS& results) {
  std::shared_ptr<HttpProbe::Watcher> watcher;
  HttpProbe::RoundTripMeasure measure = HttpProbe::RoundTripMeasure::Network;
  HttpProbe::Report report;
  OUTCOME outcome;
  REQUEST request;
  try {
    watcher = currentWatcher();
    measure = settings().measure;
    report.host = host;
    report.port = port;
    report.secure = secure;
    report.options = options;
    tell(watcher, &HttpProbe::Watcher::ProbeStarted, report);
    request.secure = secure;
    request.port = port;
    request.userAgent = userAgent;
    request.timeoutSeconds = timeoutSeconds;
    outcome = send(host, proxyData, request);
  } catch (...) {
    outcome = OUTCOME();
    outcome.code = CURLE_OUT_OF_MEMORY;
  }
  fillReport(outcome, request.proxied(), measure, report);
  countFromStart(request.timeSpent.count(), report);
  writeResults(report, outcome, results);
  tell(watcher, &HttpProbe::Watcher::ProbeEnded, report);
  return report.status;
}

}  // namespace

HttpProbe::Watcher::~Watcher() = default;

STATUSCODE HttpProbe::SendHttpProbe(const std::string& host, bool secure, bool reserved,
                                    unsigned short port, const std::string& userAgent,
                                    unsigned int timeoutSeconds, const PROXY_DATA& proxyData,
                                    unsigned int options, HTTP_PROBE_RESULTS& results) {
  static_cast<void>(reserved);
  const STATUSCODE status =
      sendAndReport(host, secure, port, userAgent, timeoutSeconds, proxyData, options, results);
  if (!proxyData.proxyUser.empty()) {
    TransportMemory::WipeStack();
  }
  return status;
}

void HttpProbe::SetRoundTripMeasure(RoundTripMeasure measure) { settings().measure = measure; }

void HttpProbe::SetWatcher(std::shared_ptr<Watcher> watcher) {
  SETTINGS& process = settings();
  CAutoLockT<CManualLock> guard(process.lock);
  process.watcher.swap(watcher);
}

void HttpProbe::SetTrustFile(const std::string& path) {
  SETTINGS& process = settings();  // first: it prepares OpenSSL
  std::shared_ptr<X509_STORE> store = makeTrust(path);
  CAutoLockT<CManualLock> guard(process.lock);
  process.trust.swap(store);
}
