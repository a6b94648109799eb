// The profiles of the client. The first file in byte order that uses a name, of a profile or of a
// host entry, keeps it. Everything is bounded, and whatever is left out is reported.

#include "vpn/Api/ProfileMgr.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "vpn/Api/ConfigurationText.h"

namespace {

using ConfigurationText::oneLine;
using ConfigurationText::quoted;

constexpr std::string_view ProfileSuffix = ".xml";

/// The names of profile files, as many as are read, in the order of reading.
struct ProfileNames {
  std::set<std::string> names;
  std::size_t found = 0;
  std::size_t lookedAt = 0;
};

/// @return whether more names are looked at.
bool take(const std::string& name, ProfileNames& profiles) {
  if (name.ends_with(ProfileSuffix) && !name.starts_with('.')) {
    ++profiles.found;
    profiles.names.insert(name);
    if (profiles.names.size() > ProfileMgr::MaxProfiles) {
      profiles.names.erase(std::prev(profiles.names.end()));
    }
  }
  return ++profiles.lookedAt < ProfileMgr::MaxDirectoryEntries;
}

}  // namespace

ProfileMgr::ProfileMgr() = default;

void ProfileMgr::loadDirectory(const std::string& path) {
  FileTrust::Descriptor directory;
  FileTrust::Refusal refusal;
  if (!FileTrust::openDirectory(path, m_check, directory, refusal)) {
    if (refusal.error != ENOENT) {
      report({path, 0, 0, "the directory " + refusal.text});
    }
    return;
  }
  ProfileNames profiles;
  const int error = FileTrust::visitNames(
      std::move(directory), [&](const std::string& name) { return take(name, profiles); });
  if (error != 0) {
    report({path, 0, 0, "the directory cannot be read: " + std::generic_category().message(error)});
  }
  if (profiles.lookedAt == MaxDirectoryEntries) {
    report({path, 0, 0,
            "holds more than " + std::to_string(MaxDirectoryEntries) +
                " names; the profiles among the others are not read"});
  }
  if (profiles.found > profiles.names.size()) {
    report({path, 0, 0,
            "holds " + std::to_string(profiles.found) + " profiles; only the first " +
                std::to_string(MaxProfiles) + " in order of name are read"});
  }
  loadFiles(path, profiles.names);
  reportConflicts();
}

void ProfileMgr::loadFiles(const std::string& directory, const std::set<std::string>& names) {
  std::size_t totalSize = 0;
  for (const std::string& name : names) {
    const std::string path = directory + "/" + name;
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    totalSize += error || size > MaxConfigurationFileSize ? 0 : size;  // such a one is not read
    if (totalSize > MaxTotalSize) {
      report({path, 0, 0,
              "this profile and those after it are not read: together the profiles are larger "
              "than " +
                  std::to_string(MaxTotalSize / (1024 * 1024)) + " MiB"});
      return;
    }
    if (m_full) {
      return;
    }
    loadFile(path, name.substr(0, name.size() - ProfileSuffix.size()));
  }
}

void ProfileMgr::addHeadends(const std::string& profileName,
                             const std::vector<GivenHeadend>& headends) {
  ProfileFile profile;
  profile.preferences.set(
      Preference(EnableAutomaticServerSelection, PreferenceBase::PreferenceEnabled, false));
  for (const auto& [name, address, how] : headends) {
    const URL url(address);
    if (url.getHost().empty()) {
      report({profileName, 0, 0,
              "the address " + quoted(address) + " is left out: " + URL::findError(address)});
    } else {
      profile.hosts.push_back({name, address, 0, 0, url, {}, how});
    }
  }
  addProfile(profileName, profileName, profile);
}

const std::map<std::string, HostInitSettings*>& ProfileMgr::getFileInitMap() const {
  return m_fileInitMap;
}

const std::map<std::string, HostProfile*>& ProfileMgr::getHostProfileMap() const {
  return m_hostProfileMap;
}

std::string ProfileMgr::getProfileNameFromHost(const std::string& hostName) const {
  const auto found = m_profileOfHost.find(hostName);
  return found != m_profileOfHost.end() ? *found->second : std::string();
}

std::string ProfileMgr::getProfilePath(const std::string& profileName) const {
  const auto path = m_profilePaths.find(profileName);
  return path != m_profilePaths.end() ? path->second : std::string();
}

void ProfileMgr::loadFile(const std::string& path, const std::string& profileName) {
  ProfileFile profile;
  std::vector<FileProblem> problems;
  const bool usable =
      readConfigurationFile(path, ConfigurationKind::Profile, profile, problems, m_check);
  ++m_fileCount;
  for (const FileProblem& problem : problems) {
    report(problem);
  }
  if (usable) {
    addProfile(profileName, path, profile);
  }
}

void ProfileMgr::addProfile(const std::string& profileName, const std::string& path,
                            const ProfileFile& profile) {
  const auto [known, isNew] = m_profilePaths.emplace(profileName, path);
  if (!isNew) {
    report({path, 0, 0,
            "the profile " + quoted(profileName) + " is there already, from " +
                oneLine(known->second) + "; this file is skipped"});
    return;
  }
  m_settings.push_back(std::make_unique<HostInitSettings>(profile.preferences));
  m_fileInitMap[profileName] = m_settings.back().get();
  for (const ProfileFile::Host& host : profile.hosts) {
    addHost(profileName, host);
  }
  for (const ProfileFile::Host& host : profile.leftOut) {
    leaveOut(profileName, host);
  }
}

void ProfileMgr::addHost(const std::string& profileName, const ProfileFile::Host& host) {
  if (m_hosts.size() >= MaxHosts) {
    if (!m_full) {
      m_full = true;
      report({getProfilePath(profileName), host.line, host.column,
              "there are more than " + std::to_string(MaxHosts) +
                  " host entries; those from here on, and the profiles after this, are left out"});
    }
    return;
  }
  const auto [known, isNew] = m_hostProfileMap.emplace(host.name, nullptr);
  if (!isNew) {
    ProfileFile::Host other = host;
    other.reason = "the name belongs to the entry in " +
                   placeOf(known->second->getProfileName(), known->second->getLine());
    report({getProfilePath(profileName), host.line, host.column,
            "the host entry " + quoted(host.name) + " is left out: " + other.reason});
    leaveOut(profileName, other);
    return;
  }
  m_hosts.push_back(std::make_unique<HostProfile>(profileName, host.name, host.address, host.line,
                                                  host.url, host.how));
  known->second = m_hosts.back().get();
  m_profileOfHost.emplace(known->second->getHostName(), &known->second->getProfileName());
}

void ProfileMgr::leaveOut(const std::string& profileName, const ProfileFile::Host& host) {
  if (m_leftOut.size() < MaxProblems) {
    m_leftOut.push_back({profileName, host});
  }
}

void ProfileMgr::reportConflicts() {
  struct Setting {
    std::string profileName;
    const Preference* preference;
  };
  std::map<PreferenceId, Setting> counting;
  for (const auto& [name, settings] : m_fileInitMap) {
    for (const auto& [id, preference] : settings->getPreferences().all()) {
      const auto [first, isFirst] = counting.emplace(id, Setting{name, &preference});
      // The switch is each profile's own.
      if (isFirst || id == EnableAutomaticServerSelection ||
          first->second.preference->getPreferenceValue() == preference.getPreferenceValue()) {
        continue;
      }
      const Setting& other = first->second;
      report({m_profilePaths[name], preference.getLine(), preference.getColumn(),
              std::string(PreferenceBase::find(id)->name) + " " +
                  quoted(preference.getPreferenceValue()) + " has no effect: the profile " +
                  quoted(other.profileName) + " sets " +
                  quoted(other.preference->getPreferenceValue()) + " in " +
                  placeOf(other.profileName, other.preference->getLine()) +
                  ", and the first profile in order of name counts"});
    }
  }
}

void ProfileMgr::report(const FileProblem& problem) {
  if (m_problems.size() + 1 < MaxProblems) {
    m_problems.push_back(problem);
  } else if (m_problems.size() < MaxProblems) {
    m_problems.push_back({problem.file, problem.line, problem.column,
                          "the problems from here on are not listed", true});
  }
}

std::string ProfileMgr::placeOf(const std::string& profileName, unsigned int line) const {
  return oneLine(getProfilePath(profileName)) +
         (line != 0 ? ":" + std::to_string(line) : std::string());
}
