// The candidates of a run for door and command. The run does not show its own list, and without one
// a headend that gives no answer would be missing from the results.

#include "vpn/Api/AHS/Candidates.h"

#include <algorithm>
#include <utility>

#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

using SelectionRules::Participation;

/// The settings of a host's profile.
const HostInitSettings& settingsOf(const ProfileMgr& profiles, const HostProfile& host) {
  return *profiles.getFileInitMap().at(host.getProfileName());
}

/// Calls `use` with the profiles of the process, if there are any.
void withProfiles(auto use) {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  ProfileMgr* profiles = nullptr;
  if (!(preferences == nullptr) && preferences->getProfileMgr(profiles) == 0) {
    use(std::as_const(*profiles));
  }
}

/// Why the hosts of a profile take part, or do not.
std::string reasonOf(const HostInitSettings& settings, Participation participation) {
  if (participation == Participation::NotSet) {
    return "its profile does not set EnableAutomaticServerSelection";
  }
  if (participation == Participation::Enabled) {
    return "EnableAutomaticServerSelection is true";
  }
  Preference* preference = nullptr;
  settings.getPreferences().getPreference(EnableAutomaticServerSelection, preference);
  return "EnableAutomaticServerSelection is \"" + preference->getPreferenceValue() + "\"" +
         (participation == Participation::LeftToUser ? ", but left to the user"
                                                     : " and not user-controllable");
}

HostEntry entryOf(const ProfileMgr& profiles, const HostProfile& host) {
  const HostInitSettings& settings = settingsOf(profiles, host);
  const Participation participation = SelectionRules::participationOf(settings);
  return {host.getHostName(),
          host.getProfileName(),
          host.getLine() != 0 ? profiles.getProfilePath(host.getProfileName()) : "",
          host.getLine(),
          SelectionRules::addressOf(host),
          SelectionRules::takesPart(participation),
          reasonOf(settings, participation)};
}

HostEntry entryOf(const ProfileMgr& profiles, const ProfileMgr::LeftOutHost& leftOut) {
  const ProfileFile::Host& host = leftOut.host;
  return {host.name,
          leftOut.profileName,
          profiles.getProfilePath(leftOut.profileName),
          host.line,
          host.address.empty() ? host.name : host.address,
          false,
          "left out: " + host.reason};
}

}  // namespace

Place placeOf(const std::string& host, unsigned short port) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    return {host.substr(1, host.size() - 2), port};
  }
  return {host, port};
}

std::string hostAndPort(const Place& place) {
  auto [host, port] = place;
  const bool isIPv6 = host.find(':') != std::string::npos;
  if (const std::size_t zoneAt = host.find('%'); isIPv6 && zoneAt != std::string::npos) {
    host.insert(zoneAt + 1, "25");
  }
  return (isIPv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Candidate candidateOf(const std::string& name, const URL& url) {
  const auto port = static_cast<unsigned short>(SelectionRules::portOf(url));
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
  withProfiles([&entries](const ProfileMgr& profiles) {
    for (const auto& [name, host] : profiles.getHostProfileMap()) {
      entries.push_back(entryOf(profiles, *host));
    }
    for (const ProfileMgr::LeftOutHost& host : profiles.getLeftOutHosts()) {
      entries.push_back(entryOf(profiles, host));
    }
  });
  std::ranges::stable_sort(entries, {}, &HostEntry::name);
  return entries;
}

std::vector<Candidate> findCandidates(const ProfileMgr& profiles) {
  std::vector<Candidate> candidates;
  for (const auto& [name, host] : profiles.getHostProfileMap()) {
    if (SelectionRules::takesPart(SelectionRules::participationOf(settingsOf(profiles, *host)))) {
      candidates.push_back(candidateOf(name, host->getUrl()));
    }
  }
  return candidates;
}

std::vector<Candidate> findCandidates() {
  std::vector<Candidate> candidates;
  withProfiles([&candidates](const ProfileMgr& all) { candidates = findCandidates(all); });
  return candidates;
}

const Candidate* findNamed(const std::string& name, const std::vector<Candidate>& candidates) {
  const std::string wanted = CStringUtils::toLower(name);
  const auto found = std::ranges::find_if(candidates, [&wanted](const Candidate& candidate) {
    return CStringUtils::toLower(candidate.name) == wanted;
  });
  return found == candidates.end() ? nullptr : &*found;
}
