// The candidates of a run as door and command see them. They are worked out from the profiles by
// the same rule as the run's own list, which the run keeps to itself; without them a headend that
// gives no answer would be missing from what is told.

#include "vpn/Api/AHS/Candidates.h"

#include <stdlib.h>

#include <algorithm>

#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

// Headends are probed on the port of TLS unless their address names another.
constexpr unsigned short DefaultPort = 443;

struct Verdict {
  bool takesPart;
  std::string reason;
};

/// The rule for the hosts of one profile.
Verdict verdictOf(const HostInitSettings& settings) {
  Preference* preference = nullptr;
  if (!settings.getPreferences().getPreference(EnableAutomaticServerSelection, preference) ||
      preference == nullptr) {
    return {false, "its profile does not set EnableAutomaticServerSelection"};
  }
  const std::string& value = preference->getPreferenceValue();
  if (value == PreferenceBase::PreferenceEnabled) {
    return {true, "EnableAutomaticServerSelection is true"};
  }
  const std::string found = "EnableAutomaticServerSelection is \"" + value + "\"";
  return settings.isEnabled(EnableAutomaticServerSelection, UserControllable)
             ? Verdict{true, found + ", but left to the user"}
             : Verdict{false, found + " and not user-controllable"};
}

HostEntry entryOf(const ProfileMgr& profiles, const HostProfile& host) {
  const std::string profileName = profiles.getProfileNameFromHost(host.getHostName());
  const auto profile = profiles.getFileInitMap().find(profileName);
  const Verdict verdict = profile != profiles.getFileInitMap().end()
                              ? verdictOf(*profile->second)
                              : Verdict{false, "there is no such profile"};
  const std::string& address = host.getHostAddress();
  return {host.getHostName(),
          profileName,
          host.getLine() != 0 ? profiles.getProfilePath(profileName) : "",
          host.getLine(),
          address.empty() ? host.getHostName() : address,
          verdict.takesPart,
          verdict.reason};
}

HostEntry entryOf(const ProfileMgr::LeftOutHost& leftOut) {
  const ProfileFile::Host& host = leftOut.host;
  return {host.name,
          leftOut.profileName,
          leftOut.path,
          host.line,
          host.address.empty() ? host.name : host.address,
          false,
          "left out: " + leftOut.reason};
}

}  // namespace

Place placeOf(const std::string& host, unsigned short port) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    return {host.substr(1, host.size() - 2), port};
  }
  return {host, port};
}

Candidate candidateOf(const std::string& name, const std::string& address) {
  const URL url(address);
  const unsigned short port =
      url.getPort().empty()
          ? DefaultPort
          : static_cast<unsigned short>(strtoul(url.getPort().c_str(), nullptr, 10));
  return {name, url.getHostAndPort(false), placeOf(url.getHost(), port)};
}

std::string nameBeside(const std::string& headend, const std::string& name) {
  const std::string place = CStringUtils::toLower(headend);
  const bool isAddress = CStringUtils::toLower(name) == place ||
                         CStringUtils::toLower(URL(name).getHostAndPort(false)) == place;
  return isAddress ? "" : name;
}

std::vector<HostEntry> findHostEntries() {
  std::vector<HostEntry> entries;
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  ProfileMgr* profiles = nullptr;
  if (preferences == nullptr || preferences->getProfileMgr(profiles) != 0 || profiles == nullptr) {
    return entries;
  }
  for (const auto& [name, host] : profiles->getHostProfileMap()) {
    if (host != nullptr) {
      entries.push_back(entryOf(*profiles, *host));
    }
  }
  for (const ProfileMgr::LeftOutHost& host : profiles->getLeftOutHosts()) {
    entries.push_back(entryOf(host));
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const HostEntry& a, const HostEntry& b) { return a.name < b.name; });
  return entries;
}

std::size_t countTakingPart(const ProfileMgr& profiles) {
  const auto& hosts = profiles.getHostProfileMap();
  return static_cast<std::size_t>(std::ranges::count_if(hosts, [&profiles](const auto& entry) {
    return entry.second != nullptr && entryOf(profiles, *entry.second).takesPart;
  }));
}

const Candidate* findNamed(const std::string& name, const std::vector<Candidate>& candidates) {
  const std::string wanted = CStringUtils::toLower(name);
  const auto found = std::ranges::find_if(candidates, [&wanted](const Candidate& candidate) {
    return CStringUtils::toLower(candidate.name) == wanted;
  });
  return found == candidates.end() ? nullptr : &*found;
}

std::vector<Candidate> findCandidates() {
  std::vector<Candidate> candidates;
  for (const HostEntry& entry : findHostEntries()) {
    if (entry.takesPart) {
      candidates.push_back(candidateOf(entry.name, entry.address));
    }
  }
  return candidates;
}
