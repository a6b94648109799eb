// What a transfer's TLS needs beyond what libcurl does. OpenSSL reads messages that lead to nothing
// for as long as they come, so the time-out has to be kept here.

#include "vpn/Common/IP/TlsWatch.h"

#include <openssl/ssl.h>

#include "vpn/Common/IP/ProbeSettings.h"

bool TlsWatch::Attach(ssl_ctx_st* context) {
  m_trust = ProbeSettings::TrustedCertificates();
  if (!m_trust || SSL_CTX_set_ex_data(context, contextIndex(), this) != 1) {
    return false;
  }
  SSL_CTX_set1_cert_store(context, m_trust.get());
  // A kept connection is idle most of the time, and there may be a thousand.
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
  SSL_CTX_set_msg_callback(context, &TlsWatch::onMessage);
  SSL_CTX_set_msg_callback_arg(context, this);
  // There is no client certificate, but it is good to know that the server asked for one.
  SSL_CTX_set_client_cert_cb(context, [](SSL* connection, X509**, EVP_PKEY**) {
    SSL_CTX* const asked = SSL_get_SSL_CTX(connection);
    static_cast<TlsWatch*>(SSL_CTX_get_ex_data(asked, contextIndex()))->m_clientCertificateAsked =
        true;
    return 0;
  });
  return true;
}

bool TlsWatch::IsTrustCurrent() const { return m_trust == ProbeSettings::TrustedCertificates(); }

/// OpenSSL reads messages that lead to nothing (HelloRequest, KeyUpdate) for as long as they come,
/// and libcurl cannot look at its clock meanwhile: without input OpenSSL has to return.
void TlsWatch::onMessage(int sent, int /*version*/, int type, const void* /*data*/,
                         std::size_t /*length*/, ssl_st* connection, void* self) {
  TlsWatch& watch = *static_cast<TlsWatch*>(self);
  if (sent != 0 || type != SSL3_RT_HEADER || watch.m_late || Clock::now() < watch.m_end) {
    return;
  }
  if (BIO* const nothing = BIO_new(BIO_s_null()); nothing != nullptr) {
    watch.m_late = true;
    SSL_set0_rbio(connection, nothing);
  }
}

int TlsWatch::contextIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}
