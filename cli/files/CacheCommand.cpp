// `ahs cache`: shows, clears and finds the selection cache. It works on the files alone, which
// selections may read and write meanwhile.

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Json.h"
#include "cli/Wording.h"
#include "cli/files/CacheReport.h"
#include "cli/files/FileOptions.h"
#include "cli/files/Paths.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/SelectionFiles.h"

namespace {

constexpr int ExitDone = ExitSelected;
// The cache cannot be shown or cleared; the command line was right.
constexpr int ExitUnusable = ExitNotMeasured;

struct CacheOptions {
  std::optional<std::string> cacheDirectory;
  FileOptions files;
  bool json = false;
};

// The path of the cache directory; empty after a complaint.
std::string findDirectory(const CacheOptions& options) {
  std::string directory = options.cacheDirectory.value_or(defaultPaths().cacheDirectory);
  if (directory.empty()) {
    Console::complain(
        options.cacheDirectory
            ? "--cache-dir needs the name of a directory."
            : "there is no place for a selection cache: neither HOME nor "
              "XDG_CACHE_HOME is set to an absolute path. Set one of them, or name a directory "
              "with --cache-dir.");
  }
  return directory;
}

// The clear-cache time in force, in days. Nothing after a complaint.
std::optional<unsigned int> findClearCache(const CacheOptions& options) {
  const LoadedFiles files(options.files, "ahs cache show");
  if (!files.areThere()) {
    return std::nullopt;
  }
  HS_SETTINGS settings{};
  CAHSSettings::GetSettings(settings);
  return settings.nClearCache;
}

int showCache(const CacheOptions& options) {
  const std::string directory = findDirectory(options);
  if (directory.empty()) {
    return ExitUsage;
  }
  const std::optional<unsigned int> clearCache = findClearCache(options);
  if (!clearCache) {
    return ExitUsage;
  }
  const CacheReport report = readCacheReport(directory, *clearCache);
  if (!report.problem.empty()) {
    Console::complain(
        "not all of the selection cache can be used: " + Console::visible(report.problem) +
        ". Selections work without it; 'ahs cache clear' removes what is wrong.");
  }
  return Console::writeResult(options.json ? cacheReportAsJson(report) : cacheReportAsText(report),
                              report.problem.empty() ? ExitDone : ExitUnusable);
}

int clearCache(const CacheOptions& options) {
  const std::string directory = findDirectory(options);
  if (directory.empty()) {
    return ExitUsage;
  }
  std::string problem;
  const std::size_t removed = SelectionFiles::clear(directory, problem);
  if (!problem.empty()) {
    Console::complain("the selection cache was not cleared: " + Console::visible(problem) +
                      ". Mend that, and try again.");
    return ExitUnusable;
  }
  const std::string shown = Console::visible(directory);
  return Console::writeResult(
      options.json   ? jsonText({{"schema", JsonSchema}, {"path", directory}, {"removed", removed}})
      : removed == 0 ? "There was nothing to remove: " + shown + "\n"
                     : "Removed " + Wording::counted(removed, "file") + ": " + shown + "\n",
      ExitDone);
}

int showPath(const CacheOptions& options) {
  const std::string directory = findDirectory(options);
  if (directory.empty()) {
    return ExitUsage;
  }
  return Console::writeResult(
      options.json ? jsonText({{"schema", JsonSchema}, {"path", directory}}) : directory + "\n",
      ExitDone);
}

using Action = int (*)(const CacheOptions& options);

CLI::App& addAction(CLI::App& command, const char* name, const char* description, Action action,
                    const std::shared_ptr<CacheOptions>& options, ChosenCommand& chosen) {
  CLI::App* const added = command.add_subcommand(name, description);
  added->add_option("--cache-dir", options->cacheDirectory, "Directory of the selection cache")
      ->option_text("DIR");
  added->add_flag("--json", options->json, "Print one JSON object");
  added->callback(
      [&chosen, options, action] { chosen = [options, action] { return action(*options); }; });
  return *added;
}

}  // namespace

void addCacheCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* const command =
      tool.add_subcommand("cache", "Show, clear or find the selections that are remembered");
  command->require_subcommand(1);
  const auto options = std::make_shared<CacheOptions>();
  CLI::App& show =
      addAction(*command, "show", "Show what is remembered, and what of it answers here and now",
                &showCache, options, chosen);
  addFileOptions(show, options->files);
  addAction(*command, "clear", "Forget all selections", &clearCache, options, chosen);
  addAction(*command, "path", "Print the path of the directory", &showPath, options, chosen);
  command->footer(
      "Examples:\n"
      "  ahs cache show\n"
      "  ahs cache show --json | jq '.selections[] | select(.answersNow)'\n"
      "  ahs cache clear\n"
      "Exit status: 0 done, 1 the cache cannot be used or cleared, 2 usage or configuration,\n"
      "128 + number of the signal that ended it.");
}
