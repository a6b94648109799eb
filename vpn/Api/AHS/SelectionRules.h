#pragma once

/// The rules of a selection: what takes part, where it is probed, what a probe is worth, and who
/// comes first. The run and all reports of it use the same functions.

#include <string>
#include <vector>

#include "vpn/include/StatusCode.h"

class HostInitSettings;
class HostProfile;
class URL;

/// Functions of their arguments alone. Any thread may call them.
namespace SelectionRules {

/// Where a headend listens when its address names no port.
constexpr unsigned int DefaultPort = 443;

/// Failures to connect after which a worker gives its headend up: one may be a lost packet.
constexpr unsigned int MostConnectFailures = 2;

/// The reason with a time limit of its own, for which the last headend is favoured.
constexpr unsigned int ReasonReconnection = 1;
/// The reason of a selection that follows a login at the proxy.
constexpr unsigned int ReasonProxyAuthentication = 3;
/// Reasons are the numbers below this.
constexpr unsigned int ReasonCount = 6;

/// A reason in words: "preferences change"; "unknown" for a number that is none.
const char* reasonText(unsigned int reason);

/// What a profile says of automatic selection for its hosts.
enum class Participation {
  NotSet,
  Enabled,
  LeftToUser,  ///< off, but the user may switch it on, and is taken to want that
  Disabled,
};
Participation participationOf(const HostInitSettings& profile);

/// Whether the hosts of such a profile take part.
bool takesPart(Participation participation);

/// Where a host entry is reached: its address, or its name when it has none.
const std::string& addressOf(const HostProfile& host);

/// The port that is probed.
unsigned int portOf(const URL& headend);

/// What a worker makes of one probe.
enum class ProbeWorth {
  Sample,              ///< the server answered: its round trip counts
  SampleDespiteError,  ///< the transport failed otherwise: its round trip counts all the same
  ConnectFailure,      ///< no round trip; `MostConnectFailures` of them end the headend
  Unresolved,          ///< no round trip, and the end of the headend
};

/// What a probe that ended with this status is worth.
ProbeWorth worthOfProbe(STATUSCODE status);

/// Whether such a probe tells a round-trip time: a refusal that came from the server is as good a
/// measurement as a welcome.
bool isSample(STATUSCODE status);

/// What a worker has made of its probes.
struct Tally {
  std::vector<unsigned int> samplesMs;  ///< in the order of the probes
  unsigned int connectFailures = 0;
  bool hasGivenUp = false;  ///< no more probes, and no result whatever the samples

  /// Takes the next probe. @return what it is worth.
  ProbeWorth take(STATUSCODE status, unsigned int rttMs);
};

/// The smallest round-trip time that is not 0, at most 9999; 9999 without one. 0 when every probe
/// was answered in 0 ms.
/// @param samples in milliseconds. @param numPings how many probes there were to be.
unsigned int metricOfSamples(const std::vector<unsigned int>& samples, unsigned int numPings);

/// Whether a reconnection stays with the last headend. Single precision throughout, so that a tie
/// at the threshold is a tie on every machine.
struct Retention {
  float ratio;  ///< the last headend's metric over the best one; infinite or NaN for a best of 0
  float threshold;  ///< a ratio below this retains the last headend
  bool isRetained;
};
Retention retentionOf(unsigned int lastMetric, unsigned int bestMetric,
                      unsigned int improvementPercent);

}  // namespace SelectionRules
