// The candidates of a run as door and command see them: the run keeps its own list to itself, and
// without one a headend that gives no answer would be missing from what is told.

#include "vpn/Api/AHS/Candidates.h"

#include <algorithm>

#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

using SelectionRules::Participation;

Participation participationOf(const HostInitSettings* settings) {
  return settings == nullptr ? Participation::NotSet : SelectionRules::participationOf(*settings);
}

/// Calls `take` with each host entry and the settings of its profile, null if that is not known.
void visit(const ProfileMgr& profiles, auto take) {
  for (const auto& [name, host] : profiles.getHostProfileMap()) {
    if (host != nullptr) {
      const auto profile = profiles.getFileInitMap().find(profiles.getProfileNameFromHost(name));
      take(*host, profile == profiles.getFileInitMap().end() ? nullptr : profile->second);
    }
  }
}

/// The profiles of the process, as long as it lives.
class Profiles {
 public:
  /// Null if there are none.
  const ProfileMgr* get() const {
    ProfileMgr* profiles = nullptr;
    return m_preferences == nullptr || m_preferences->getProfileMgr(profiles) != 0 ? nullptr
                                                                                   : profiles;
  }

 private:
  const CInstanceSmartPtr<PreferenceMgr> m_preferences;
};

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

HostEntry entryOf(const ProfileMgr& profiles, const HostProfile& host,
                  const HostInitSettings* settings) {
  const Participation participation = participationOf(settings);
  return {host.getHostName(),
          host.getProfileName(),
          host.getLine() != 0 ? profiles.getProfilePath(host.getProfileName()) : "",
          host.getLine(),
          SelectionRules::addressOf(host),
          SelectionRules::takesPart(participation),
          settings != nullptr ? reasonOf(*settings, participation) : "there is no such profile"};
}

HostEntry entryOf(const ProfileMgr::LeftOutHost& leftOut) {
  const ProfileFile::Host& host = leftOut.host;
  return {host.name,
          leftOut.profileName,
          leftOut.path,
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
  const Profiles profiles;
  if (profiles.get() == nullptr) {
    return entries;
  }
  visit(*profiles.get(), [&](const HostProfile& host, const HostInitSettings* settings) {
    entries.push_back(entryOf(*profiles.get(), host, settings));
  });
  for (const ProfileMgr::LeftOutHost& host : profiles.get()->getLeftOutHosts()) {
    entries.push_back(entryOf(host));
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const HostEntry& a, const HostEntry& b) { return a.name < b.name; });
  return entries;
}

std::vector<Candidate> findCandidates(const ProfileMgr& profiles) {
  std::vector<Candidate> candidates;
  visit(profiles, [&](const HostProfile& host, const HostInitSettings* settings) {
    if (SelectionRules::takesPart(participationOf(settings))) {
      candidates.push_back(candidateOf(host.getHostName(), host.getUrl()));
    }
  });
  return candidates;
}

std::vector<Candidate> findCandidates() {
  const Profiles profiles;
  return profiles.get() == nullptr ? std::vector<Candidate>() : findCandidates(*profiles.get());
}

const Candidate* findNamed(const std::string& name, const std::vector<Candidate>& candidates) {
  const std::string wanted = CStringUtils::toLower(name);
  const auto found = std::ranges::find_if(candidates, [&wanted](const Candidate& candidate) {
    return CStringUtils::toLower(candidate.name) == wanted;
  });
  return found == candidates.end() ? nullptr : &*found;
}
