#pragma once

#include <string>

/// The head of an HTTP answer, as far as authentication by a proxy is concerned (RFC 9110,
/// section 11). Used by one thread at a time.
class CHttpHeaderResponse {
 public:
  /// Takes the raw header lines of one or more answers (a proxy's, then the server's) in place of
  /// earlier ones. Skips other lines.
  void set(const std::string& headers);

  /// The realm of the proxy's challenge for an authentication scheme ("Basic", in any letter case),
  /// unescaped; empty if there is no such challenge or it names no realm. Several challenges may
  /// stand in one Proxy-Authenticate line or in several. A challenge that is not well formed is
  /// skipped, and so is a realm longer than 4096 bytes or with control characters in it, those of
  /// Unicode above 127 included.
  std::string getProxyAuthRealm(std::string scheme) const;

 private:
  std::string m_headers;
};
