// `ahs profile check` and `ahs profile list`: the mistakes in the files, and whether each host
// entry takes part. Neither measures anything.

#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "cli/AddOption.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Json.h"
#include "cli/Table.h"
#include "cli/Wording.h"
#include "cli/files/FileOptions.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/ProfileFile.h"
#include "vpn/Api/ProfileMgr.h"
#include "vpn/include/InstanceSmartPtr.h"

namespace {

struct CheckOptions {
  std::vector<std::string> places;
  bool trustProfiles = false;
  bool json = false;
};

/// The mistakes found.
struct CheckResult {
  std::size_t files = 0;        ///< read files
  std::size_t hostEntries = 0;  ///< without a mistake
  std::size_t takingPart = 0;   ///< of these, in automatic selection
  std::vector<FileProblem> problems;
  std::vector<std::string> missing;  ///< checked places that do not exist
  std::vector<std::string> places;   ///< checked places that exist
};

/// Whether the path exists. The reader refuses a FIFO or a device without opening it.
bool isThere(const std::string& place) {
  struct stat status {};
  return ::stat(place.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

void add(const ProfileMgr& profiles, const std::vector<FileProblem>& problems,
         CheckResult& result) {
  result.hostEntries += profiles.getHostProfileMap().size();
  result.takingPart += findCandidates(profiles).size();
  result.problems.insert(result.problems.end(), problems.begin(), problems.end());
}

void checkPlace(const std::string& place, bool trusts, CheckResult& result) {
  ProfileMgr profiles;
  std::error_code isUnknown;
  if (std::filesystem::is_directory(place, isUnknown)) {
    if (trusts) {
      profiles.trustFiles();
    }
    profiles.loadDirectory(place);
    result.files += profiles.getFileCount();
  } else {
    // A manager finds the same mistakes in one file as in a directory.
    ProfileFile contents;
    readConfigurationFile(place, ConfigurationKind::Unknown, contents, result.problems,
                          trusts ? FileTrust::Check::Waived : FileTrust::Check::Strict);
    ++result.files;
    profiles.addProfile(place, place, contents);
  }
  add(profiles, profiles.getProblems(), result);
}

/// Looks for mistakes in the files that a selection would read, and repeats all its messages.
void checkSources(const PreferenceMgr::Sources& sources, CheckResult& result) {
  for (const std::string& place :
       {sources.profileDirectory, sources.userPreferencesFile, sources.globalPreferencesFile}) {
    if (!place.empty()) {
      (isThere(place) ? result.places : result.missing).push_back(place);
    }
  }
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  ProfileMgr* profiles = nullptr;
  if (preferences->getProfileMgr(profiles) == PREFERENCEMGR_SUCCESS) {
    result.files = profiles->getFileCount() + (isThere(sources.userPreferencesFile) ? 1 : 0) +
                   (isThere(sources.globalPreferencesFile) ? 1 : 0);
    add(*profiles, preferences->getProblems(), result);
  }
}

bool isListed(const FileProblem& problem) { return !problem.endsList; }

std::string checkText(const CheckResult& result) {
  std::string text;
  for (const FileProblem& problem : result.problems) {
    text += Console::visible(problem.toString()) + "\n";
  }
  if (!result.places.empty()) {
    text += "looked at: " + Console::visible(Wording::joined(result.places)) + "\n";
  }
  if (!result.missing.empty()) {
    text += "not there: " + Console::visible(Wording::joined(result.missing)) + "\n";
  }
  const auto listed = static_cast<std::size_t>(std::ranges::count_if(result.problems, isListed));
  return text + Wording::counted(result.files, "file") + ", " +
         Wording::counted(result.hostEntries, "host entry", "host entries") + ", " +
         (result.problems.empty() ? "no mistakes"
                                  : (listed < result.problems.size() ? "more than " : "") +
                                        Wording::counted(listed, "mistake")) +
         "\n";
}

std::string checkJson(const CheckResult& result) {
  Json object = newJson();
  object["files"] = result.files;
  object["hostEntries"] = result.hostEntries;
  object["problemsAreComplete"] = std::ranges::all_of(result.problems, isListed);
  object["problems"] = Json::array();
  for (const FileProblem& problem : result.problems) {
    if (isListed(problem)) {
      const bool hasPlace = problem.line != 0;
      object["problems"].push_back({{"file", problem.file},
                                    {"line", hasPlace ? Json(problem.line) : Json(nullptr)},
                                    {"column", hasPlace ? Json(problem.column) : Json(nullptr)},
                                    {"text", problem.text}});
    }
  }
  if (!result.places.empty() || !result.missing.empty()) {
    object["lookedAt"] = result.places;
    object["notThere"] = result.missing;
  }
  return jsonText(object);
}

int runCheck(const CheckOptions& options) {
  const std::string command = "ahs profile check";
  CheckResult result;
  for (const std::string& place : options.places) {
    if (!isThere(place)) {
      return Console::complainOfUsage(
          command, "there is no file or directory '" + Console::visible(place) + "'.");
    }
    checkPlace(place, options.trustProfiles, result);
  }
  if (options.places.empty()) {
    FileOptions selections;
    selections.trustProfiles = options.trustProfiles;
    FilePlan plan;
    std::vector<std::string> none;
    static_cast<void>(makeFilePlan(selections, defaultPaths(), plan, none));
    const LoadedFiles files(plan);
    if (!files.areThere()) {
      return ExitUsage;
    }
    checkSources(plan.sources, result);
    if (result.places.empty()) {
      return Console::complainOfUsage(
          command, "there is no profile directory: it was looked for in " + plan.profilePlaces +
                       "; nor are there preferences. Name a directory or files to check.");
    }
  }
  if (result.hostEntries > 0 && result.takingPart == 0) {
    Console::complain(
        "no host entry takes part in automatic selection: set EnableAutomaticServerSelection to "
        "true in its profile. 'ahs profile list' shows it for every entry.");
  }
  return Console::writeResult(options.json ? checkJson(result) : checkText(result),
                              result.problems.empty() ? ExitNoMistakes : ExitMistakes);
}

std::string listText(const std::vector<HostEntry>& entries) {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(entries.size());
  for (const HostEntry& entry : entries) {
    rows.push_back(
        {entry.name, entry.profile, entry.address, entry.takesPart ? "yes" : "no", entry.reason});
  }
  return tableText({"HOST ENTRY", "PROFILE", "ADDRESS", "TAKES PART", "BECAUSE"}, rows);
}

std::string listJson(const std::vector<HostEntry>& entries) {
  Json object = newJson();
  object["hosts"] = Json::array();
  for (const HostEntry& entry : entries) {
    object["hosts"].push_back({{"name", entry.name},
                               {"profile", entry.profile},
                               {"file", entry.file},
                               {"line", entry.line},
                               {"address", entry.address},
                               {"takesPart", entry.takesPart},
                               {"because", entry.reason}});
  }
  return jsonText(object);
}

int runList(const FileOptions& options) {
  const LoadedFiles files(options, "ahs profile list");
  if (!files.areThere()) {
    return ExitUsage;
  }
  const std::vector<HostEntry> entries = findHostEntries();
  if (entries.empty()) {
    Console::complain("there is no host entry in the profiles in " + files.profilePlaces() +
                      ". 'ahs profile check' looks for mistakes; the manual page "
                      "ahs-profile(5) and docs/profiles.md begin with an example.");
  }
  return Console::writeResult(options.json ? listJson(entries) : listText(entries), ExitNoMistakes);
}

void addCheck(CLI::App& profile, ChosenCommand& chosen) {
  CLI::App* command =
      profile.add_subcommand("check", "Print every mistake in profiles and preferences files");
  const auto options = std::make_shared<CheckOptions>();
  addOption(*command, "PLACE", "[DIR|FILE...]", options->places,
            "Profile directories, profiles, preferences files; unless given, all that a "
            "selection would read: the profile directory, the user's preferences and the "
            "global ones");
  command->add_flag("--trust-profiles", options->trustProfiles,
                    "Read files even if another user could have written them");
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer("Exit status: 0 no mistakes, 1 mistakes, 2 usage.");
  command->callback([&chosen, options] { chosen = [options] { return runCheck(*options); }; });
}

void addList(CLI::App& profile, ChosenCommand& chosen) {
  CLI::App* command = profile.add_subcommand(
      "list", "Print every host entry, and whether it takes part in automatic selection");
  const auto options = std::make_shared<FileOptions>();
  addOption(*command, "--profiles", "DIR", options->profiles, "Directory of the profiles (*.xml)");
  command->add_flag("--trust-profiles", options->trustProfiles,
                    "Read files even if another user could have written them");
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer("Exit status: 0 printed, 2 usage.");
  command->callback([&chosen, options] { chosen = [options] { return runList(*options); }; });
}

}  // namespace

void addProfileCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* command = tool.add_subcommand("profile", "Check and list profiles");
  command->require_subcommand(1);
  addCheck(*command, chosen);
  addList(*command, chosen);
}
