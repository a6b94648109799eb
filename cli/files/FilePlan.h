#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/files/Paths.h"
#include "vpn/Api/PreferenceMgr.h"

/// The options of commands that read profiles and preferences, as a person typed them; an optional
/// without a value was not given.
struct FileOptions {
  std::optional<std::string> profiles;
  std::optional<std::string> preferences;
  std::optional<std::string> globalPreferences;
  bool trustProfiles = false;
  bool json = false;  ///< what is told of them is for programs
};

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
