// A look at a server's certificate. The handshake works on memory: what comes from the network goes
// through `Wire`, which bounds it in time and size whatever the server sends, so OpenSSL never
// reads from a socket. The certificate is checked as the probes check it, but all doubts are told.

#include "cli/probe/TlsInspection.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <errno.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <utility>

#include "cli/Wording.h"
#include "vpn/Api/ConfigurationText.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/Utility/Utf8Locale.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A handshake with the longest chain that OpenSSL takes (100 KiB) fits.
constexpr std::size_t MostBytes = std::size_t{256} * 1024;
constexpr std::size_t MostNames = 20;
constexpr std::size_t MostTextBytes = 200;
constexpr std::size_t MostDoubts = 8;

template <class T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* object) const { Free(object); }
};
template <class T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, Deleter<T, Free>>;

void freeMemory(BIO* memory) { BIO_free_all(memory); }

using Connection = Owned<SSL, SSL_free>;
using Context = Owned<SSL_CTX, SSL_CTX_free>;
using Memory = Owned<BIO, freeMemory>;
using Names = Owned<GENERAL_NAMES, GENERAL_NAMES_free>;

std::string shortText(const std::string& text) {
  return ConfigurationText::oneLine(text, MostTextBytes);
}

// ---- The network ------------------------------------------------------------------------------

/// A connection that is read and written within a time limit, up to a size.
class Wire {
 public:
  enum class State { Open, Closed, TimedOut, TooMuch };

  Wire(const CheckedAddress& address, milliseconds limit)
      : m_deadline(Clock::now() + limit),
        m_socket(socket(address.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    if (m_socket < 0 || (connect(m_socket, reinterpret_cast<const sockaddr*>(&address.address),
                                 address.length) != 0 &&
                         errno != EINPROGRESS)) {
      m_state = State::Closed;
    }
  }
  ~Wire() {
    if (m_socket >= 0) {
      close(m_socket);
    }
  }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  State state() const { return m_state; }
  std::size_t received() const { return m_received; }
  /// The first byte that came; -1 if none did.
  int firstByte() const { return m_firstByte; }

  /// Sends what OpenSSL has put there.
  void send(BIO* memory) {
    std::array<char, 4096> bytes{};
    int size = 0;
    while (m_state == State::Open && (size = BIO_read(memory, bytes.data(), bytes.size())) > 0) {
      sendAll(bytes.data(), static_cast<std::size_t>(size));
    }
  }

  /// Waits until something has come, and hands it to OpenSSL.
  void receive(BIO* memory) {
    std::array<char, 16384> bytes{};
    while (m_state == State::Open && await(POLLIN)) {
      const ssize_t size = recv(m_socket, bytes.data(), bytes.size(), 0);
      if (size > 0) {
        note(bytes.front(), static_cast<std::size_t>(size));
        BIO_write(memory, bytes.data(), static_cast<int>(size));
        return;
      }
      if (size == 0 || !isTemporary()) {
        m_state = State::Closed;
      }
    }
  }

 private:
  static bool isTemporary() { return errno == EAGAIN || errno == EINTR; }

  void note(char first, std::size_t size) {
    if (m_received == 0) {
      m_firstByte = static_cast<unsigned char>(first);
    }
    m_received += size;
    if (m_received > MostBytes) {
      m_state = State::TooMuch;
    }
  }

  void sendAll(const char* bytes, std::size_t size) {
    while (size > 0 && await(POLLOUT)) {
      const ssize_t sent = ::send(m_socket, bytes, size, MSG_NOSIGNAL);
      if (sent < 0 && !isTemporary()) {
        m_state = State::Closed;
        return;
      }
      const std::size_t done = sent < 0 ? 0 : static_cast<std::size_t>(sent);
      bytes += done;
      size -= done;
    }
  }

  bool await(short what) {
    const auto left = std::chrono::ceil<milliseconds>(m_deadline - Clock::now());
    pollfd ready{m_socket, what, 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) == 0) {
      m_state = State::TimedOut;
      return false;
    }
    return true;
  }

  const Clock::time_point m_deadline;
  const int m_socket;
  State m_state = State::Open;
  std::size_t m_received = 0;
  int m_firstByte = -1;
};

// ---- The certificate --------------------------------------------------------------------------

std::string takeText(BIO* memory) {
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory, &text);
  return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}

std::string nameText(const X509_NAME* name) {
  // UTF-8 stays what it is; whatever else could be taken for something is shown as its code.
  constexpr unsigned long Format =
      XN_FLAG_ONELINE & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
  const Memory memory(BIO_new(BIO_s_mem()));
  if (!memory || X509_NAME_print_ex(memory.get(), name, 0, Format) < 0) {
    return "?";
  }
  return shortText(takeText(memory.get()));
}

std::string timeText(const ASN1_TIME* time) {
  tm parts{};
  return ASN1_TIME_to_tm(time, &parts) == 1 ? Wording::utc(parts) : "?";
}

std::string bytesOf(const ASN1_STRING* text) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
          static_cast<std::size_t>(ASN1_STRING_length(text))};
}

std::string addressText(const ASN1_OCTET_STRING* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const int size = ASN1_STRING_length(address);
  const int family = size == sizeof(in_addr) ? AF_INET : AF_INET6;
  if ((size != sizeof(in_addr) && size != sizeof(in6_addr)) ||
      inet_ntop(family, ASN1_STRING_get0_data(address), text.data(), text.size()) == nullptr) {
    return "?";
  }
  return text.data();
}

void takeNames(const X509* certificate, CertificateSummary& summary) {
  const Names names(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type != GEN_DNS && name->type != GEN_IPADD) {
      continue;  // no server is looked for by another kind
    }
    if (summary.names.size() == MostNames) {
      ++summary.moreNames;
    } else if (name->type == GEN_DNS) {
      summary.names.push_back(shortText(bytesOf(name->d.dNSName)));
    } else {
      summary.names.push_back(addressText(name->d.iPAddress));
    }
  }
}

std::string keyText(X509* certificate) {
  const EVP_PKEY* key = X509_get0_pubkey(certificate);
  if (key == nullptr) {
    return "of an unknown kind";
  }
  const char* type = EVP_PKEY_get0_type_name(key);
  std::string text = type == nullptr ? "?" : type;
  std::array<char, 64> group{};
  if (EVP_PKEY_get_group_name(key, group.data(), group.size(), nullptr) == 1) {
    text += " " + std::string(group.data());
  }
  return shortText(text) + ", " + std::to_string(EVP_PKEY_get_bits(key)) + " bits";
}

CertificateSummary summaryOf(X509* certificate) {
  CertificateSummary summary;
  summary.subject = nameText(X509_get_subject_name(certificate));
  summary.issuer = nameText(X509_get_issuer_name(certificate));
  const ASN1_TIME* until = X509_get0_notAfter(certificate);
  summary.validFrom = timeText(X509_get0_notBefore(certificate));
  summary.validUntil = timeText(until);
  int days = 0;
  int seconds = 0;
  if (ASN1_TIME_diff(&days, &seconds, nullptr, until) == 1) {
    summary.isExpired = days < 0 || seconds < 0;
    summary.daysLeft = summary.isExpired ? days - 1 : days;  // OpenSSL rounds towards 0
  }
  takeNames(certificate, summary);
  summary.key = keyText(certificate);
  return summary;
}

// ---- The handshake ----------------------------------------------------------------------------

/// What OpenSSL's callbacks gather.
struct Gathered {
  std::vector<std::string> doubts;
  bool asksForClientCertificate = false;
};

int gatheredIndex() {
  static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

Gathered* gatheredOf(const SSL* connection) {
  return static_cast<Gathered*>(SSL_get_ex_data(connection, gatheredIndex()));
}

/// OpenSSL tells each doubt; going on in spite of one brings out the others.
int onVerified(int isFine, X509_STORE_CTX* store) {
  const auto* connection = static_cast<const SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  Gathered* gathered = connection == nullptr ? nullptr : gatheredOf(connection);
  if (isFine == 0 && gathered != nullptr && gathered->doubts.size() < MostDoubts) {
    const std::string doubt = X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
    std::vector<std::string>& doubts = gathered->doubts;
    if (std::find(doubts.begin(), doubts.end(), doubt) == doubts.end()) {
      doubts.push_back(doubt);
    }
  }
  return 1;
}

int onClientCertificate(SSL* connection, X509** /*certificate*/, EVP_PKEY** /*key*/) {
  if (Gathered* gathered = gatheredOf(connection); gathered != nullptr) {
    gathered->asksForClientCertificate = true;
  }
  return 0;  // there is none
}

/// An international name as it stands in certificates; any other as it is.
std::string asciiName(const std::string& host) {
  const Utf8Locale utf8;
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
  char* text = nullptr;
  std::string name = host;
  if (url && curl_url_set(url.get(), CURLUPART_HOST, host.c_str(), 0) == CURLUE_OK &&
      curl_url_get(url.get(), CURLUPART_HOST, &text, CURLU_PUNYCODE) == CURLUE_OK) {
    name = text;
    curl_free(text);
  }
  if (name.size() > 1 && name.ends_with('.')) {
    name.pop_back();  // which no certificate has
  }
  return name;
}

/// Tells the server which host it is asked as; an address is no name.
bool askFor(SSL* connection, const std::string& host) {
  return isAddressLiteral(host) ||
         SSL_set_tlsext_host_name(connection, asciiName(host).c_str()) == 1;
}

bool hasAlternativeNames(const X509* certificate) {
  const Names names(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const int type = sk_GENERAL_NAME_value(names.get(), i)->type;
    if (type == GEN_DNS || type == GEN_IPADD) {
      return true;
    }
  }
  return false;
}

/// Whether the certificate is for the host, by the rule of the probes: only where it has no
/// alternative name of either kind its common name counts, for an address too. OpenSSL's own rule
/// is another, so it is asked for single comparisons.
bool isFor(X509* certificate, const std::string& host) {
  const bool isAddress = isAddressLiteral(host);
  const std::string name =
      isAddress ? host.substr(0, host.find('%')) : asciiName(host);  // no certificate names a zone
  if (!hasAlternativeNames(certificate)) {
    const unsigned int flags =
        isAddress ? X509_CHECK_FLAG_NO_WILDCARDS : X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS;
    return X509_check_host(certificate, name.c_str(), name.size(), flags, nullptr) == 1;
  }
  return isAddress ? X509_check_ip_asc(certificate, name.c_str(), 0) == 1
                   : X509_check_host(
                         certificate, name.c_str(), name.size(),
                         X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT,
                         nullptr) == 1;
}

std::string mismatchWith(const std::string& host) {
  return X509_verify_cert_error_string(isAddressLiteral(host) ? X509_V_ERR_IP_ADDRESS_MISMATCH
                                                              : X509_V_ERR_HOSTNAME_MISMATCH);
}

Context makeContext() {
  // First: it prepares OpenSSL for the process.
  const ProbeSettings::Trust trust = ProbeSettings::TrustedCertificates();
  Context context(trust ? SSL_CTX_new(TLS_client_method()) : nullptr);
  if (context) {
    SSL_CTX_set1_cert_store(context.get(), trust.get());
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, onVerified);
    SSL_CTX_set_client_cert_cb(context.get(), onClientCertificate);
  }
  return context;
}

/// Why OpenSSL gave up.
std::string handshakeError() {
  const unsigned long error = ERR_peek_last_error();
  const char* reason = ERR_reason_error_string(error);
  return reason == nullptr ? "for a reason that OpenSSL does not tell" : reason;
}

/// TLS begins with a record of a handshake or of an alert (RFC 8446, section 5.1).
bool isTls(int firstByte) { return firstByte == SSL3_RT_HANDSHAKE || firstByte == SSL3_RT_ALERT; }

std::string problemOf(const Wire& wire, bool isDone) {
  if (isDone) {
    return "";
  }
  if (wire.received() > 0 && !isTls(wire.firstByte())) {
    return "speaks no TLS: it answers a TLS greeting with something else";
  }
  switch (wire.state()) {
    case Wire::State::TimedOut:
      return wire.received() == 0 ? "speaks no TLS: it says nothing to a TLS greeting"
                                  : "does not end the TLS handshake in time";
    case Wire::State::TooMuch:
      return "sends more than a TLS handshake has";
    case Wire::State::Closed:
      return wire.received() == 0 ? "speaks no TLS: it hangs up on a TLS greeting"
                                  : "hangs up during the TLS handshake";
    default:
      return "fails the TLS handshake: " + handshakeError();
  }
}

/// Drives the handshake to its end, or to what is in its way. @return whether it is done.
bool shakeHands(SSL* connection, Wire& wire, BIO* fromServer, BIO* toServer) {
  while (true) {
    const int result = SSL_do_handshake(connection);
    wire.send(toServer);
    if (result == 1) {
      return true;
    }
    if (SSL_get_error(connection, result) != SSL_ERROR_WANT_READ ||
        wire.state() != Wire::State::Open) {
      return false;
    }
    wire.receive(fromServer);
    if (wire.state() != Wire::State::Open) {
      return false;
    }
  }
}

void describe(SSL* connection, const std::string& host, const Gathered& gathered,
              TlsInspection& inspection) {
  if (inspection.problem.empty()) {
    inspection.version = SSL_get_version(connection);
    inspection.cipher = SSL_get_cipher_name(connection);
  }
  inspection.asksForClientCertificate = gathered.asksForClientCertificate;
  // Also a handshake that fails later shows it.
  if (X509* certificate = SSL_get0_peer_certificate(connection); certificate != nullptr) {
    inspection.certificate = summaryOf(certificate);
    inspection.certificate->doubts = gathered.doubts;
    if (!isFor(certificate, host)) {
      inspection.certificate->doubts.push_back(mismatchWith(host));
    }
  }
}

}  // namespace

TlsInspection inspectTls(const CheckedAddress& address, const std::string& host,
                         milliseconds limit) {
  TlsInspection inspection;
  inspection.address = address.text;
  const Context context = makeContext();
  const Connection connection(context ? SSL_new(context.get()) : nullptr);
  BIO* const fromServer = BIO_new(BIO_s_mem());
  BIO* const toServer = BIO_new(BIO_s_mem());
  Gathered gathered;
  if (!connection || fromServer == nullptr || toServer == nullptr ||
      SSL_set_ex_data(connection.get(), gatheredIndex(), &gathered) != 1) {
    BIO_free(fromServer);
    BIO_free(toServer);
    inspection.problem = "cannot be asked: the machine is short of memory";
    return inspection;
  }
  SSL_set_bio(connection.get(), fromServer, toServer);  // which owns them now
  ERR_clear_error();
  if (!askFor(connection.get(), host)) {
    inspection.problem = "cannot be asked for a certificate of that name";
    return inspection;
  }
  SSL_set_connect_state(connection.get());
  Wire wire(address, limit);
  const bool isDone = shakeHands(connection.get(), wire, fromServer, toServer);
  inspection.problem = problemOf(wire, isDone);
  inspection.speaksTls = isTls(wire.firstByte());
  describe(connection.get(), host, gathered, inspection);
  ERR_clear_error();
  return inspection;
}
