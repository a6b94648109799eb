// Reads files as a selection would and keeps nothing but what is wrong with them.

#include "cli/files/ProfileCheck.h"

#include <errno.h>
#include <sys/stat.h>

#include <algorithm>

#include "cli/Console.h"
#include "cli/Json.h"
#include "cli/Wording.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/ProfileMgr.h"

namespace {

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void add(const ProfileMgr& profiles, CheckResult& result) {
  result.hostEntries += profiles.getHostProfileMap().size();
  result.takingPart += findCandidates(profiles).size();
  const std::vector<FileProblem>& problems = profiles.getProblems();
  result.problems.insert(result.problems.end(), problems.begin(), problems.end());
}

void checkDirectory(const std::string& path, FileTrust::Check check, CheckResult& result) {
  ProfileMgr profiles;
  if (check == FileTrust::Check::Waived) {
    profiles.trustFiles();
  }
  profiles.loadDirectory(path);
  result.files += profiles.getFileCount();
  add(profiles, result);
}

/// What a manager has against the entries of one file is what it would have in a directory.
void checkFile(const std::string& path, FileTrust::Check check, CheckResult& result) {
  ProfileFile contents;
  readConfigurationFile(path, ConfigurationKind::Unknown, contents, result.problems, check);
  ++result.files;
  ProfileMgr profiles;
  profiles.addProfile(path, path, contents);
  add(profiles, result);
}

bool isListed(const FileProblem& problem) { return !problem.endsList; }

/// How many mistakes there are, as far as that is known.
std::string mistakesText(const std::vector<FileProblem>& problems) {
  const auto listed =
      static_cast<std::size_t>(std::count_if(problems.begin(), problems.end(), isListed));
  if (problems.empty()) {
    return "no mistakes";
  }
  return (listed < problems.size() ? "more than " : "") + Wording::counted(listed, "mistake");
}

}  // namespace

bool isThere(const std::string& place) {
  struct stat status {};
  return ::stat(place.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

CheckResult checkFiles(const std::vector<std::string>& places, FileTrust::Check check) {
  CheckResult result;
  for (const std::string& place : places) {
    if (isDirectory(place)) {
      checkDirectory(place, check, result);
      continue;
    }
    checkFile(place, check, result);
  }
  return result;
}

std::optional<CheckResult> checkSources(const PreferenceMgr::Sources& sources) {
  CheckResult result;
  for (const std::string& place :
       {sources.profileDirectory, sources.userPreferencesFile, sources.globalPreferencesFile}) {
    if (!place.empty()) {
      (isThere(place) ? result.places : result.missing).push_back(place);
    }
  }
  if (PreferenceMgr::createInstance(sources) != PREFERENCEMGR_SUCCESS) {
    return std::nullopt;
  }
  PreferenceMgr* const preferences = PreferenceMgr::acquireInstance();
  ProfileMgr* profiles = nullptr;
  if (preferences->getProfileMgr(profiles) == PREFERENCEMGR_SUCCESS) {
    result.files = profiles->getFileCount() + (isThere(sources.userPreferencesFile) ? 1 : 0) +
                   (isThere(sources.globalPreferencesFile) ? 1 : 0);
    result.hostEntries = profiles->getHostProfileMap().size();
    result.takingPart = findCandidates(*profiles).size();
  }
  result.problems = preferences->getProblems();
  // One acquisition is the creation's, the other this look-up's own.
  preferences->releaseInstance();
  preferences->releaseInstance();
  return result;
}

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
  return text + Wording::counted(result.files, "file") + ", " +
         Wording::counted(result.hostEntries, "host entry", "host entries") + ", " +
         mistakesText(result.problems) + "\n";
}

std::string checkJson(const CheckResult& result) {
  Json object = newJson();
  object["files"] = result.files;
  object["hostEntries"] = result.hostEntries;
  object["problemsAreComplete"] =
      std::all_of(result.problems.begin(), result.problems.end(), isListed);
  object["problems"] = Json::array();
  for (const FileProblem& problem : result.problems) {
    if (!isListed(problem)) {
      continue;
    }
    const bool hasPlace = problem.line != 0;
    object["problems"].push_back({{"file", problem.file},
                                  {"line", hasPlace ? Json(problem.line) : Json(nullptr)},
                                  {"column", hasPlace ? Json(problem.column) : Json(nullptr)},
                                  {"text", problem.text}});
  }
  if (!result.places.empty() || !result.missing.empty()) {
    object["lookedAt"] = result.places;
    object["notThere"] = result.missing;
  }
  return jsonText(object);
}
