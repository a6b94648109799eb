// Certificates for tests, made with new keys at each run, so that no key lies in the repository and
// none expires.

#include "tests/support/TestAuthority.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <memory>
#include <stdexcept>

namespace tests {

namespace {

X509* x509(const IssuedCertificate& certificate) {
  return static_cast<X509*>(certificate.certificate.get());
}

EVP_PKEY* key(const IssuedCertificate& certificate) {
  return static_cast<EVP_PKEY*>(certificate.key.get());
}

void addExtension(X509* certificate, X509* issuer, int identifier, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, identifier, value.c_str());
  if (extension == nullptr) {
    throw std::runtime_error("bad certificate extension: " + value);
  }
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

IssuedCertificate makeCertificate(const std::string& name, long validFrom, long validUntil) {
  static std::atomic<long> serial{1};
  IssuedCertificate made;
  made.key = std::shared_ptr<void>(
      EVP_EC_gen("P-256"), [](void* pointer) { EVP_PKEY_free(static_cast<EVP_PKEY*>(pointer)); });
  made.certificate = std::shared_ptr<void>(
      X509_new(), [](void* pointer) { X509_free(static_cast<X509*>(pointer)); });
  X509* certificate = x509(made);
  constexpr long kVersion3 = 2;
  X509_set_version(certificate, kVersion3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
  X509_gmtime_adj(X509_getm_notBefore(certificate), validFrom);
  X509_gmtime_adj(X509_getm_notAfter(certificate), validUntil);
  X509_set_pubkey(certificate, key(made));
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  return made;
}

}  // namespace

TestAuthority::TestAuthority() {
  constexpr long kAnHour = 3600;
  constexpr long kADay = 24 * kAnHour;
  m_own = makeCertificate("Test authority", -kADay, kADay);
  X509_set_issuer_name(x509(m_own), X509_get_subject_name(x509(m_own)));
  addExtension(x509(m_own), x509(m_own), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(x509(m_own), x509(m_own), NID_key_usage, "critical,keyCertSign,cRLSign");
  X509_sign(x509(m_own), key(m_own), EVP_sha256());
  write(m_own, file(), m_directory.File("authority.key"));
}

IssuedCertificate TestAuthority::issue(const Subject& subject) const {
  IssuedCertificate made =
      makeCertificate(subject.commonName, subject.validFrom, subject.validUntil);
  X509_set_issuer_name(x509(made), X509_get_subject_name(x509(m_own)));
  if (!subject.alternativeNames.empty()) {
    addExtension(x509(made), x509(m_own), NID_subject_alt_name, subject.alternativeNames);
  }
  X509_sign(x509(made), key(m_own), EVP_sha256());
  return made;
}

void TestAuthority::write(const IssuedCertificate& issued, const std::string& certificateFile,
                          const std::string& keyFile) {
  const std::unique_ptr<BIO, int (*)(BIO*)> certificate(BIO_new_file(certificateFile.c_str(), "w"),
                                                        BIO_free);
  const std::unique_ptr<BIO, int (*)(BIO*)> keys(BIO_new_file(keyFile.c_str(), "w"), BIO_free);
  if (PEM_write_bio_X509(certificate.get(), x509(issued)) != 1 ||
      PEM_write_bio_PrivateKey(keys.get(), key(issued), nullptr, nullptr, 0, nullptr, nullptr) !=
          1) {
    throw std::runtime_error("cannot write " + certificateFile);
  }
}

}  // namespace tests
