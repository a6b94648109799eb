// `ahs cache`: shows, clears and finds the selection cache. It works on files that selections may
// read and write meanwhile. A file may hold anything: this reads it within the same bounds as a
// selection and prints only printable ASCII.

#include <stdio.h>

#include <algorithm>
#include <memory>
#include <sstream>

#include "cli/AddOption.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Json.h"
#include "cli/Wording.h"
#include "cli/files/FileOptions.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/AHS/SelectionFiles.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr int ExitDone = ExitSelected;
// The cache cannot be shown or cleared; the command line was right.
constexpr int ExitUnusable = ExitNotMeasured;

// Lines of a list, and characters of a text, to print: a file may hold a hundred thousand results
// of four thousand characters.
constexpr std::size_t MostLines = 10;
constexpr std::size_t MostCharacters = 200;

using Selection = SelectionFiles::Selection;

/// What decides whether a selection of the cache answers.
struct Here {
  std::optional<std::string> place;  ///< the present one, if it can be told
  unsigned long now = SelectionTimes::now();
  unsigned int clearCacheDays = 0;

  bool isPlaceOf(const Selection& selection) const { return place == selection.place; }
  bool isFuture(const Selection& selection) const { return selection.entry.GetTimestamp() > now; }
  bool isCurrent(const Selection& selection) const {
    return !SelectionTimes::isExpired(selection.entry, clearCacheDays);
  }
  bool isAnswered(const Selection& selection) const {
    return isPlaceOf(selection) && isCurrent(selection);
  }
  unsigned long expiryOf(const Selection& selection) const {
    const auto life = SelectionTimes::lifeOf(selection.entry, clearCacheDays);
    return selection.entry.GetTimestamp() + static_cast<unsigned long>(life.count());
  }
};

std::string shortened(const std::string& text) {
  return text.size() <= MostCharacters ? text : text.substr(0, MostCharacters) + "...";
}

// The candidates of a run's key: each ends with a semicolon; the first candidate stands last.
std::vector<std::string> candidatesOf(const std::string& knownHeadends) {
  std::vector<std::string> candidates;
  std::istringstream parts(knownHeadends);
  for (std::string part; std::getline(parts, part, ';');) {
    candidates.push_back(CStringUtils::printable(part));
  }
  std::reverse(candidates.begin(), candidates.end());
  return candidates;
}

/// The results, nearest first.
std::vector<CHeadendRTT> rankedOf(const Selection& selection) {
  std::vector<CHeadendRTT> headends;
  static_cast<void>(selection.entry.GetHeadendList(headends));
  std::stable_sort(headends.begin(), headends.end());
  return headends;
}

/// Storing a selection counts as its first use.
unsigned long lastUseOf(const Selection& selection) {
  return std::max(static_cast<unsigned long>(selection.used.time_since_epoch().count()),
                  selection.entry.GetTimestamp());
}

// The words of a kind in a place.
std::vector<std::string> partsOf(const std::string& place, const std::string& kind) {
  std::vector<std::string> values;
  std::istringstream words(place);
  for (std::string found, value; words >> found >> value;) {
    if (found == kind) {
      values.push_back(value);
    }
  }
  return values;
}

std::string timeText(unsigned long time) { return Wording::utc(static_cast<time_t>(time)); }

std::string moment(unsigned long time, unsigned long now) {
  return timeText(time) + (time > now ? " (in " + Wording::duration(time - now) + ")"
                                      : " (" + Wording::duration(now - time) + " ago)");
}

std::string placeInWords(const std::string& place) {
  std::string text;
  for (const auto& [kind, words] :
       {std::pair("router", "router "), std::pair("network", "network "),
        std::pair("nameserver", "name server "), std::pair("search", "search domain ")}) {
    for (const std::string& value : partsOf(place, kind)) {
      text += (text.empty() ? "" : ", ") + std::string(words) + value;
    }
  }
  return shortened(text.empty() ? place : text);
}

std::string worth(const Selection& selection, const Here& here) {
  if (here.isFuture(selection)) {
    return "stored in the future: it answers nothing until the clock is right";
  }
  if (!here.isCurrent(selection)) {
    return "out of date: it answers nothing any more";
  }
  return here.isPlaceOf(selection) ? "answers here and now, for these candidates"
                                   : "of another place";
}

std::string candidateList(const std::vector<std::string>& candidates) {
  std::string text;
  for (std::size_t i = 0; i < std::min(candidates.size(), MostLines); ++i) {
    text += (i == 0 ? "" : ", ") + shortened(candidates[i]);
  }
  return candidates.size() <= MostLines
             ? text
             : text + " and " + std::to_string(candidates.size() - MostLines) + " more";
}

std::string resultList(const std::vector<CHeadendRTT>& ranked) {
  std::string text;
  for (std::size_t i = 0; i < std::min(ranked.size(), MostLines); ++i) {
    char number[32];
    snprintf(number, sizeof number, "  %4zu. ", i + 1);
    text += number + shortened(CStringUtils::printable(ranked[i].GetHeadend())) + "  " +
            std::to_string(ranked[i].GetRTT()) + " ms\n";
  }
  if (ranked.size() > MostLines) {
    text +=
        "        and " + std::to_string(ranked.size() - MostLines) + " more; --json shows all\n";
  }
  return text;
}

std::string selectionAsText(const Selection& selection, const Here& here) {
  return std::string(here.isAnswered(selection) ? "* " : "  ") + worth(selection, here) +
         "\n    place:      " + placeInWords(CStringUtils::printable(selection.place)) +
         "\n    candidates: " + candidateList(candidatesOf(selection.entry.GetKnownHeadends())) +
         "\n    stored:     " + moment(selection.entry.GetTimestamp(), here.now) +
         "\n    last used:  " + moment(lastUseOf(selection), here.now) +
         "\n    expires:    " + moment(here.expiryOf(selection), here.now) + "\n" +
         resultList(rankedOf(selection));
}

std::string asText(const std::string& directory, const std::vector<Selection>& selections,
                   const Here& here) {
  std::string text = "Directory: " + Console::visible(directory) + "\nThis place: " +
                     (here.place ? placeInWords(*here.place)
                                 : "unknown: it takes a router whose link address is known") +
                     "\nSelections: " + std::to_string(selections.size()) + "\n";
  for (const Selection& selection : selections) {
    text += "\n" + selectionAsText(selection, here);
  }
  return text;
}

Json selectionAsJson(const Selection& selection, const Here& here) {
  const std::string place = CStringUtils::printable(selection.place);
  const unsigned long stored = selection.entry.GetTimestamp();
  Json results = Json::array();
  for (const CHeadendRTT& headend : rankedOf(selection)) {
    results.push_back({{"headend", CStringUtils::printable(headend.GetHeadend())},
                       {"metricMs", headend.GetRTT()}});
  }
  return {{"place", place},
          {"nameServers", partsOf(place, "nameserver")},
          {"searchDomains", partsOf(place, "search")},
          {"candidates", candidatesOf(selection.entry.GetKnownHeadends())},
          {"stored", timeText(stored)},
          {"ageSeconds", here.isFuture(selection) ? Json(nullptr) : Json(here.now - stored)},
          {"lastUsed", timeText(lastUseOf(selection))},
          {"expires", timeText(here.expiryOf(selection))},
          {"current", here.isCurrent(selection)},
          {"here", here.isPlaceOf(selection)},
          {"answersNow", here.isAnswered(selection)},
          {"results", results}};
}

std::string asJson(const std::string& directory, const std::string& problem,
                   const std::vector<Selection>& selections, const Here& here) {
  Json object = newJson();
  object["path"] = directory;
  object["problem"] = orNull(problem);
  object["place"] = orNull(here.place);
  object["clearCacheDays"] = here.clearCacheDays;
  object["selections"] = Json::array();
  for (const Selection& selection : selections) {
    object["selections"].push_back(selectionAsJson(selection, here));
  }
  return jsonText(object);
}

struct CacheOptions {
  std::optional<std::string> cacheDirectory;
  FileOptions files;
  bool json = false;
};

// The path of the cache directory; empty, after a message, if there is none.
std::string findDirectory(const CacheOptions& options) {
  std::string directory = options.cacheDirectory.value_or(defaultPaths().cacheDirectory);
  if (directory.empty()) {
    Console::complain(
        "there is no place for a selection cache: neither HOME nor XDG_CACHE_HOME is set to an "
        "absolute path, HOME to one of a directory that is there. Set one of them, or name a "
        "directory with --cache-dir.");
  }
  return directory;
}

int showCache(const CacheOptions& options) {
  const std::string directory = findDirectory(options);
  const LoadedFiles files(options.files, "ahs cache show");
  if (directory.empty() || !files.areThere()) {
    return ExitUsage;
  }
  HS_SETTINGS settings{};
  CAHSSettings::GetSettings(settings);
  Here here;
  here.clearCacheDays = settings.nClearCache;
  std::vector<std::string> place;
  if (CSelectionCache::findPlace(place)) {
    here.place = SelectionFiles::placeText(place);
  }
  std::string problem;
  std::vector<Selection> selections = SelectionFiles::list(directory, problem);
  std::stable_partition(selections.begin(), selections.end(),
                        [&here](const Selection& selection) { return here.isPlaceOf(selection); });
  if (!problem.empty()) {
    Console::complain("not all of the selection cache can be used: " + Console::visible(problem) +
                      ". Selections work without it; 'ahs cache clear' removes what is wrong.");
  }
  return Console::writeResult(options.json ? asJson(directory, problem, selections, here)
                                           : asText(directory, selections, here),
                              problem.empty() ? ExitDone : ExitUnusable);
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
  addOption(*added, "--cache-dir", "DIR", options->cacheDirectory,
            "Directory of the selection cache");
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
