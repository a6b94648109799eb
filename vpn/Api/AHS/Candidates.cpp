// The candidates of a run as door and command see them: the run keeps its own list to itself, and
// without one a headend that gives no answer would be missing from what is told.

#include "vpn/Api/AHS/Candidates.h"

#include <algorithm>

#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

using SelectionRules::Participation;

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
  const std::string profileName = profiles.getProfileNameFromHost(host.getHostName());
  const auto profile = profiles.getFileInitMap().find(profileName);
  const bool isKnown = profile != profiles.getFileInitMap().end();
  const Participation participation =
      isKnown ? SelectionRules::participationOf(*profile->second) : Participation::NotSet;
  return {host.getHostName(),
          profileName,
          host.getLine() != 0 ? profiles.getProfilePath(profileName) : "",
          host.getLine(),
          SelectionRules::addressOf(host),
          SelectionRules::takesPart(participation),
          isKnown ? reasonOf(*profile->second, participation) : "there is no such profile"};
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
