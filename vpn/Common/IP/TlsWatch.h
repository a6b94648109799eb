#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

struct ssl_ctx_st;
struct ssl_st;
struct x509_store_ctx_st;
struct x509_store_st;
struct TlsHandshake;

/// Sees to the TLS of one transfer: gives it the certificates that are trusted, keeps it within its
/// time, and notes what the server says. Versions, ciphers and checks stay the transport's.
class TlsWatch {
 public:
  using Clock = std::chrono::steady_clock;

  TlsWatch() = default;
  TlsWatch(const TlsWatch&) = delete;
  TlsWatch& operator=(const TlsWatch&) = delete;

  /// To be called before a handshake begins; this outlives the connections of `context`.
  /// @param shown null, or what is to be filled in: then every doubt about the certificate is
  ///        looked for and the handshake goes on in spite of it.
  /// @return false if there is no memory.
  bool attach(ssl_ctx_st* context, TlsHandshake* shown);
  /// The same for one connection of a context that others share, which `prepare` has set up.
  bool attach(ssl_st* connection);
  static bool prepare(ssl_ctx_st* context, const std::shared_ptr<x509_store_st>& trust);

  /// When the time for talk that leads to nothing is over.
  void setEnd(Clock::time_point end) { m_end = end; }
  /// The server's talk went on beyond the end and was cut off.
  bool isLate() const { return m_late; }
  bool isClientCertificateAsked() const { return m_clientCertificateAsked; }
  /// Who issued the server's certificate if that is not trusted, in one line; else empty.
  const std::string& untrustedIssuer() const { return m_untrustedIssuer; }
  /// Whether what was trusted in the handshake is what is trusted now.
  bool isTrustCurrent() const;

 private:
  static void onMessage(int sent, int version, int type, const void* data, std::size_t length,
                        ssl_st* connection, void* self);
  static int onVerified(int isFine, x509_store_ctx_st* store);
  static int onDoubted(int isFine, x509_store_ctx_st* store);
  static void onProgress(const ssl_st* connection, int where, int result);
  static TlsWatch& of(const ssl_st* connection);

  std::shared_ptr<x509_store_st> m_trust;
  TlsHandshake* m_shown = nullptr;
  Clock::time_point m_end;
  bool m_late = false;
  bool m_clientCertificateAsked = false;
  std::string m_untrustedIssuer;
};
