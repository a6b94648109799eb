#pragma once

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

#include "simulator/Scene.h"

namespace simulator {

/// Frees OpenSSL's objects.
struct OpenSslDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* connection) const { SSL_free(connection); }
};
template <typename T>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter>;

/// The fault in a server's certificate.
/// `Inspected`: an inspector's authority has issued it.
enum class CertificateFlaw { None, Expired, NotYetValid, SelfSigned, OtherHost, Inspected };

/// A certificate authority that lives as long as the process. Its key is only in memory, so
/// trusting its certificate means trusting only this run.
class CertificateAuthority {
 public:
  /// @throws std::runtime_error if OpenSSL fails.
  CertificateAuthority();

  /// Writes the authority's certificate (PEM). @throws std::runtime_error.
  void write(const std::string& path) const;

  /// Makes a server's certificate for `serverKey`, with an address and its names. Valid from
  /// yesterday for a month, except for its flaw. @throws std::runtime_error.
  OpenSslPtr<X509> issue(const IpAddress& address, const std::vector<std::string>& names,
                         CertificateFlaw flaw) const;

  /// The shared key of all servers: making one for each would only cost time.
  EVP_PKEY* serverKey() const { return m_serverKey.get(); }

 private:
  OpenSslPtr<EVP_PKEY> m_key;
  OpenSslPtr<EVP_PKEY> m_serverKey;
  OpenSslPtr<X509> m_certificate;
  OpenSslPtr<EVP_PKEY> m_inspectorKey;
  OpenSslPtr<X509> m_inspectorCertificate;
};

}  // namespace simulator
