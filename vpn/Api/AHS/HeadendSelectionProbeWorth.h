#pragma once

#include <vector>

#include "vpn/include/StatusCode.h"

/// What a worker makes of one probe.
enum class ProbeWorth {
  Sample,              ///< the server answered: its round trip counts
  SampleDespiteError,  ///< the transport failed otherwise: its round trip counts all the same
  ConnectFailure,      ///< no round trip; `MostConnectFailures` of them end the headend
  Unresolved,          ///< no round trip, and the end of the headend
};

/// Failures to connect after which a worker gives its headend up: one may be a lost packet.
constexpr unsigned int MostConnectFailures = 2;

/// What a probe that ended with this status is worth. Any thread may call it.
ProbeWorth worthOfProbe(STATUSCODE status);

/// The smallest round-trip time that is not 0, at most 9999; 9999 without one. 0 when every probe
/// was answered in 0 ms. Any thread may call it.
/// @param samples in milliseconds. @param numPings how many probes there were to be.
unsigned int metricOfSamples(const std::vector<unsigned int>& samples, unsigned int numPings);
