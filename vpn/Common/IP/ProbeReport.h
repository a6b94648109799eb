#pragma once

#include <string>

#include "vpn/Common/Utility/Shortage.h"
#include "vpn/include/StatusCode.h"

/// What `uiRtt` is.
enum class RoundTripMeasure {
  /// The smallest round trip that the kernel has seen on the connection (tcp(7), TCP_INFO,
  /// `tcpi_min_rtt`): the network alone. A busy machine or a slow headend does not change it.
  /// Through a proxy, where the connection ends, it is `Response`. Where the kernel cannot say, it
  /// is the time that the connection took to open.
  Network,
  /// From the request to the first byte of the answer: a slow headend counts as far away. Where
  /// no byte came, it ends with the probe; where no request could be sent, it starts with the TLS
  /// handshake that failed, or with the attempt to connect to the proxy that refused a tunnel.
  /// Where a proxy has the request repeated to authenticate it, it goes from the first of them to
  /// the answer of the last.
  Response,
  /// `Network`, unless there is evidence that what answers there is not the gateway; see
  /// `RoundTripDoubt`.
  Auto,
};

/// Why `Auto` does not take the network's round trip.
enum class RoundTripDoubt : unsigned char {
  None,
  /// Something near the client opens the connections of all gateways: the response counts.
  NearBox,
  /// Data was acknowledged before it can have come. The time that the connection took to open
  /// counts, or its half if that may be jitter.
  EarlyAcknowledgement,
};

/// Everything known of one probe, in the order of events. Times are in microseconds from the
/// start of the probe, -1 for what did not happen; round trips are durations.
struct ProbeReport {
  std::string host;                 ///< as given to `SendHttpProbe`, like port and secure
  unsigned short port = 0;          ///< 1 to 65535
  bool secure = false;              ///< HTTPS
  unsigned int options = 0;         ///< as given to `SendHttpProbe`
  bool proxied = false;             ///< a proxy was found for it
  STATUSCODE status = 0;            ///< as `SendHttpProbe` returns it
  unsigned int rttMs = 0;           ///< what `uiRtt` is for this probe
  unsigned int httpStatus = 0;      ///< what `uiHttpStatusCode` is; 0: none
  unsigned int transportError = 0;  ///< what `uiLastError` is
  /// Attempts to connect were given up before the time-out: nothing had answered.
  bool silent = false;
  bool reused = false;             ///< on an earlier probe's connection; then the next two are -1
  long long connectUs = -1;        ///< the connection stood
  long long tlsUs = -1;            ///< the TLS handshake was done
  long long totalUs = 0;           ///< the probe was over
  long long openingUs = -1;        ///< SYN to SYN-ACK of the connection, by the kernel
  long long networkRttUs = -1;     ///< smallest round trip that the kernel saw on the connection
  long long responseRttUs = -1;    ///< from the request to the first byte of the answer
  std::string address;             ///< the address that was connected to (a proxy's, too), if any
  unsigned short addressPort = 0;  ///< the port at that address; 0 without one
  RoundTripDoubt doubt = RoundTripDoubt::None;
  int systemError = 0;         ///< errno of why there was no connection; 0 for none or unknown
  std::string redirectHost;    ///< the host that an answer of 3xx leads to; empty for none
  std::string issuer;          ///< of a certificate that is not trusted, unchecked; empty for none
  bool toThisMachine = false;  ///< an address that was tried is the loopback's or none ("0.0.0.0")
  bool unresolved = false;     ///< it ended before an address of the name was known
  /// What this machine lacked, where that is why there was no answer.
  Shortage shortage = Shortage::None;
};
