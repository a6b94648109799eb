// Certificates as a person would make them, with the openssl command and valid for two days, so
// that nothing that a server or the probe trusts is ever kept in the sources.

#include "tests/support/TestCertificates.h"

#include "tests/support/ChildProcess.h"

namespace tests {

TestCertificates::TestCertificates() {
  const std::string openssl = findProgram("openssl", "openssl");
  runToEnd({openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
            "-noenc", "-days", "2", "-subj", "/CN=Authority of a test", "-addext",
            "keyUsage=critical,keyCertSign", "-keyout", "authority.key", "-out", "authority.pem"},
           m_directory.Path());
  runToEnd({openssl,
            "req",
            "-x509",
            "-CA",
            "authority.pem",
            "-CAkey",
            "authority.key",
            "-newkey",
            "ec",
            "-pkeyopt",
            "ec_paramgen_curve:prime256v1",
            "-noenc",
            "-days",
            "2",
            "-subj",
            "/CN=localhost",
            "-addext",
            "subjectAltName=IP:127.0.0.1,IP:::1,DNS:localhost",
            "-addext",
            "basicConstraints=critical,CA:FALSE",
            "-keyout",
            "server.key",
            "-out",
            "server.pem"},
           m_directory.Path());
  m_directory.Write("server-and-key.pem", readFile(Certificate()) + readFile(Key()));
}

}  // namespace tests
