// What a transfer's TLS needs beyond what libcurl does.

#include "vpn/Common/IP/TlsWatch.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>

#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/IP/TlsHandshake.h"

namespace {

constexpr std::size_t MostDoubts = 8;

/// OpenSSL is C and cannot be thrown through. Without memory the rest is left out.
template <class Body>
void withoutThrowing(Body body) {
  try {
    body();
  } catch (...) {
  }
}

void noteCertificate(X509* certificate, std::string& der) {
  unsigned char* bytes = nullptr;
  if (const int size = i2d_X509(certificate, &bytes); size > 0) {
    withoutThrowing(
        [&] { der.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)); });
    OPENSSL_free(bytes);
  }
}

}  // namespace

bool TlsWatch::attach(ssl_ctx_st* context, TlsHandshake* shown) {
  m_shown = shown;
  m_trust = ProbeSettings::trustedCertificates();
  if (!prepare(context, m_trust) || SSL_CTX_set_app_data(context, this) != 1) {
    return false;
  }
  // libcurl would write the keys to the file that SSLKEYLOGFILE names.
  SSL_CTX_set_keylog_callback(context, nullptr);
  SSL_CTX_set_msg_callback_arg(context, this);
  if (m_shown != nullptr) {
    SSL_CTX_set_verify(context, SSL_VERIFY_NONE, &TlsWatch::onVerified);
    SSL_CTX_set_info_callback(context, &TlsWatch::onProgress);
  }
  return true;
}

bool TlsWatch::attach(ssl_st* connection) {
  m_trust = ProbeSettings::trustedCertificates();
  SSL_set_msg_callback_arg(connection, this);
  return SSL_set_app_data(connection, this) == 1;
}

bool TlsWatch::prepare(ssl_ctx_st* context, const std::shared_ptr<x509_store_st>& trust) {
  if (!trust) {
    return false;
  }
  SSL_CTX_set1_cert_store(context, trust.get());
  // A kept connection is idle most of the time, and there may be a thousand.
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
  SSL_CTX_set_msg_callback(context, &TlsWatch::onMessage);
  // There is no client certificate, but it is good to know that the server asked for one.
  SSL_CTX_set_client_cert_cb(context, [](SSL* connection, X509**, EVP_PKEY**) {
    of(connection).m_clientCertificateAsked = true;
    return 0;
  });
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, &TlsWatch::onDoubted);
  return true;
}

bool TlsWatch::isTrustCurrent() const { return m_trust == ProbeSettings::trustedCertificates(); }

/// OpenSSL reads messages that lead to nothing (HelloRequest, KeyUpdate) for as long as they come,
/// and libcurl cannot look at its clock meanwhile: without input OpenSSL has to return.
void TlsWatch::onMessage(int sent, int /*version*/, int type, const void* data,
                         std::size_t /*length*/, ssl_st* connection, void* self) {
  TlsWatch& watch = *static_cast<TlsWatch*>(self);
  if (watch.m_shown != nullptr && sent == 0 && type == SSL3_RT_HEADER &&
      watch.m_shown->firstByte < 0) {
    watch.m_shown->firstByte = *static_cast<const unsigned char*>(data);
  }
  if (sent != 0 || type != SSL3_RT_HEADER || watch.m_late || Clock::now() < watch.m_end) {
    return;
  }
  if (BIO* const nothing = BIO_new(BIO_s_null()); nothing != nullptr) {
    watch.m_late = true;
    SSL_set0_rbio(connection, nothing);
  }
}

/// OpenSSL tells each doubt; going on in spite of one brings out the others.
int TlsWatch::onVerified(int isFine, x509_store_ctx_st* store) {
  const auto* connection = static_cast<const SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  TlsHandshake& shown = *of(connection).m_shown;
  if (shown.certificate.empty()) {
    noteCertificate(X509_STORE_CTX_get0_cert(store), shown.certificate);
  }
  if (isFine == 0 && shown.doubts.size() < MostDoubts) {
    const char* doubt = X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
    if (std::find(shown.doubts.begin(), shown.doubts.end(), doubt) == shown.doubts.end()) {
      withoutThrowing([&] { shown.doubts.emplace_back(doubt); });
    }
  }
  return 1;
}

/// Takes down who issued a certificate that is not trusted; the verdict stays.
int TlsWatch::onDoubted(int isFine, x509_store_ctx_st* store) {
  const auto* connection = static_cast<const SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  const X509* const certificate = X509_STORE_CTX_get0_cert(store);
  if (isFine == 0 && certificate != nullptr) {
    std::array<char, 256> issuer{};
    X509_NAME_oneline(X509_get_issuer_name(certificate), issuer.data(), issuer.size());
    withoutThrowing([&] { of(connection).m_untrustedIssuer = issuer.data(); });
  }
  return isFine;
}

void TlsWatch::onProgress(const ssl_st* connection, int where, int /*result*/) {
  if ((where & SSL_CB_HANDSHAKE_DONE) != 0) {
    TlsHandshake& shown = *of(connection).m_shown;
    withoutThrowing([&] {
      shown.isDone = true;
      shown.version = SSL_get_version(connection);
      shown.cipher = SSL_get_cipher_name(connection);
    });
  }
}

/// A connection that libcurl has made has an application's data of libcurl's.
TlsWatch& TlsWatch::of(const ssl_st* connection) {
  void* const ofContext = SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection));
  return *static_cast<TlsWatch*>(ofContext != nullptr ? ofContext : SSL_get_app_data(connection));
}
