#pragma once

#include <string>

#include "vpn/Common/IP/ProbeReport.h"

/// What came of a request, as libcurl, the kernel and the callbacks tell. Times are in microseconds
/// from the start of the probe, 0 for what did not happen.
struct ProbeOutcome {
  unsigned int code = 0;  ///< libcurl's CURLcode
  /// The request went out on the connection of an earlier one.
  bool reused = false;
  bool silent = false;  ///< given up: no attempt to connect was answered
  bool clientCertificateAsked = false;
  bool isServed = false;  ///< answered in the gateway's own protocol, which is not HTTP
  long httpStatus = 0;
  long tunnelStatus = 0;
  /// The request went to an HTTP proxy, which answered it or passed it on.
  bool askedProxy = false;
  /// The ways to log in that the proxy offers (CURLAUTH_).
  long offeredLogIns = 0;
  long osError = 0;
  long long openedUs = 0;  ///< the first attempt to connect began
  long long connectUs = 0;
  long long tlsStartUs = 0;
  long long tlsUs = 0;
  long long requestUs = 0;
  long long firstByteUs = 0;
  long long endedUs = 0;  ///< the request had ended; the probe may have gone on
  /// How long the connection, even a reused one, took to open; 0 without one.
  long long connectTookUs = 0;
  long long openingUs = -1;            ///< SYN to SYN-ACK, like the next
  bool openedAgain = false;            ///< its SYN was repeated, so that is not known
  long long networkRttUs = -1;         ///< -1 where the kernel cannot say
  Shortage shortage = Shortage::None;  ///< what could not be had for the request
  std::string address;
  unsigned short addressPort = 0;
  std::string issuer;  ///< of a certificate that is not trusted
  bool toThisMachine = false;
  bool unresolved = false;
  std::string headers;
  std::string location;
  std::string request;

  /// A connection reset before libcurl looked at it counts: something had answered.
  bool connected() const;
  /// The answer's; a proxy's refusal counts, its consent to a tunnel does not. A headend's 407 is
  /// no status: it must not make anybody log in at a proxy. One that a plain proxy passes on looks
  /// like the proxy's own.
  unsigned int finalStatus() const;

  /// The network's round trip of an answer, or the nearest measure if the kernel has none. A
  /// connection reset while it opened counts until its end.
  long long networkRoundTrip() const;
  /// At least 1, because 0 stands for a probe without an answer.
  static unsigned int toMilliseconds(long long microseconds);

  /// Fills the report; for `Auto`, `rttMs` is the network's. Moves the address out of the outcome,
  /// so that nothing is allocated.
  void fill(ProbeReport& report, bool proxied, RoundTripMeasure measure);
};
