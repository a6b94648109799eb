#pragma once

#include <array>
#include <string>
#include <vector>

/// What a TLS handshake with a server showed. All of it comes unchecked from a stranger.
struct TlsHandshake {
  bool isDone = false;
  bool isForAnotherHost = false;  ///< the certificate is; known once the handshake is done
  bool isTimedOut = false;
  int firstByte = -1;   ///< of the first record that came; -1 if none did
  std::string version;  ///< "TLSv1.3"; empty until it is done, like the next
  std::string cipher;
  bool asksForClientCertificate = false;
  std::string certificate;          ///< the server's (DER); empty if it showed none
  std::vector<std::string> doubts;  ///< why that is not trusted, whatever the host
  std::string address;              ///< that was connected to
  std::array<char, 256> failure{};  ///< libcurl's words, ended by a zero
};
