// Makes certificates through OpenSSL's API: no file or argument list holds a key.

#include "simulator/Certificates.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>

namespace simulator {
namespace {

constexpr long Day = 24 * 60 * 60;
/// The clocks of a test's machines may differ.
constexpr long ValidFrom = -Day;
constexpr long ValidUntil = 30 * Day;

[[noreturn]] void fail(const char* operation) {
  char reason[256] = {};
  ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
  throw std::runtime_error(std::string(operation) + ": " + reason);
}

OpenSslPtr<EVP_PKEY> makeKey() {
  // Every client knows this curve, and no other common one signs as cheaply.
  OpenSslPtr<EVP_PKEY> key(EVP_EC_gen("P-256"));
  if (!key) fail("EVP_EC_gen");
  return key;
}

/// A certificate without extensions and signature.
OpenSslPtr<X509> makeCertificate(const std::string& commonName, EVP_PKEY* key) {
  OpenSslPtr<X509> certificate(X509_new());
  if (!certificate) fail("X509_new");
  constexpr long Version3 = 2;
  X509_set_version(certificate.get(), Version3);

  std::uint64_t serial = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) != 1) fail("RAND_bytes");
  // A serial number must be positive.
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), (serial >> 1) | 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), ValidFrom);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), ValidUntil);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  return certificate;
}

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
  if (extension == nullptr) fail("X509V3_EXT_conf_nid");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

OpenSslPtr<X509> makeAuthority(const std::string& commonName, EVP_PKEY* key) {
  auto certificate = makeCertificate(commonName, key);
  X509* self = certificate.get();
  X509_set_issuer_name(self, X509_get_subject_name(self));
  addExtension(self, self, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
  addExtension(self, self, NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(self, self, NID_subject_key_identifier, "hash");
  if (X509_sign(self, key, EVP_sha256()) == 0) fail("X509_sign");
  return certificate;
}

}  // namespace

CertificateAuthority::CertificateAuthority()
    : m_key(makeKey()),
      m_serverKey(makeKey()),
      m_certificate(makeAuthority("Simulated gateways' authority", m_key.get())),
      m_inspectorKey(makeKey()),
      m_inspectorCertificate(makeAuthority("Simulated inspector", m_inspectorKey.get())) {}

void CertificateAuthority::write(const std::string& path) const {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "we"),
                                                             std::fclose);
  if (!file || PEM_write_X509(file.get(), m_certificate.get()) != 1 ||
      std::fflush(file.get()) != 0) {
    throw std::runtime_error(path + ": cannot be written");
  }
}

OpenSslPtr<X509> CertificateAuthority::issue(const IpAddress& address,
                                             const std::vector<std::string>& names,
                                             CertificateFlaw flaw) const {
  auto certificate =
      makeCertificate(names.empty() ? address.text() : names.front(), m_serverKey.get());
  std::string alternatives = "IP:" + address.text();
  for (const std::string& name : names) alternatives += ",DNS:" + name;
  if (flaw == CertificateFlaw::OtherHost) alternatives = "DNS:elsewhere.invalid";
  if (flaw == CertificateFlaw::Expired) {
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), ValidFrom / 2);
  } else if (flaw == CertificateFlaw::NotYetValid) {
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), ValidUntil / 2);
  }

  const bool selfSigned = flaw == CertificateFlaw::SelfSigned;
  const bool inspected = flaw == CertificateFlaw::Inspected;
  X509* const issuer = selfSigned  ? certificate.get()
                       : inspected ? m_inspectorCertificate.get()
                                   : m_certificate.get();
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer));
  addExtension(certificate.get(), issuer, NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate.get(), issuer, NID_ext_key_usage, "serverAuth");
  addExtension(certificate.get(), issuer, NID_subject_alt_name, alternatives);
  // A self-signed certificate has no key of an authority to name.
  if (!selfSigned) addExtension(certificate.get(), issuer, NID_authority_key_identifier, "keyid");
  EVP_PKEY* const key = selfSigned  ? m_serverKey.get()
                        : inspected ? m_inspectorKey.get()
                                    : m_key.get();
  if (X509_sign(certificate.get(), key, EVP_sha256()) == 0) fail("X509_sign");
  return certificate;
}

}  // namespace simulator
