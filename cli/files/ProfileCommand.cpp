// `ahs profile check` and `ahs profile list`: what is wrong with the files, and what becomes of
// each host entry. Neither measures anything.

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Json.h"
#include "cli/Table.h"
#include "cli/files/FileOptions.h"
#include "cli/files/ProfileCheck.h"
#include "vpn/Api/AHS/Candidates.h"

namespace {

struct CheckOptions {
  std::vector<std::string> places;
  bool trustProfiles = false;
  bool json = false;
};

int showCheck(const CheckOptions& options, const CheckResult& result) {
  if (result.hostEntries > 0 && result.takingPart == 0) {
    Console::complain(
        "no host entry takes part in automatic selection: set EnableAutomaticServerSelection to "
        "true in its profile. 'ahs profile list' shows it of every entry.");
  }
  return Console::writeResult(options.json ? checkJson(result) : checkText(result),
                              result.problems.empty() ? ExitNoMistakes : ExitMistakes);
}

int checkWhatASelectionReads(const CheckOptions& options) {
  FileOptions files;
  files.trustProfiles = options.trustProfiles;
  FilePlan plan;
  std::vector<std::string> none;
  static_cast<void>(makeFilePlan(files, defaultPaths(), plan, none));
  const std::optional<CheckResult> result = checkSources(plan.sources);
  if (!result) {
    Console::complain("the files cannot be read: the machine is short of memory.");
    return ExitUsage;
  }
  if (result->places.empty()) {
    return Console::complainOfUsage(
        "ahs profile check",
        "there is no profile directory: it was looked for in " + plan.profilePlaces +
            "; nor are there preferences. Name a directory or files to check.");
  }
  return showCheck(options, *result);
}

int runCheck(const CheckOptions& options) {
  if (options.places.empty()) {
    return checkWhatASelectionReads(options);
  }
  for (const std::string& place : options.places) {
    if (!isThere(place)) {
      return Console::complainOfUsage(
          "ahs profile check", "there is no file or directory '" + Console::visible(place) + "'.");
    }
  }
  return showCheck(options,
                   checkFiles(options.places, options.trustProfiles ? FileTrust::Check::Waived
                                                                    : FileTrust::Check::Strict));
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
  command
      ->add_option("PLACE", options->places,
                   "Directories of profiles, and files of either kind; unless given, all that a "
                   "selection would read: the profile directory, the user's preferences and the "
                   "global ones")
      ->option_text("[DIR|FILE...]");
  command->add_flag("--trust-profiles", options->trustProfiles,
                    "Read files whoever could have written them");
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer("Exit status: 0 no mistakes, 1 mistakes, 2 usage.");
  command->callback([&chosen, options] { chosen = [options] { return runCheck(*options); }; });
}

void addList(CLI::App& profile, ChosenCommand& chosen) {
  CLI::App* command = profile.add_subcommand(
      "list", "Print every host entry, and whether it takes part in automatic selection");
  const auto options = std::make_shared<FileOptions>();
  command->add_option("--profiles", options->profiles, "Directory of the profiles (*.xml)")
      ->option_text("DIR");
  command->add_flag("--trust-profiles", options->trustProfiles,
                    "Read files whoever could have written them");
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
