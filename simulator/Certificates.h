#pragma once

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

#include "simulator/Scene.h"

namespace simulator {

/// Frees what OpenSSL made.
struct OpenSslDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* connection) const { SSL_free(connection); }
};
template <typename T>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter>;

/// What is wrong with a server's certificate.
enum class CertificateFlaw { None, Expired, NotYetValid, SelfSigned, OtherHost };

/// A certificate authority that lives as long as the process: its key is in memory alone, so that
/// whoever trusts its certificate trusts this one run.
class CertificateAuthority {
 public:
  /// @throws std::runtime_error when OpenSSL fails.
  CertificateAuthority();

  /// Writes the authority's certificate (PEM). @throws std::runtime_error.
  void write(const std::string& path) const;

  /// Makes a server's certificate for an address and its names, valid from yesterday for a month
  /// but for its flaw, for the key `ServerKey`. @throws std::runtime_error.
  OpenSslPtr<X509> issue(const IpAddress& address, const std::vector<std::string>& names,
                         CertificateFlaw flaw) const;

  /// The key of all servers: to make one each would only cost time.
  EVP_PKEY* serverKey() const { return m_serverKey.get(); }

 private:
  OpenSslPtr<EVP_PKEY> m_key;
  OpenSslPtr<EVP_PKEY> m_serverKey;
  OpenSslPtr<X509> m_certificate;
};

}  // namespace simulator
