#pragma once

#include <string>

/// Where the tool looks for its files when it is not told (XDG base directory rules).
struct DefaultPaths {
  std::string userProfiles;     ///< empty when the user has no home directory
  std::string systemProfiles;   ///< used when `userProfiles` does not exist
  std::string userPreferences;  ///< empty when the user has no home directory
  std::string globalPreferences;
  std::string cacheDirectory;  ///< empty when the user has no home directory
};

/// The default paths for an environment. A pure function.
/// @param configHome, cacheHome values of XDG_CONFIG_HOME and XDG_CACHE_HOME; null, empty or
///        relative values are not used, as the XDG rules ask.
/// @param home value of HOME; null, empty or relative for none.
DefaultPaths defaultPathsFor(const char* configHome, const char* cacheHome, const char* home);

/// The default paths of this process.
DefaultPaths defaultPaths();

/// What is wrong with a directory, or a file, that a person named: that it does not exist, is
/// something else, or cannot be read. Empty if it can be used.
std::string findDirectoryError(const std::string& path);
std::string findFileError(const std::string& path);
