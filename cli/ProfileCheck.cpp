// Reads files as a selection would and keeps nothing but what is wrong with them.

#include "cli/ProfileCheck.h"

#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "cli/Console.h"
#include "vpn/Api/ProfileMgr.h"

namespace {

using json = nlohmann::ordered_json;

constexpr int JsonSchema = 1;
constexpr int JsonIndent = 2;

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void checkDirectory(const std::string& path, FileTrust::Check check, CheckResult& result) {
  ProfileMgr profiles;
  if (check == FileTrust::Check::Waived) {
    profiles.trustFiles();
  }
  profiles.loadDirectory(path);
  result.files += profiles.getFileCount();
  result.hostEntries += profiles.getHostProfileMap().size();
  const std::vector<FileProblem>& problems = profiles.getProblems();
  result.problems.insert(result.problems.end(), problems.begin(), problems.end());
}

std::string counted(std::size_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

CheckResult checkFiles(const std::vector<std::string>& places, FileTrust::Check check) {
  CheckResult result;
  for (const std::string& place : places) {
    if (isDirectory(place)) {
      checkDirectory(place, check, result);
      continue;
    }
    ProfileFile contents;
    static_cast<void>(readConfigurationFile(place, contents, result.problems, check));
    ++result.files;
    result.hostEntries += contents.hosts.size();
  }
  return result;
}

std::string checkText(const CheckResult& result) {
  std::string text;
  for (const FileProblem& problem : result.problems) {
    text += Console::visible(problem.toString()) + "\n";
  }
  const std::string mistakes = result.problems.empty()
                                   ? "no mistakes"
                                   : counted(result.problems.size(), "mistake", "mistakes");
  return text + counted(result.files, "file", "files") + ", " +
         counted(result.hostEntries, "host entry", "host entries") + ", " + mistakes + "\n";
}

std::string checkJson(const CheckResult& result) {
  json object;
  object["schema"] = JsonSchema;
  object["files"] = result.files;
  object["hostEntries"] = result.hostEntries;
  object["problems"] = json::array();
  for (const FileProblem& problem : result.problems) {
    const bool hasPlace = problem.line != 0;
    object["problems"].push_back({{"file", problem.file},
                                  {"line", hasPlace ? json(problem.line) : json(nullptr)},
                                  {"column", hasPlace ? json(problem.column) : json(nullptr)},
                                  {"text", problem.text}});
  }
  return object.dump(JsonIndent, ' ', false, json::error_handler_t::replace) + "\n";
}
