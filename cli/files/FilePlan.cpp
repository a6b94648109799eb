// Where profiles and preferences are, from typed options. A wrong name is found here, before
// anything is started.

#include "cli/files/FilePlan.h"

#include <filesystem>

#include "cli/Console.h"
#include "vpn/Api/ProfileFile.h"

namespace {

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
