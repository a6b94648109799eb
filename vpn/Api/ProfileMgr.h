#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vpn/Api/HostInitSettings.h"
#include "vpn/Api/HostProfile.h"
#include "vpn/Api/ProfileFile.h"

/// A headend that a caller gives, in no file.
struct GivenHeadend {
  /// One that is named by its address.
  /// @{
  GivenHeadend(const char* itsAddress) : name(itsAddress), address(itsAddress) {}
  GivenHeadend(const std::string& itsAddress) : name(itsAddress), address(itsAddress) {}
  /// @}
  GivenHeadend(std::string itsName, std::string itsAddress, ProbeHow itsHow = {})
      : name(std::move(itsName)), address(std::move(itsAddress)), how(itsHow) {}

  std::string name;     ///< of its host entry
  std::string address;  ///< host, host:port or URL
  ProbeHow how;         ///< it is probed

  bool operator==(const GivenHeadend&) const = default;
};

/// The profiles of the client: every "*.xml" file of a directory, read once.
///
/// A profile's name is its file's name without ".xml". Files are read in ascending byte order of
/// their names; a host entry's name, and a preference, is that of the first profile that has it.
/// What is left out is reported, and the rest is used: docs/profiles.md. Constant once it is
/// loaded; any thread may then read it. Objects handed out belong to the manager.
class ProfileMgr {
 public:
  /// Bounds of one manager: profiles, host entries, bytes of all files. What exceeds them is
  /// reported and not read.
  /// @{
  static constexpr std::size_t MaxProfiles = 10000;
  static constexpr std::size_t MaxHosts = 100000;
  static constexpr std::size_t MaxTotalSize = std::size_t{64} * 1024 * 1024;
  /// @}
  /// Names that are looked at in a directory, whatever they are.
  static constexpr std::size_t MaxDirectoryEntries = 1000000;
  /// Most problems that are kept; the last of them says that there are more.
  static constexpr std::size_t MaxProblems = 1000;

  /// No profile at all.
  ProfileMgr();
  ~ProfileMgr() = default;
  ProfileMgr(const ProfileMgr&) = delete;
  ProfileMgr& operator=(const ProfileMgr&) = delete;

  /// From now on reads files whoever could have written them.
  void trustFiles() { m_check = FileTrust::Check::Waived; }

  /// Reads the profiles of a directory; a missing one counts as empty. Refuses the whole directory
  /// if another user could have put files in it.
  void loadDirectory(const std::string& directory);

  /// Adds one profile made of the given headends, automatic selection switched on. One whose
  /// address `URL` cannot parse, or whose name is there already, is reported and left out.
  void addHeadends(const std::string& profileName, const std::vector<GivenHeadend>& headends);

  /// Adds a profile that was read already. A name that is there, of a profile or of a host entry,
  /// is reported and left out.
  void addProfile(const std::string& profileName, const std::string& path,
                  const ProfileFile& profile);

  /// Profile name to what the profile sets.
  const std::map<std::string, HostInitSettings*>& getFileInitMap() const;

  /// Host entry name to the entry, of all profiles.
  const std::map<std::string, HostProfile*>& getHostProfileMap() const;

  /// The name of the profile that holds the entry; empty if there is none.
  std::string getProfileNameFromHost(const std::string& hostName) const;

  /// A host entry that none of the maps holds.
  struct LeftOutHost {
    std::string profileName;  ///< of the profile that holds it
    ProfileFile::Host host;   ///< what could be read of it, and why it is in none
  };

  /// Entries with a mistake or another entry's name, at most `MaxProblems`.
  const std::vector<LeftOutHost>& getLeftOutHosts() const { return m_leftOut; }

  /// The file of a profile; empty if there is no such profile.
  std::string getProfilePath(const std::string& profileName) const;

  /// How many files were read, profiles or not.
  std::size_t getFileCount() const { return m_fileCount; }

  /// What was wrong with the files, in the order they were read.
  const std::vector<FileProblem>& getProblems() const { return m_problems; }

 private:
  void loadFiles(const std::string& directory, const std::set<std::string>& names);
  void loadFile(const std::string& path, const std::string& profileName);
  void addHost(const std::string& profileName, const ProfileFile::Host& host);
  void leaveOut(const std::string& profileName, const ProfileFile::Host& host);
  void reportConflicts();
  void report(const FileProblem& problem);
  std::string placeOf(const std::string& profileName, unsigned int line) const;

  // What the two maps point to, by address for as long as the manager lives.
  std::vector<std::unique_ptr<HostInitSettings>> m_settings;
  std::vector<std::unique_ptr<HostProfile>> m_hosts;
  std::map<std::string, HostInitSettings*> m_fileInitMap;
  std::map<std::string, HostProfile*> m_hostProfileMap;
  // The names are those that the entries hold. A run asks for each of a thousand.
  std::unordered_map<std::string_view, const std::string*> m_profileOfHost;
  std::map<std::string, std::string> m_profilePaths;  // profile name to its file, for messages
  std::vector<LeftOutHost> m_leftOut;
  std::vector<FileProblem> m_problems;
  FileTrust::Check m_check = FileTrust::Check::Strict;
  std::size_t m_fileCount = 0;
  bool m_full = false;  // MaxHosts is reached
};
