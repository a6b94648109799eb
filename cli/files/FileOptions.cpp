// A person's files: options that name them, default places, and reading them without a selection. A
// missing default is no error. A missing file that a person named is an error, found before
// anything starts.

#include "cli/files/FileOptions.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "cli/AddOption.h"
#include "cli/Console.h"
#include "vpn/Api/ProfileFile.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/include/InstanceSmartPtr.h"

namespace {

std::string baseDirectory(const char* value, const char* home, const char* belowHome) {
  if (value != nullptr && value[0] == '/') {
    return value;
  }
  // A relative path would depend on the current directory.
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

std::string takeProfiles(const FileOptions& options, const DefaultPaths& paths, FilePlan& plan) {
  if (options.profiles) {
    const std::string error = findDirectoryError(*options.profiles);
    if (!error.empty()) {
      return "the profile directory " + Console::inQuotes(*options.profiles) +
             " cannot be used: " + error +
             ". Name a directory that holds profiles with --profiles, or leave the option out.";
    }
    plan.sources.profileDirectory = *options.profiles;
    plan.profilePlaces = Console::inQuotes(*options.profiles);
    return "";
  }
  std::error_code ignored;
  const bool hasUserProfiles =
      !paths.userProfiles.empty() && std::filesystem::exists(paths.userProfiles, ignored);
  plan.sources.profileDirectory = hasUserProfiles ? paths.userProfiles : paths.systemProfiles;
  plan.profilePlaces = Console::inQuotes(plan.sources.profileDirectory);
  if (!hasUserProfiles && !paths.userProfiles.empty()) {
    plan.profilePlaces =
        Console::inQuotes(paths.userProfiles) + " and " + Console::inQuotes(paths.systemProfiles);
  }
  return "";
}

std::string takePreferences(const std::optional<std::string>& given, const std::string& standard,
                            const char* option, bool trusts, std::string& path,
                            std::vector<std::string>& problems) {
  path = standard;
  if (!given) {
    return "";
  }
  const std::string error = findFileError(*given);
  if (!error.empty()) {
    return "the preferences file " + Console::inQuotes(*given) + " cannot be used: " + error +
           ". Name a file that exists with " + option + ", or leave the option out.";
  }
  path = *given;
  ProfileFile contents;
  std::vector<FileProblem> found;
  const FileTrust::Check check = trusts ? FileTrust::Check::Waived : FileTrust::Check::Strict;
  if (readConfigurationFile(*given, ConfigurationKind::Preferences, contents, found, check)) {
    return "";
  }
  for (const FileProblem& problem : found) {
    problems.push_back(Console::visible(problem.toString()));
  }
  return "the preferences file " + Console::inQuotes(*given) +
         " cannot be used. Mend it, or leave out " + option + ".";
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
  const char* const home = Environment::get("HOME");
  // A user whose home directory is not there shall get none: root would make it.
  const bool isThere = home != nullptr && findDirectoryError(home).empty();
  return defaultPathsFor(Environment::get("XDG_CONFIG_HOME"), Environment::get("XDG_CACHE_HOME"),
                         isThere ? home : nullptr);
}

std::string findDirectoryError(const std::string& path) { return findError(path, true); }

std::string findFileError(const std::string& path) { return findError(path, false); }

void addFileOptions(CLI::App& command, FileOptions& options) {
  addOption(command, "--profiles", "DIR", options.profiles, "Directory of the profiles (*.xml)");
  addOption(command, "--preferences", "FILE", options.preferences, "The user's preferences file");
  addOption(command, "--global-preferences", "FILE", options.globalPreferences,
            "The machine's preferences file");
  command.add_flag("--trust-profiles", options.trustProfiles,
                   "Read profiles and preferences even if another user could have written them; "
                   "otherwise such a file is refused");
}

std::string makeFilePlan(const FileOptions& options, const DefaultPaths& paths, FilePlan& plan,
                         std::vector<std::string>& problems) {
  plan.sources.trustFiles = options.trustProfiles;
  std::string error = takeProfiles(options, paths, plan);
  if (error.empty()) {
    error = takePreferences(options.preferences, paths.userPreferences, "--preferences",
                            options.trustProfiles, plan.sources.userPreferencesFile, problems);
  }
  if (error.empty()) {
    error =
        takePreferences(options.globalPreferences, paths.globalPreferences, "--global-preferences",
                        options.trustProfiles, plan.sources.globalPreferencesFile, problems);
  }
  return error;
}

void tellFileProblems(std::set<std::string>* told) {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  if (preferences == nullptr) {
    return;
  }
  for (const FileProblem& problem : preferences->getProblems()) {
    const std::string text = problem.toString();
    if (told == nullptr || told->insert(text).second) {
      Console::note(Console::visible(text));
    }
  }
}

std::string roundTripMeasure() {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  std::string measure;
  if (preferences != nullptr) {
    preferences->getPreferenceValue(RoundTripTime, measure);
  }
  return measure;
}

LoadedFiles::LoadedFiles(const FilePlan& plan) : m_plan(plan) { load(); }

LoadedFiles::LoadedFiles(const FileOptions& options, const std::string& command) {
  std::vector<std::string> problems;
  const std::string error = makeFilePlan(options, defaultPaths(), m_plan, problems);
  if (!error.empty()) {
    Console::complainOfUsage(command, error, problems);
    return;
  }
  load();
  tellFileProblems();
}

void LoadedFiles::load() {
  m_isLoaded = PreferenceMgr::createInstance(m_plan.sources) == PREFERENCEMGR_SUCCESS;
  if (!m_isLoaded) {
    Console::complain("the files cannot be read: the machine is short of memory.");
  }
}

LoadedFiles::~LoadedFiles() {
  if (m_isLoaded) {
    // `LoadedFiles` holds one acquisition, which created the manager; this is a second one.
    PreferenceMgr* const manager = PreferenceMgr::acquireInstance();
    manager->releaseInstance();
    manager->releaseInstance();
  }
}
