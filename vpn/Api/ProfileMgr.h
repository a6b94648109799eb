#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vpn/Api/HostInitSettings.h"
#include "vpn/Api/HostProfile.h"
#include "vpn/Api/ProfileFile.h"

/// The profiles of the client: every "*.xml" file of a directory, read once.
///
/// A profile's name is its file's name without ".xml". Files are read in ascending byte order of
/// their names. A host entry's name belongs to the first profile that has it; a later entry of the
/// same name is reported and left out. A file that cannot be read or is not a profile is reported
/// and skipped, and so is an entry whose address cannot be parsed; the rest is used. Constant after
/// construction; any thread may then read it. Objects handed out belong to the manager.
class ProfileMgr {
 public:
  /// No profile at all.
  ProfileMgr();
  ~ProfileMgr();
  ProfileMgr(const ProfileMgr&) = delete;
  ProfileMgr& operator=(const ProfileMgr&) = delete;

  /// Reads the profiles of a directory.
  void loadDirectory(const std::string& directory);

  /// Adds one profile made of the given addresses, automatic selection switched on; an address is
  /// also the name of its entry.
  /// @param addresses texts that `URL` can parse; each once.
  void addAddresses(const std::string& profileName, const std::vector<std::string>& addresses);

  /// Profile name to what the profile sets.
  const std::map<std::string, HostInitSettings*>& getFileInitMap() const;

  /// Host entry name to the entry, of all profiles.
  const std::map<std::string, HostProfile*>& getHostProfileMap() const;

  /// The name of the profile that holds the entry; empty if there is none.
  std::string getProfileNameFromHost(const std::string& hostName) const;

  /// What was wrong with the files, in the order they were read.
  const std::vector<FileProblem>& getProblems() const;

 private:
  void addProfile(const std::string& profileName, const ProfileFile& profile);

  std::map<std::string, HostInitSettings*> m_fileInitMap;
  std::map<std::string, HostProfile*> m_hostProfileMap;
  std::vector<std::unique_ptr<HostInitSettings>> m_settings;
  std::vector<std::unique_ptr<HostProfile>> m_hosts;
  std::vector<FileProblem> m_problems;
};
