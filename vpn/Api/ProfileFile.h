#pragma once

#include <string>
#include <vector>

#include "vpn/Api/Preference.h"

/// Something wrong in a file, told so that a person can mend it.
struct FileProblem {
  std::string file;
  unsigned int line = 0;  ///< 0: the file as a whole
  std::string text;       ///< what was found and what is allowed

  /// "file:line: text".
  std::string toString() const;
};

/// What a profile file says.
struct ProfileFile {
  struct Host {
    std::string name;
    std::string address;  ///< empty when the entry gives none
    unsigned int line = 0;
  };
  PreferenceInfo preferences;
  std::vector<Host> hosts;
};

/// Reads a profile file. The file is not trusted: it is read up to `MaxConfigurationFileSize` bytes,
/// no entity is expanded and nothing outside the file is fetched.
/// @param problems receives what is wrong, appended.
/// @return whether the file is a profile that can be used (a wrong entry or preference is left out
///         and reported, and the rest is used).
bool readProfileFile(const std::string& path, ProfileFile& profile,
                     std::vector<FileProblem>& problems);

/// Reads a preferences file in the same way.
bool readPreferencesFile(const std::string& path, PreferenceInfo& preferences,
                         std::vector<FileProblem>& problems);

/// Largest profile or preferences file, in bytes: ten thousand host entries take one.
constexpr std::size_t MaxConfigurationFileSize = std::size_t{8} * 1024 * 1024;
