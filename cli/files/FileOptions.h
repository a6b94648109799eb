#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "vpn/Api/PreferenceMgr.h"

namespace CLI {
class App;
}

/// Default places of the tool's files (XDG base directory rules). Paths below the home directory
/// are empty for a user without one.
struct DefaultPaths {
  std::string userProfiles;
  std::string systemProfiles;  ///< used when `userProfiles` does not exist
  std::string userPreferences;
  std::string globalPreferences;
  std::string cacheDirectory;
};

/// The default paths for an environment.
/// @param configHome, cacheHome, home values of XDG_CONFIG_HOME, XDG_CACHE_HOME and HOME; null,
///        empty or relative values are ignored, as the XDG rules demand.
DefaultPaths defaultPathsFor(const char* configHome, const char* cacheHome, const char* home);

/// The default paths of this process.
DefaultPaths defaultPaths();

/// Why a directory or file that a person named cannot be used: it does not exist, has another type,
/// or cannot be read. Empty if it can be used.
std::string findDirectoryError(const std::string& path);
std::string findFileError(const std::string& path);

/// File options as typed. An empty optional means that the option was not given.
struct FileOptions {
  std::optional<std::string> profiles;
  std::optional<std::string> preferences;
  std::optional<std::string> globalPreferences;
  bool trustProfiles = false;
  bool json = false;  ///< print JSON
};

/// Adds the options that say where profiles and preferences are: --profiles, --preferences,
/// --global-preferences, --trust-profiles.
void addFileOptions(CLI::App& command, FileOptions& options);

/// The options, checked and complete.
struct FilePlan {
  PreferenceMgr::Sources sources;
  /// Places of profiles, for messages: one directory, or the user's and the system's.
  std::string profilePlaces;
};

/// Turns options into a plan. Named files must exist; of these, only preferences files are read,
/// and must be well formed, because a person who names a file means it.
/// @param problems receives the mistakes in a preferences file, as "file:line: text".
/// @return an empty string, or what is wrong and what to do.
std::string makeFilePlan(const FileOptions& options, const DefaultPaths& paths, FilePlan& plan,
                         std::vector<std::string>& problems);

/// Prints the mistakes in the files that the process has read on standard error: a person misses a
/// profile that is skipped in silence.
/// @param told mistakes printed earlier, which are not printed again; receives the new ones. May be
///        null.
void tellFileProblems(std::set<std::string>* told = nullptr);

/// Which round trip the preferences make count: "auto", "network" or "response".
std::string roundTripMeasure();

/// Loads the process's profiles and preferences for the object's lifetime.
class LoadedFiles {
 public:
  /// Reads a plan's files; prints no mistakes.
  explicit LoadedFiles(const FilePlan& plan);
  /// Reads the files that the options name, and prints their mistakes on standard error.
  /// @param command for messages: "ahs profile list".
  LoadedFiles(const FileOptions& options, const std::string& command);
  ~LoadedFiles();
  LoadedFiles(const LoadedFiles&) = delete;
  LoadedFiles& operator=(const LoadedFiles&) = delete;

  /// Whether the files were loaded; if not, a message was printed.
  bool areThere() const { return m_isLoaded; }
  /// The places of profiles, for messages.
  const std::string& profilePlaces() const { return m_plan.profilePlaces; }

 private:
  void load();

  FilePlan m_plan;
  bool m_isLoaded = false;
};
