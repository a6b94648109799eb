// `ahs cache`: shows, clears and finds the selection cache. It works on the file alone, under the
// lock that selections take, so it may be used while they run.

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
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/AHS/StateFile.h"

namespace {

using json = Json;

constexpr int ExitDone = ExitSelected;
// The cache cannot be shown or cleared; the command line was right.
constexpr int ExitUnusable = ExitNotMeasured;
// Other processes hold the lock for as long as a disk takes to flush a file.
constexpr std::chrono::milliseconds LockPatience{3000};

struct CacheOptions {
  std::optional<std::string> cacheDirectory;
  SelectOptions files;
  bool json = false;
};

// The path of the cache file; empty after a complaint.
std::string findCacheFile(const CacheOptions& options) {
  const std::string directory = options.cacheDirectory.value_or(defaultPaths().cacheDirectory);
  if (!directory.empty()) {
    return directory + "/" + CacheFileName;
  }
  Console::complain(
      options.cacheDirectory
          ? "--cache-dir needs the name of a directory."
          : "there is no place for a selection cache: neither HOME nor "
            "XDG_CACHE_HOME is set to an absolute path. Set one of them, or name a directory with "
            "--cache-dir.");
  return "";
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
  const std::string path = findCacheFile(options);
  if (path.empty()) {
    return ExitUsage;
  }
  const std::optional<unsigned int> clearCache = findClearCache(options);
  if (!clearCache) {
    return ExitUsage;
  }
  const CacheReport report = readCacheReport(path, *clearCache);
  const bool isUsable = report.state != CacheReport::State::Unusable;
  if (!isUsable) {
    const bool isRemovable = CStateFile(path, CSelectionCache::MaxFileSize).isRemovable();
    Console::complain("the selection cache cannot be used: " + Console::visible(report.problem) +
                      ". Selections work without it" +
                      (isRemovable ? "; 'ahs cache clear' removes it." : "."));
  }
  return Console::writeResult(options.json ? cacheReportAsJson(report) : cacheReportAsText(report),
                              isUsable ? ExitDone : ExitUnusable);
}

int tellCleared(const CacheOptions& options, const std::string& path, bool wasThere,
                std::size_t selections) {
  if (options.json) {
    return Console::writeResult(jsonText({{"schema", JsonSchema},
                                          {"path", path},
                                          {"removed", wasThere},
                                          {"selections", selections}}),
                                ExitDone);
  }
  return Console::writeResult(wasThere
                                  ? "Removed " + Wording::counted(selections, "selection") + ": " +
                                        Console::visible(path) + "\n"
                                  : "There was nothing to remove: " + Console::visible(path) + "\n",
                              ExitDone);
}

int clearCache(const CacheOptions& options) {
  const std::string path = findCacheFile(options);
  if (path.empty()) {
    return ExitUsage;
  }
  CStateFile file(path, CSelectionCache::MaxFileSize);
  if (!file.isThere()) {
    return tellCleared(options, path, false, 0);
  }
  std::string problem;
  const CStateFile::Lock lock(file, LockPatience);
  if (lock.state() != CStateFile::Locking::Held) {
    problem = lock.problem();
  } else {
    constexpr unsigned int AnyAge = 1;
    const std::size_t selections = readCacheReport(path, AnyAge).selections.size();
    if (file.remove(lock, problem)) {
      return tellCleared(options, path, true, selections);
    }
  }
  Console::complain("the selection cache was not cleared: " + Console::visible(problem) +
                    (lock.state() == CStateFile::Locking::Busy ? ". Try again later."
                                                               : ". Mend that, and try again."));
  return ExitUnusable;
}

int showPath(const CacheOptions& options) {
  const std::string path = findCacheFile(options);
  if (path.empty()) {
    return ExitUsage;
  }
  return Console::writeResult(
      options.json
          ? jsonText({{"schema", JsonSchema},
                      {"path", path},
                      {"exists", CStateFile(path, CSelectionCache::MaxFileSize).isThere()}})
          : path + "\n",
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
  addAction(*command, "path", "Print the path of the file", &showPath, options, chosen);
  command->footer(
      "Examples:\n"
      "  ahs cache show\n"
      "  ahs cache show --json | jq '.selections[] | select(.answersNow)'\n"
      "  ahs cache clear\n"
      "Exit status: 0 done, 1 the cache cannot be used or cleared, 2 usage or configuration,\n"
      "128 + number of the signal that ended it.");
}
