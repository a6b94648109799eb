#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "vpn/Common/IP/ProbeKind.h"
#include "vpn/Common/IP/ProbeReport.h"
#include "vpn/Common/IP/TlsHandshake.h"
#include "vpn/include/HttpSession.h"
#include "vpn/include/StatusCode.h"

class KeptTransfer;

/// Sends single HTTP(S) requests to find out whether a host answers, and how far away it is.
///
/// All operations may be called from any thread; probes run in parallel and share nothing but the
/// settings. The task of the probe's thread (`ProbeTask`) is told of the probe and may cancel it.
class HttpProbe {
 public:
  /// What a probe found out.
  struct HTTP_PROBE_RESULTS {
    /// Round-trip time in milliseconds, rounded to the nearest; 0 when nothing answered. Where the
    /// outcome counts as an answer it is always measured.
    unsigned int uiRtt = 0;
    /// Status code of the answer; 0 when there was none. A proxy's refusal counts (407), its
    /// consent to open a tunnel does not, nor does a headend's 407.
    unsigned int uiHttpStatusCode = 0;
    /// The transport's own error number: libcurl's CURLcode (libcurl-errors(3)), 0 for none.
    unsigned int uiLastError = 0;
    /// The header lines of the last answer as received, its status line first; whole lines, at
    /// most 64 KiB.
    std::string tstrResponseHeaders;
    /// The value of the answer's Location header; it is never followed.
    std::string tstrLocation;
    /// The head of the last request that was sent straight to the server; empty when none was.
    std::string tstrRequest;
  };

  /// Which results are wanted; the others stay as they are.
  enum HTTP_PROBE_OPTIONS : unsigned int {
    HTTP_PROBE_RETURN_ALL_HEADERS = 1,
    HTTP_PROBE_RETURN_STATUSCODE = 2,
    HTTP_PROBE_RETURN_LAST_ERROR = 4,
    HTTP_PROBE_RETURN_RTT = 8,
    HTTP_PROBE_RETURN_LOCATION = 16,
    HTTP_PROBE_RETURN_REQUEST = 32,
  };

  using RoundTripMeasure = ::RoundTripMeasure;
  using Report = ProbeReport;

  /// While one lives, its thread's direct probes to one server share one connection if the server
  /// lets them, so that only the first pays for the TLS handshake. It closes with this object.
  /// Probes through a proxy, with credentials or of other threads are not affected; a nested object
  /// does nothing. Outcomes do not change: if the kept connection is lost or answers without HTTP,
  /// the probe uses a fresh one; if it is silent for a quarter of the time-out, a fresh one is
  /// asked too, within the same time-out, and the first answer counts. After one connection could
  /// not be used again, the server is not asked to keep another.
  ///
  /// A connection can be used again only at the end of an answer, so the body of a short answer (14
  /// KiB) is read when the next probe begins. The connection is given up if the body is longer,
  /// does not arrive within a round trip after its head, or is followed by anything; no probe waits
  /// for the body of its own answer. A connection is not kept either if its first answer took half
  /// of the time-out, or any answer a quarter: too little time would be left for a fresh one.
  ///
  /// Lives on the stack of the thread that it is for. Where there is no memory, nothing is kept.
  class KeptConnection {
   public:
    KeptConnection() noexcept;
    ~KeptConnection();
    KeptConnection(const KeptConnection&) = delete;
    KeptConnection& operator=(const KeptConnection&) = delete;
    static void* operator new(std::size_t) = delete;

   private:
    std::shared_ptr<KeptTransfer> m_transfer;
  };

  HttpProbe() = delete;

  /// Sends one request (GET for "/", left at the end of the head) to a host and waits for the head
  /// of its answer.
  ///
  /// @param host a name, an IPv4 address, or an IPv6 address with or without brackets; see `URL`.
  /// @param secure HTTPS instead of HTTP.
  /// @param reserved always false.
  /// @param port 1 to 65535.
  /// @param userAgent value of the User-Agent header, control characters left out; empty for none.
  /// @param timeoutSeconds limit of the whole probe, name resolution included; 0 counts as 1.
  /// @param proxyData the proxy to go through: `proxyServer` (port 80 if it names none), or with
  ///        `determineProxy` the one that the environment names (http_proxy, https_proxy,
  ///        all_proxy, no_proxy) or else the system's settings (`SystemProxy`). The environment is
  ///        read in no other case. Only the proxy gets the credentials, by Basic, NTLM or Negotiate
  ///        as it asks: the strongest, or one with a password if there is no ticket for Negotiate.
  /// @param options bit-or of HTTP_PROBE_OPTIONS.
  /// @param results receives what `options` name; the rest is left alone.
  /// @return HTTP_SESSION_SUCCESS when the server (or a proxy on its behalf) answered with HTTP,
  ///         whatever the status code. Otherwise HTTP_SESSION_ERROR_ and one of
  ///
  ///     UNTRUSTED_CERTIFICATE    certificate not trusted, expired, or for another host
  ///     CLIENT_AUTH_CERT_NEEDED  client certificate demanded; the connection ended without one
  ///     INVALID_SERVER_RESPONSE  connection closed or reset, TLS alert, something that is no HTTP,
  ///                              head too long, tunnel refused by the proxy
  ///     CANNOT_CONNECT           connection refused, network unreachable, port 0, memory or
  ///                              sockets run out
  ///     CONNECT                  the same for the proxy, or its name or address is unusable, or
  ///                              the system's settings could not be asked or name no usable one
  ///     DNS_RESOLUTION           name unknown, name server failed, or the host is no host
  ///     TIMEOUT                  time-out, in whatever state
  ///
  /// The first three are answers: `uiRtt` is measured for them as for success. No other status is
  /// returned: callers count an unknown one as a sample of 0 ms, and a probe that could not be
  /// tried must not look like the nearest server.
  ///
  /// A probe ends with the head of the answer, whatever body it announces; redirects are not
  /// followed, and nothing is ever sent to a server whose certificate is not trusted. A head that
  /// goes on beyond 256 KiB, 1,000 lines or 10 answers (interim ones counted) is cut off. Throws
  /// nothing and raises no signal, whatever the peer does.
  ///
  /// A name server that stays silent does not hold up the time-out; the thread that asks it ends by
  /// itself, later.
  ///
  /// Of the credentials nothing is left in memory when it returns, unless the host has initialised
  /// libcurl before, whose allocator then stays the host's: see docs/secrets.md.
  static STATUSCODE SendHttpProbe(const std::string& host, bool secure, bool reserved,
                                  unsigned short port, const std::string& userAgent,
                                  unsigned int timeoutSeconds, const PROXY_DATA& proxyData,
                                  unsigned int options, HTTP_PROBE_RESULTS& results);

  /// Does the TLS handshake of a direct, secure probe and closes: no request is sent. It goes on in
  /// spite of doubts about the certificate, to tell them all. Throws nothing.
  static TlsHandshake shakeHands(const std::string& host, unsigned short port,
                                 std::chrono::seconds timeout) noexcept;

  /// Chooses the measure for probes that start from now on; `Network` until it is called.
  static void setRoundTripMeasure(RoundTripMeasure measure);

  /// Chooses whether probes that start from now on end when their task is out of patience
  /// (`ProbeTask::unanswered`); they do until it is called.
  static void setLeavesSilent(bool leaves);

  /// Chooses whether a direct probe that starts from now on counts as one that could not connect
  /// if the server answers 5xx, or not with HTTP; it does not until it is called. A probe that asks
  /// for all headers, which tests the way, always counts as what it is.
  static void setNeedsService(bool needs);

  /// Names the gateways that are probed in another way, for probes that start from now on. Probes
  /// through a proxy stay as they are. An answer of another kind counts as success without an HTTP
  /// status; an ICMP refusal as CANNOT_CONNECT.
  static void setHows(ProbeHows hows);

  /// Adds certificates (a PEM file) to those trusted, for probes that start from now on; an empty
  /// path for the system's alone. The file is read at once; one that cannot be read adds nothing.
  /// @return why the file is of no use, or an empty text.
  static std::string setTrustFile(const std::string& path);
};
