// The candidates of a run as the tool sees them. They are worked out from the profiles by the same
// rule as the run's own list, which the run keeps to itself; without them a headend that gives no
// answer would be missing from the output.

#include "cli/Candidates.h"

#include <stdlib.h>

#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/InstanceSmartPtr.h"

namespace {

// Headends are probed on the port of TLS unless their address names another.
constexpr unsigned short DefaultPort = 443;

bool takesPart(const HostInitSettings& settings) {
  Preference* preference = nullptr;
  if (!settings.getPreferences().getPreference(EnableAutomaticServerSelection, preference) ||
      preference == nullptr) {
    return false;
  }
  return preference->getPreferenceValue() == PreferenceBase::PreferenceEnabled ||
         settings.isEnabled(EnableAutomaticServerSelection, UserControllable);
}

Candidate candidateOf(const std::string& name, const std::string& address) {
  const URL url(address);
  const unsigned short port =
      url.getPort().empty()
          ? DefaultPort
          : static_cast<unsigned short>(strtoul(url.getPort().c_str(), nullptr, 10));
  return {name, url.getHostAndPort(false), placeOf(url.getHost(), port)};
}

}  // namespace

Place placeOf(const std::string& host, unsigned short port) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    return {host.substr(1, host.size() - 2), port};
  }
  return {host, port};
}

std::vector<Candidate> findCandidates() {
  std::vector<Candidate> candidates;
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  ProfileMgr* profiles = nullptr;
  if (preferences == nullptr || preferences->getProfileMgr(profiles) != 0 || profiles == nullptr) {
    return candidates;
  }
  const auto& settings = profiles->getFileInitMap();
  for (const auto& [name, host] : profiles->getHostProfileMap()) {
    const auto profile = settings.find(profiles->getProfileNameFromHost(name));
    if (host == nullptr || profile == settings.end() || !takesPart(*profile->second)) {
      continue;
    }
    candidates.push_back(candidateOf(
        name, host->getHostAddress().empty() ? host->getHostName() : host->getHostAddress()));
  }
  return candidates;
}
