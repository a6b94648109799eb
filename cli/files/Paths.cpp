// Default places of profiles, preferences and the cache, and checks of places that a person named.
// A default that does not exist is no error; a name that a person typed and that does not exist is.

#include "cli/files/Paths.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string baseDirectory(const char* value, const char* home, const char* belowHome) {
  if (value != nullptr && value[0] == '/') {
    return value;
  }
  // A relative one would mean another place in each directory the tool is started in.
  if (home != nullptr && home[0] == '/') {
    return std::string(home) + belowHome;
  }
  return "";
}

std::string findError(const std::string& path, bool wantDirectory) {
  struct stat facts {};
  if (stat(path.c_str(), &facts) != 0) {
    return strerrordesc_np(errno);
  }
  if (wantDirectory != S_ISDIR(facts.st_mode)) {
    return wantDirectory ? "it is not a directory" : "it is a directory, not a file";
  }
  if (!wantDirectory && !S_ISREG(facts.st_mode)) {
    return "it is not a regular file";
  }
  if (access(path.c_str(), wantDirectory ? R_OK | X_OK : R_OK) != 0) {
    return strerrordesc_np(errno);
  }
  return "";
}

}  // namespace

DefaultPaths defaultPathsFor(const char* configHome, const char* cacheHome, const char* home) {
  DefaultPaths paths;
  const std::string config = baseDirectory(configHome, home, "/.config");
  if (!config.empty()) {
    paths.userProfiles = config + "/ahs/profiles";
    paths.userPreferences = config + "/ahs/preferences.xml";
  }
  const std::string cache = baseDirectory(cacheHome, home, "/.cache");
  if (!cache.empty()) {
    paths.cacheDirectory = cache + "/ahs";
  }
  paths.systemProfiles = "/etc/ahs/profiles";
  paths.globalPreferences = "/etc/ahs/preferences.xml";
  return paths;
}

DefaultPaths defaultPaths() {
  return defaultPathsFor(getenv("XDG_CONFIG_HOME"), getenv("XDG_CACHE_HOME"), getenv("HOME"));
}

std::string findDirectoryError(const std::string& path) { return findError(path, true); }

std::string findFileError(const std::string& path) { return findError(path, false); }
