// The profiles of the client. A name, of a profile or of a host entry, belongs to whoever came
// first in byte order of the files; everything is bounded, and whatever is left out is reported.

#include "vpn/Api/ProfileMgr.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <iterator>
#include <set>
#include <string_view>
#include <system_error>

#include "vpn/Api/ConfigurationText.h"
#include "vpn/Common/Utility/URL.h"

namespace {

using ConfigurationText::quoted;

constexpr std::string_view ProfileSuffix = ".xml";

/// The names of profile files, as many as are read, in the order of reading.
struct ProfileNames {
  std::set<std::string> names;
  std::size_t found = 0;
};

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

/// @return an errno value, 0 on success. Not std::filesystem: its directory iterator ends the
/// process when memory is short.
int listProfiles(const std::string& path, ProfileNames& profiles) {
  const std::unique_ptr<DIR, DirectoryCloser> directory(::opendir(path.c_str()));
  if (directory == nullptr) {
    return errno;
  }
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(directory.get());
    if (entry == nullptr) {
      return errno;
    }
    const std::string name = entry->d_name;
    if (name.ends_with(ProfileSuffix) && !name.starts_with('.')) {
      ++profiles.found;
      profiles.names.insert(name);
      if (profiles.names.size() > ProfileMgr::MaxProfiles) {
        profiles.names.erase(std::prev(profiles.names.end()));
      }
    }
  }
}

std::string pathText(const std::string& path) {
  constexpr std::size_t maxLength = 4096;  // PATH_MAX of Linux
  return ConfigurationText::oneLine(path, maxLength);
}

std::size_t sizeOf(const std::string& path) {
  struct stat status = {};
  const bool regular = ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  return regular ? static_cast<std::size_t>(status.st_size) : 0;
}

}  // namespace

ProfileMgr::ProfileMgr() = default;

ProfileMgr::~ProfileMgr() = default;

void ProfileMgr::loadDirectory(const std::string& directory) {
  ProfileNames profiles;
  const int error = listProfiles(directory, profiles);
  if (error == ENOENT) {
    return;
  }
  if (error != 0) {
    report(directory, 0, "the directory cannot be read: " + std::generic_category().message(error));
  }
  if (profiles.found > profiles.names.size()) {
    report(directory, 0,
           "holds " + std::to_string(profiles.found) + " profiles; only the first " +
               std::to_string(MaxProfiles) + " in order of name are read");
  }
  std::size_t totalSize = 0;
  for (const std::string& name : profiles.names) {
    const std::string path = directory + "/" + name;
    totalSize += sizeOf(path);
    if (totalSize > MaxTotalSize) {
      report(
          path, 0,
          "this profile and those after it are not read: together the profiles are larger than " +
              std::to_string(MaxTotalSize / (1024 * 1024)) + " MiB");
      return;
    }
    if (m_full) {
      return;
    }
    loadFile(path, name.substr(0, name.size() - ProfileSuffix.size()));
  }
}

void ProfileMgr::addAddresses(const std::string& profileName,
                              const std::vector<std::string>& addresses) {
  ProfileFile profile;
  profile.preferences.set(
      Preference(EnableAutomaticServerSelection, PreferenceBase::PreferenceEnabled, false));
  for (const std::string& address : addresses) {
    const std::string error = URL::findError(address);
    if (!error.empty() || URL(address).getHost().empty()) {
      report(profileName, 0,
             "the address " + quoted(address) +
                 " is left out: " + (error.empty() ? "it names no host" : error));
    } else {
      profile.hosts.push_back({address, address, 0});
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
  const auto found = m_hostProfileMap.find(hostName);
  return found != m_hostProfileMap.end() ? found->second->getProfileName() : std::string();
}

const std::vector<FileProblem>& ProfileMgr::getProblems() const { return m_problems; }

void ProfileMgr::loadFile(const std::string& path, const std::string& profileName) {
  ProfileFile profile;
  std::vector<FileProblem> problems;
  const bool usable = readProfileFile(path, profile, problems);
  report(problems);
  if (usable) {
    addProfile(profileName, path, profile);
  }
}

void ProfileMgr::addProfile(const std::string& profileName, const std::string& path,
                            const ProfileFile& profile) {
  const auto [known, isNew] = m_profilePaths.emplace(profileName, path);
  if (!isNew) {
    report(path, 0,
           "the profile " + quoted(profileName) + " is there already, from " +
               pathText(known->second) + "; this file is skipped");
    return;
  }
  m_settings.push_back(std::make_unique<HostInitSettings>(profile.preferences));
  m_fileInitMap[profileName] = m_settings.back().get();
  for (const ProfileFile::Host& host : profile.hosts) {
    addHost(profileName, path, host);
  }
}

void ProfileMgr::addHost(const std::string& profileName, const std::string& path,
                         const ProfileFile::Host& host) {
  if (m_hosts.size() >= MaxHosts) {
    if (!m_full) {
      m_full = true;
      report(path, host.line,
             "there are more than " + std::to_string(MaxHosts) +
                 " host entries; those from here on, and the profiles after this, are left out");
    }
    return;
  }
  const auto [known, isNew] = m_hostProfileMap.emplace(host.name, nullptr);
  if (!isNew) {
    report(path, host.line,
           "the host entry " + quoted(host.name) +
               " is left out: the name belongs to the entry in " + placeOf(*known->second));
    return;
  }
  m_hosts.push_back(std::make_unique<HostProfile>(profileName, host.name, host.address, host.line));
  known->second = m_hosts.back().get();
}

void ProfileMgr::report(const std::string& file, unsigned int line, const std::string& text) {
  if (m_problems.size() + 1 < MaxProblems) {
    m_problems.push_back({file, line, text});
  } else if (m_problems.size() < MaxProblems) {
    m_problems.push_back({file, line, "the problems from here on are not listed"});
  }
}

void ProfileMgr::report(const std::vector<FileProblem>& problems) {
  for (const FileProblem& problem : problems) {
    report(problem.file, problem.line, problem.text);
  }
}

std::string ProfileMgr::placeOf(const HostProfile& host) const {
  const auto path = m_profilePaths.find(host.getProfileName());
  const std::string file = path != m_profilePaths.end() ? path->second : host.getProfileName();
  return pathText(file) +
         (host.getLine() != 0 ? ":" + std::to_string(host.getLine()) : std::string());
}
