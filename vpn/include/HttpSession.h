#pragma once

/// @file
/// How an HTTP request ends, and the proxy that it takes.

#include <string>

#include "vpn/include/StatusCode.h"

/// Status codes of an HTTP session (module 0x46).
enum HTTP_SESSION_ERRORS : STATUSCODE {
  HTTP_SESSION_SUCCESS = 0,
  /// The proxy could not be reached or its name could not be resolved.
  HTTP_SESSION_ERROR_CONNECT = 0xFE46000C,
  /// The server answered with a certificate that is not trusted.
  HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE = 0xFE460017,
  /// The server's name could not be resolved, or is not a name.
  HTTP_SESSION_ERROR_DNS_RESOLUTION = 0xFE460019,
  /// The server answered that it wants a client certificate.
  HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED = 0xFE46001A,
  /// The time-out passed before an answer was complete.
  HTTP_SESSION_ERROR_TIMEOUT = 0xFE46001B,
  /// Something answered, but not with HTTP.
  HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE = 0xFE46001C,
  /// The server could not be reached.
  HTTP_SESSION_ERROR_CANNOT_CONNECT = 0xFE46001D,
};

/// The proxy of an HTTP request and the credentials for it. The user name and the password are
/// secrets: destruction and assignment overwrite their characters before the memory is given back.
/// There is no move: a copy leaves the original's characters where its destructor finds them.
struct PROXY_DATA {
  /// No proxy and no credentials.
  PROXY_DATA();
  ~PROXY_DATA();
  /// Each copy wipes its own memory; assignment wipes the old text.
  /// @{
  PROXY_DATA(const PROXY_DATA& other);
  PROXY_DATA& operator=(const PROXY_DATA& other);
  /// @}

  /// True: the probe finds the proxy itself from the system's settings. False: `proxyServer` names
  /// it; an empty one means a direct connection.
  bool determineProxy = false;
  /// "http=http://" followed by the host and an optional ":" and port.
  std::string proxyServer;
  std::string proxyUser;  ///< empty: no credentials are used
  std::string proxyPswd;  ///< counts only together with a user name
};
