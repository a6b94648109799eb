// Describes a server's certificate and a failed handshake. A probe's code does the handshake; this
// makes the server's texts, which may hold anything, short and visible.

#include "cli/probe/TlsInspection.h"

#include <arpa/inet.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <time.h>

#include <array>
#include <memory>
#include <string_view>

#include "cli/Wording.h"
#include "cli/probe/AddressCheck.h"
#include "vpn/Api/ConfigurationText.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace {

constexpr std::size_t MostNames = 20;
constexpr std::size_t MostTextBytes = 200;

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Memory = std::unique_ptr<BIO, decltype(&BIO_free_all)>;
using Names = std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)>;

std::string shortText(const std::string& text) {
  return ConfigurationText::oneLine(text, MostTextBytes);
}

std::string takeText(BIO* memory) {
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory, &text);
  return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}

std::string nameText(const X509_NAME* name) {
  // Keeps UTF-8; shows other suspicious characters as their codes.
  constexpr unsigned long Format =
      XN_FLAG_ONELINE & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
  const Memory memory(BIO_new(BIO_s_mem()), BIO_free_all);
  if (!memory || X509_NAME_print_ex(memory.get(), name, 0, Format) < 0) {
    return "?";
  }
  return shortText(takeText(memory.get()));
}

std::string timeText(const ASN1_TIME* time) {
  tm parts{};
  return ASN1_TIME_to_tm(time, &parts) == 1 ? Wording::utc(parts) : "?";
}

std::string bytesOf(const ASN1_STRING* text) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
          static_cast<std::size_t>(ASN1_STRING_length(text))};
}

std::string addressText(const ASN1_OCTET_STRING* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const int size = ASN1_STRING_length(address);
  const int family = size == sizeof(in_addr) ? AF_INET : AF_INET6;
  if ((size != sizeof(in_addr) && size != sizeof(in6_addr)) ||
      inet_ntop(family, ASN1_STRING_get0_data(address), text.data(), text.size()) == nullptr) {
    return "?";
  }
  return text.data();
}

void takeNames(const X509* certificate, CertificateSummary& summary) {
  const Names names(static_cast<GENERAL_NAMES*>(
                        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)),
                    GENERAL_NAMES_free);
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type != GEN_DNS && name->type != GEN_IPADD) {
      continue;  // clients look up servers by no other kind
    }
    if (summary.names.size() == MostNames) {
      ++summary.moreNames;
    } else if (name->type == GEN_DNS) {
      summary.names.push_back(shortText(bytesOf(name->d.dNSName)));
    } else {
      summary.names.push_back(addressText(name->d.iPAddress));
    }
  }
}

std::string keyText(X509* certificate) {
  const EVP_PKEY* key = X509_get0_pubkey(certificate);
  if (key == nullptr) {
    return "of an unknown kind";
  }
  const char* type = EVP_PKEY_get0_type_name(key);
  std::string text = type == nullptr ? "?" : type;
  std::array<char, 64> group{};
  if (EVP_PKEY_get_group_name(key, group.data(), group.size(), nullptr) == 1) {
    text += " " + std::string(group.data());
  }
  return shortText(text) + ", " + std::to_string(EVP_PKEY_get_bits(key)) + " bits";
}

CertificateSummary summaryOf(X509* certificate) {
  CertificateSummary summary;
  summary.subject = nameText(X509_get_subject_name(certificate));
  summary.issuer = nameText(X509_get_issuer_name(certificate));
  const ASN1_TIME* until = X509_get0_notAfter(certificate);
  summary.validFrom = timeText(X509_get0_notBefore(certificate));
  summary.validUntil = timeText(until);
  int days = 0;
  int seconds = 0;
  if (ASN1_TIME_diff(&days, &seconds, nullptr, until) == 1) {
    summary.isExpired = days < 0 || seconds < 0;
    summary.daysLeft = summary.isExpired ? days - 1 : days;  // OpenSSL rounds towards 0
  }
  takeNames(certificate, summary);
  summary.key = keyText(certificate);
  return summary;
}

/// TLS begins with a handshake or alert record (RFC 8446, section 5.1).
bool isTls(int firstByte) { return firstByte == SSL3_RT_HANDSHAKE || firstByte == SSL3_RT_ALERT; }

/// OpenSSL's reason: "error:0A000410:SSL routines::sslv3 alert handshake failure" without its
/// beginning; empty if the connection ended without a reason.
std::string reasonOf(const TlsHandshake& handshake) {
  const std::string_view words = handshake.failure.data();
  if (words.find("error:") == std::string_view::npos ||
      words.find("unexpected eof") != std::string_view::npos) {
    return {};
  }
  return shortText(std::string(words.substr(words.rfind(':') + 1)));
}

std::string problemOf(const TlsHandshake& handshake) {
  if (handshake.isDone) {
    return "";
  }
  const bool isSilent = handshake.firstByte < 0;
  if (!isSilent && !isTls(handshake.firstByte)) {
    return "speaks no TLS: it answers a TLS greeting with something else";
  }
  if (handshake.isTimedOut) {
    return isSilent ? "speaks no TLS: it says nothing to a TLS greeting"
                    : "does not end the TLS handshake in time";
  }
  if (const std::string reason = reasonOf(handshake); !reason.empty()) {
    return "fails the TLS handshake: " + reason;
  }
  return isSilent ? "speaks no TLS: it hangs up on a TLS greeting"
                  : "hangs up during the TLS handshake";
}

}  // namespace

TlsInspection inspectTls(const std::string& host, unsigned short port, std::chrono::seconds limit) {
  const TlsHandshake handshake = HttpProbe::shakeHands(host, port, limit);
  TlsInspection inspection;
  inspection.address = handshake.address;
  inspection.problem = problemOf(handshake);
  inspection.speaksTls = isTls(handshake.firstByte);
  inspection.version = handshake.version;
  inspection.cipher = handshake.cipher;
  inspection.asksForClientCertificate = handshake.asksForClientCertificate;
  const auto* der = reinterpret_cast<const unsigned char*>(handshake.certificate.data());
  const Certificate certificate(
      d2i_X509(nullptr, &der, static_cast<long>(handshake.certificate.size())), X509_free);
  if (certificate) {
    inspection.certificate = summaryOf(certificate.get());
    inspection.certificate->doubts = handshake.doubts;
    if (handshake.isForAnotherHost) {
      inspection.certificate->doubts.emplace_back(X509_verify_cert_error_string(
          isAddressLiteral(host) ? X509_V_ERR_IP_ADDRESS_MISMATCH : X509_V_ERR_HOSTNAME_MISMATCH));
    }
  }
  return inspection;
}
