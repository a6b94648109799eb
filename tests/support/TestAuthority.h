#pragma once

#include <memory>
#include <string>

#include "tests/support/TemporaryDirectory.h"

namespace tests {

/// A certificate and its private key, as OpenSSL holds them (X509, EVP_PKEY).
struct IssuedCertificate {
  std::shared_ptr<void> certificate;
  std::shared_ptr<void> key;
};

/// A certificate authority made on the spot, and the certificates that it signs.
class TestAuthority {
 public:
  struct Subject {
    std::string commonName = "Test server";
    /// As in the extension subjectAltName of openssl-x509v3_config(5); empty for none.
    std::string alternativeNames = "IP:127.0.0.1,IP:::1,DNS:localhost";
    /// Seconds from now.
    long validFrom = -3600;
    long validUntil = 3600;
  };

  TestAuthority();

  IssuedCertificate issue() const { return issue(Subject()); }
  IssuedCertificate issue(const Subject& subject) const;

  /// Writes a certificate and its key as PEM files.
  static void write(const IssuedCertificate& issued, const std::string& certificateFile,
                    const std::string& keyFile);

  /// A PEM file with the authority's certificate, for those who are to trust it.
  std::string file() const { return m_directory.File("authority.pem"); }

 private:
  IssuedCertificate m_own;
  TemporaryDirectory m_directory;
};

}  // namespace tests
