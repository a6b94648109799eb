// What probes are worth in a selection. Workers and whoever explains them go by the same rules.

#include "vpn/Api/AHS/HeadendSelectionProbeWorth.h"

#include "vpn/include/HttpSession.h"

namespace {

/// Ceiling of a metric, and the metric of a headend without a usable sample.
constexpr unsigned int WorstMetric = 9999;

}  // namespace

ProbeWorth worthOfProbe(STATUSCODE status) {
  switch (status) {
    // The server itself answered, if only with something that is of no use to a client.
    case HTTP_SESSION_SUCCESS:
    case HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE:
    case HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE:
    case HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED:
      return ProbeWorth::Sample;
    case HTTP_SESSION_ERROR_CONNECT:
    case HTTP_SESSION_ERROR_TIMEOUT:
    case HTTP_SESSION_ERROR_CANNOT_CONNECT:
      return ProbeWorth::ConnectFailure;
    case HTTP_SESSION_ERROR_DNS_RESOLUTION:
      return ProbeWorth::Unresolved;
    default:
      return ProbeWorth::SampleDespiteError;
  }
}

unsigned int metricOfSamples(const std::vector<unsigned int>& samples, unsigned int numPings) {
  unsigned int minRTT = WorstMetric;
  unsigned int pingSum = 0;
  for (const unsigned int rtt : samples) {
    pingSum += rtt;
    if (rtt < minRTT && rtt != 0) {
      minRTT = rtt;
    }
  }
  // One 0 among others is a measurement gone wrong; nothing but 0 is a headend next door.
  if (numPings == samples.size() && pingSum == 0) {
    return 0;
  }
  return minRTT;
}
