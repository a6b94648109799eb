// TLS by OpenSSL, set up as libcurl sets it up. The certificates that are trusted make a context,
// which all connections share until others are trusted.

#include "vpn/Common/IP/TlsConnection.h"

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "vpn/Common/IP/AddressLookup.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/include/Locks.h"

namespace {

using Context = std::shared_ptr<SSL_CTX>;
using Wire = TlsConnection::Wire;

constexpr std::array<unsigned char, 9> Http11{8, 'h', 't', 't', 'p', '/', '1', '.', '1'};

struct Shared {
  CManualLock lock;
  ProbeSettings::Trust trust AHS_GUARDED_BY(lock);
  Context context AHS_GUARDED_BY(lock);
  BIO_METHOD* method AHS_GUARDED_BY(lock) = nullptr;  // never freed, like this
};

Shared& shared() {
  static Shared& instance = *new Shared;  // never freed: a probe may run at exit
  return instance;
}

Context makeContext(const ProbeSettings::Trust& trust) {
  Context context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  if (!context || !TlsWatch::prepare(context.get(), trust) ||
      SSL_CTX_set_alpn_protos(context.get(), Http11.data(), Http11.size()) != 0) {
    return nullptr;
  }
  SSL_CTX_set_options(context.get(), SSL_OP_ALL | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION);
  SSL_CTX_clear_options(context.get(), SSL_OP_DONT_INSERT_EMPTY_FRAGMENTS);
  SSL_CTX_set_post_handshake_auth(context.get(), 1);
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  return context;
}

Context currentContext() {
  const ProbeSettings::Trust trust = ProbeSettings::trustedCertificates();
  Shared& all = shared();
  const CAutoLockT<CManualLock> guard(all.lock);
  if (trust && (!all.context || all.trust != trust)) {
    all.context = makeContext(trust);
    all.trust = trust;
  }
  return trust ? all.context : nullptr;
}

// ---- The socket, without the signal that OpenSSL's own would raise ----------------------------

Wire& wireOf(BIO* bio) { return *static_cast<Wire*>(BIO_get_data(bio)); }

bool mustWait(ssize_t count) { return count < 0 && (errno == EAGAIN || errno == EINTR); }

int writeTo(BIO* bio, const char* bytes, int size) {
  const ssize_t count =
      send(wireOf(bio).socket, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL | MSG_DONTWAIT);
  BIO_clear_retry_flags(bio);
  if (mustWait(count)) {
    BIO_set_retry_write(bio);
  }
  return static_cast<int>(count);
}

int readFrom(BIO* bio, char* bytes, int size) {
  Wire& wire = wireOf(bio);
  const ssize_t count = recv(wire.socket, bytes, static_cast<std::size_t>(size), MSG_DONTWAIT);
  wire.isDrained = count < 0 && errno == EAGAIN;
  BIO_clear_retry_flags(bio);
  if (mustWait(count)) {
    BIO_set_retry_read(bio);
  }
  BIO_set_flags(bio, count == 0 ? BIO_FLAGS_IN_EOF : 0);
  return static_cast<int>(count);
}

long control(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
  return command == BIO_CTRL_FLUSH                                               ? 1
         : command == BIO_CTRL_EOF && BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1
                                                                                 : 0;
}

int initialise(BIO* bio) {
  BIO_set_init(bio, 1);
  return 1;
}

BIO_METHOD* makeMethod() {
  BIO_METHOD* const made = BIO_meth_new(BIO_TYPE_SOURCE_SINK | BIO_get_new_index(), "ahs");
  if (made != nullptr) {
    BIO_meth_set_write(made, writeTo);
    BIO_meth_set_read(made, readFrom);
    BIO_meth_set_ctrl(made, control);
    BIO_meth_set_create(made, initialise);
  }
  return made;
}

BIO* makeBio() {
  Shared& all = shared();
  const CAutoLockT<CManualLock> guard(all.lock);
  all.method = all.method != nullptr ? all.method : makeMethod();
  return all.method != nullptr ? BIO_new(all.method) : nullptr;
}

}  // namespace

/// A name server's final dot is no part of a certificate's name (RFC 6066, section 3).
TlsConnection::TlsConnection(int socket, const std::string& host, Handle handle)
    : m_host(host.substr(0, host.size() - (host.ends_with('.') ? 1 : 0))),
      m_wire{socket},
      m_handle(std::move(handle)) {}

std::unique_ptr<TlsConnection> TlsConnection::make(int socket, const std::string& host) {
  const Context context = currentContext();
  Handle handle(context ? SSL_new(context.get()) : nullptr, SSL_free);
  BIO* const bio = handle ? makeBio() : nullptr;
  if (bio == nullptr) {
    return nullptr;
  }
  SSL_set_bio(handle.get(), bio, bio);
  auto made = std::unique_ptr<TlsConnection>(new TlsConnection(socket, host, std::move(handle)));
  BIO_set_data(bio, &made->m_wire);
  ssl_st* const connection = made->m_handle.get();
  const bool isNamed =
      !literalOf(host).empty() || SSL_set_tlsext_host_name(connection, made->m_host.c_str()) == 1;
  return isNamed && made->m_watch.attach(connection) ? std::move(made) : nullptr;
}

TlsConnection::~TlsConnection() {
  if (m_stands) {
    SSL_shutdown(m_handle.get());
    ERR_clear_error();
  }
}

bool TlsConnection::mustWrite() const { return SSL_want_write(m_handle.get()); }

bool TlsConnection::hasPending() const { return SSL_has_pending(m_handle.get()) != 0; }

TlsConnection::State TlsConnection::shakeHands() {
  ERR_clear_error();
  const State state = stateOf(SSL_connect(m_handle.get()), CURLE_SSL_CONNECT_ERROR);
  if (state != State::Done) {
    m_code = state == State::Closed ? static_cast<unsigned int>(CURLE_SSL_CONNECT_ERROR) : m_code;
    return state == State::Closed ? State::Failed : state;
  }
  m_stands = true;
  if (!isForHost()) {
    m_code = CURLE_PEER_FAILED_VERIFICATION;
    return State::Failed;
  }
  return State::Done;
}

TlsConnection::State TlsConnection::write(const char* bytes, std::size_t size, std::size_t& count) {
  ERR_clear_error();
  return stateOf(SSL_write_ex(m_handle.get(), bytes, size, &count), CURLE_SEND_ERROR);
}

TlsConnection::State TlsConnection::read(char* bytes, std::size_t size, std::size_t& count) {
  ERR_clear_error();
  return stateOf(SSL_read_ex(m_handle.get(), bytes, size, &count), CURLE_RECV_ERROR);
}

TlsConnection::State TlsConnection::stateOf(int result, unsigned int codeOfFailure) {
  switch (SSL_get_error(m_handle.get(), result)) {
    case SSL_ERROR_NONE:
      return State::Done;
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return State::Waits;
    case SSL_ERROR_ZERO_RETURN:
      return State::Closed;
    default:
      break;
  }
  const unsigned long error = ERR_peek_error();
  const int reason = ERR_GET_LIB(error) == ERR_LIB_SSL ? ERR_GET_REASON(error) : 0;
  constexpr unsigned int Doubted = CURLE_PEER_FAILED_VERIFICATION;
  constexpr unsigned int Unknown = CURLE_SSL_CLIENTCERT;
  const bool isHandshake = codeOfFailure == CURLE_SSL_CONNECT_ERROR;
  const bool isDoubted =
      reason == SSL_R_CERTIFICATE_VERIFY_FAILED || reason == SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED;
  m_code = isHandshake && isDoubted                                           ? Doubted
           : isHandshake && reason == SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED ? Unknown
                                                                              : codeOfFailure;
  m_stands = false;  // nothing more can be said on it
  ERR_clear_error();
  return State::Failed;
}

/// Without a name that a certificate is for, the subject's common name is one.
bool TlsConnection::isForHost() const {
  X509* const certificate = SSL_get0_peer_certificate(m_handle.get());
  const std::string address = literalOf(m_host);
  if (certificate == nullptr) {
    return false;
  }
  if (!address.empty() && X509_check_ip_asc(certificate, address.c_str(), 0) == 1) {
    return true;
  }
  const bool hasNames = X509_get_ext_by_NID(certificate, NID_subject_alt_name, -1) >= 0;
  const std::string& name = address.empty() ? m_host : address;
  return (address.empty() || !hasNames) &&
         X509_check_host(certificate, name.data(), name.size(),
                         X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS, nullptr) == 1;
}
