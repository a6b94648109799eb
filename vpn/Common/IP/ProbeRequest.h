#pragma once

#include <chrono>
#include <string>

#include "vpn/Common/IP/ProbeKind.h"
#include "vpn/include/HttpSession.h"

class ProbeTask;
struct ProbeReport;
struct TlsHandshake;

/// What is sent, and to whom.
struct ProbeTarget {
  std::string host;  ///< checked, as it stands in a URL
  bool secure = false;
  unsigned short port = 0;
  std::string userAgent;
  bool tellsRequest = false;  ///< the caller wants the request as it was sent

  bool operator==(const ProbeTarget&) const = default;
  /// Whether the host is an address, so that no name is looked up.
  bool isAddress() const;
  std::string url() const;
};

/// One probe as it is to be sent, checked.
struct ProbeRequest : ProbeTarget {
  using Clock = std::chrono::steady_clock;

  unsigned int timeoutSeconds = 0;
  /// When the probe started, its whole time-out, and when that is over. Times of an outcome count
  /// from the start, whatever comes before the request is sent.
  Clock::time_point start = Clock::now();
  std::chrono::milliseconds timeout{};
  Clock::time_point deadline;
  /// "http://host:port"; empty for none, or for the environment's.
  std::string proxy;
  /// The variable that holds the proxy, with a password perhaps, which is not copied; null for
  /// none.
  const char* proxyVariable = nullptr;
  /// The environment's exceptions (no_proxy) hold for the proxy, which is the system's.
  bool heedsExceptions = false;
  /// Log in with a Kerberos ticket, should the proxy take one.
  bool mayUseTicket = true;
  /// The task of the probe's thread, which outlives the request; null for none.
  ProbeTask* task = nullptr;
  /// The probe as its task is told of it, which outlives the request; null for none.
  const ProbeReport* report = nullptr;
  /// What is asked for, and where; `port` is that port. A proxy is always asked by HTTP.
  ProbeHow how;
  bool isDatagram() const { return how.kind != ProbeKind::Http && !proxied(); }
  /// Nothing is sent once the connection stands.
  bool connectsOnly = false;
  /// Where to tell of the TLS handshake, in place of a request; null for an ordinary one.
  TlsHandshake* handshake = nullptr;
  /// The caller's object, which outlives the request: credentials are not copied here.
  const PROXY_DATA* credentials = nullptr;

  bool proxied() const { return proxyVariable != nullptr || !proxy.empty(); }
  bool logsIn() const { return proxied() && !credentials->proxyUser.empty(); }
  /// Whether it goes straight to the server and carries no secret.
  bool isDirect() const {
    return !proxied() && credentials->proxyUser.empty() && credentials->proxyPswd.empty();
  }

  /// Whether the server that it connects to, or the proxy, may have a name instead of an address.
  bool needsName() const;

  /// What is left of the time-out; 0 or less for nothing.
  std::chrono::milliseconds timeLeft() const;

  /// Checks and completes a request whose port, security, user agent and time-out are set, and
  /// finds its proxy.
  /// @return 0, or libcurl's code for what cannot be sent.
  unsigned int prepare(const std::string& toHost, const PROXY_DATA& proxyData);

 private:
  unsigned int determineProxy();
};
