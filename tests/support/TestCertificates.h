#pragma once

#include <string>

#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestAuthority.h"

namespace tests {

/// The files of a server at 127.0.0.1, ::1 and localhost, with a certificate of an authority of the
/// test's own. They live as long as the object.
class TestCertificates {
 public:
  TestCertificates() {
    TestAuthority::write(m_authority.issue(), Certificate(), Key());
    m_directory.Write("server-and-key.pem", readFile(Certificate()) + readFile(Key()));
  }

  /// The authority's certificate, for who is to trust the server.
  std::string Authority() const { return m_authority.file(); }
  std::string Certificate() const { return m_directory.File("server.pem"); }
  std::string Key() const { return m_directory.File("server.key"); }
  /// Certificate and key in one file.
  std::string CertificateAndKey() const { return m_directory.File("server-and-key.pem"); }

 private:
  TestAuthority m_authority;
  TemporaryDirectory m_directory;
};

}  // namespace tests
