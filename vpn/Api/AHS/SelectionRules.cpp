// The rules of a selection. They have no state and depend on their arguments alone, so a report
// that uses them agrees with the run.

#include "vpn/Api/AHS/SelectionRules.h"

#include <array>
#include <locale>
#include <sstream>

#include "vpn/Api/HostInitSettings.h"
#include "vpn/Api/HostProfile.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/HttpSession.h"

namespace {

/// Ceiling of a metric, and the metric of a headend without a usable sample.
constexpr unsigned int WorstMetric = 9999;

}  // namespace

const char* SelectionRules::reasonText(unsigned int reason) {
  static constexpr std::array<const char*, ReasonCount> Texts = {
      "connection",           "reconnection",   "preferences change",
      "proxy authentication", "process launch", "disconnect"};
  return reason < ReasonCount ? Texts[reason] : "unknown";
}

SelectionRules::Participation SelectionRules::participationOf(const HostInitSettings& profile) {
  Preference* preference = nullptr;
  if (!profile.getPreferences().getPreference(EnableAutomaticServerSelection, preference)) {
    return Participation::NotSet;
  }
  const bool isEnabled = preference->getPreferenceValue() == PreferenceBase::PreferenceEnabled;
  const bool isUsers = profile.isEnabled(EnableAutomaticServerSelection, UserControllable);
  return isEnabled ? Participation::Enabled
         : isUsers ? Participation::LeftToUser
                   : Participation::Disabled;
}

bool SelectionRules::takesPart(Participation participation) {
  return participation == Participation::Enabled || participation == Participation::LeftToUser;
}

const std::string& SelectionRules::addressOf(const HostProfile& host) {
  const std::string& address = host.getHostAddress();
  return address.empty() ? host.getHostName() : address;
}

unsigned int SelectionRules::portOf(const URL& headend) {
  unsigned int port = DefaultPort;
  if (!headend.getPort().empty()) {
    std::istringstream stream(headend.getPort());
    stream.imbue(std::locale::classic());  // the host's locale may group digits
    stream >> port;
  }
  return port;
}

SelectionRules::ProbeWorth SelectionRules::worthOfProbe(STATUSCODE status) {
  switch (status) {
    // The server itself answered, if only with something that a client cannot use.
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

bool SelectionRules::isSample(STATUSCODE status) {
  const ProbeWorth worth = worthOfProbe(status);
  return worth == ProbeWorth::Sample || worth == ProbeWorth::SampleDespiteError;
}

SelectionRules::ProbeWorth SelectionRules::Tally::take(STATUSCODE status, unsigned int rttMs) {
  const ProbeWorth worth = worthOfProbe(status);
  if (isSample(status)) {
    samplesMs.push_back(rttMs);
  }
  connectFailures += worth == ProbeWorth::ConnectFailure ? 1 : 0;
  hasGivenUp =
      hasGivenUp || worth == ProbeWorth::Unresolved || connectFailures >= MostConnectFailures;
  return worth;
}

unsigned int SelectionRules::metricOfSamples(const std::vector<unsigned int>& samples,
                                             unsigned int numPings) {
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

SelectionRules::Retention SelectionRules::retentionOf(unsigned int lastMetric,
                                                      unsigned int bestMetric,
                                                      unsigned int improvementPercent) {
  const float ratio = static_cast<float>(lastMetric) / static_cast<float>(bestMetric);
  const float threshold = static_cast<float>(improvementPercent) / 100.0F + 1.0F;
  // A ratio of NaN, for a best and a last of 0, is below nothing.
  return {ratio, threshold, threshold > ratio};
}
