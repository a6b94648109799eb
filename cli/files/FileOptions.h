#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "vpn/Api/PreferenceMgr.h"

namespace CLI {
class App;
}

/// Where the tool looks for its files when it is not told (XDG base directory rules). What is below
/// the home directory is empty for a user who has none.
struct DefaultPaths {
  std::string userProfiles;
  std::string systemProfiles;  ///< used when `userProfiles` does not exist
  std::string userPreferences;
  std::string globalPreferences;
  std::string cacheDirectory;
};

/// The default paths for an environment.
/// @param configHome, cacheHome values of XDG_CONFIG_HOME and XDG_CACHE_HOME, @param home of HOME;
///        null, empty or relative values are not used, as the XDG rules ask.
DefaultPaths defaultPathsFor(const char* configHome, const char* cacheHome, const char* home);

/// The default paths of this process.
DefaultPaths defaultPaths();

/// What is wrong with a directory, or a file, that a person named: that it does not exist, is
/// something else, or cannot be read. Empty if it can be used.
std::string findDirectoryError(const std::string& path);
std::string findFileError(const std::string& path);

/// The options of commands that read profiles and preferences, as a person typed them; an optional
/// without a value was not given.
struct FileOptions {
  std::optional<std::string> profiles;
  std::optional<std::string> preferences;
  std::optional<std::string> globalPreferences;
  bool trustProfiles = false;
  bool json = false;  ///< what is told of them is for programs
};

/// Adds the options that say where profiles and preferences are: --profiles, --preferences,
/// --global-preferences, --trust-profiles.
void addFileOptions(CLI::App& command, FileOptions& options);

/// The same, checked and complete.
struct FilePlan {
  PreferenceMgr::Sources sources;
  /// Where profiles are looked for, for messages: one directory, or the user's and the system's.
  std::string profilePlaces;
};

/// Turns options into a plan. The files named are looked at, not read, except preferences files:
/// those have to be well formed, because a person who names a file means it.
/// @param problems receives what is wrong in a preferences file, as "file:line: text".
/// @return an empty string, or what is wrong and what to do.
std::string makeFilePlan(const FileOptions& options, const DefaultPaths& paths, FilePlan& plan,
                         std::vector<std::string>& problems);

/// Says on standard error what is wrong in the files that the process has read: a profile that is
/// skipped in silence is missed.
/// @param told what has been told before and is not told again; grows by what is told now. Null
///        where there is no before.
void tellFileProblems(std::set<std::string>* told = nullptr);

/// Whether the preferences of the process let a round trip be the time to the headend's answer.
bool isResponseMeasured();

/// The process's profiles and preferences for the length of a scope.
class LoadedFiles {
 public:
  /// Reads the files of a plan and tells nothing of what is wrong in them.
  explicit LoadedFiles(const FilePlan& plan);
  /// Reads the files that the options name, and tells on standard error what is wrong in them.
  /// @param command for messages: "ahs profile list".
  LoadedFiles(const FileOptions& options, const std::string& command);
  ~LoadedFiles();
  LoadedFiles(const LoadedFiles&) = delete;
  LoadedFiles& operator=(const LoadedFiles&) = delete;

  /// Whether there is a preference manager; what is in the way has been told otherwise.
  bool areThere() const { return m_isLoaded; }
  /// Where profiles were looked for.
  const std::string& profilePlaces() const { return m_plan.profilePlaces; }

 private:
  void load();

  FilePlan m_plan;
  bool m_isLoaded = false;
};
