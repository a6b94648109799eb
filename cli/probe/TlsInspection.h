#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// What a server's certificate says. All texts are visible and bounded: a stranger wrote them.
struct CertificateSummary {
  std::string subject;
  std::string issuer;
  std::string validFrom;   ///< "2026-11-18T09:12:44Z"
  std::string validUntil;  ///< the same
  long daysLeft = 0;       ///< whole days until then; -1 on the first day after, then -2
  bool isExpired = false;
  std::vector<std::string> names;   ///< valid for these
  std::size_t moreNames = 0;        ///< number of further names
  std::string key;                  ///< "EC prime256v1, 256 bits"
  std::vector<std::string> doubts;  ///< why it is not trusted for this host
};

/// What a TLS handshake with a server showed.
struct TlsInspection {
  std::string address;  ///< of the connection
  /// Why the handshake failed, a sentence without its full stop; empty if it succeeded.
  std::string problem;
  /// The server has sent a TLS record.
  bool speaksTls = false;
  std::string version;  ///< "TLSv1.3"; empty without a handshake
  std::string cipher;
  bool asksForClientCertificate = false;
  std::optional<CertificateSummary> certificate;
};

/// Does the TLS handshake of a probe and sends nothing more. Takes at most `limit`.
/// @param host a name, or an address without brackets.
TlsInspection inspectTls(const std::string& host, unsigned short port, std::chrono::seconds limit);
