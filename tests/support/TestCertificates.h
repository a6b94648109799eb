#pragma once

#include <string>

#include "tests/support/TemporaryDirectory.h"

namespace tests {

/// A certificate authority of the test's own and one server certificate for 127.0.0.1, ::1 and
/// localhost, made with the openssl command. The files live as long as the object.
class TestCertificates {
 public:
  /// @throws std::runtime_error when openssl is missing or fails.
  TestCertificates();

  /// The authority's certificate, for who is to trust the server.
  std::string Authority() const { return m_directory.File("authority.pem"); }
  std::string Certificate() const { return m_directory.File("server.pem"); }
  std::string Key() const { return m_directory.File("server.key"); }
  /// Certificate and key in one file.
  std::string CertificateAndKey() const { return m_directory.File("server-and-key.pem"); }

 private:
  TemporaryDirectory m_directory;
};

}  // namespace tests
