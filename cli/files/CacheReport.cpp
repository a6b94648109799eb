// The selection cache for people and programs. A file may be anybody's text: it is read as the
// selections read it, within the same bounds, and nothing of it is printed but printable ASCII.

#include "cli/files/CacheReport.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <sstream>

#include "cli/Console.h"
#include "cli/Json.h"
#include "cli/Wording.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Api/AHS/SelectionFiles.h"
#include "vpn/include/StringUtils.h"

namespace {

using json = Json;

constexpr unsigned long SecondsPerDay = 86400;
// Lines of a list, and characters of a text, that a person is shown: a file may hold a hundred
// thousand results of four thousand characters.
constexpr std::size_t MostLines = 10;
constexpr std::size_t MostCharacters = 200;

std::string shortened(const std::string& text) {
  return text.size() <= MostCharacters ? text : text.substr(0, MostCharacters) + "...";
}

// The candidate set as the run has built it: each ends with a semicolon, the first one comes last.
std::vector<std::string> candidatesOf(const std::string& knownHeadends) {
  std::vector<std::string> candidates;
  std::istringstream parts(knownHeadends);
  for (std::string part; std::getline(parts, part, ';');) {
    candidates.push_back(CStringUtils::printable(part));
  }
  std::reverse(candidates.begin(), candidates.end());
  return candidates;
}

// The values of one kind in a place: name servers or search domains.
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

CachedSelection describe(const SelectionFiles::Selection& stored, const CacheReport& report) {
  const CCacheEntry& entry = stored.entry;
  CachedSelection selection;
  selection.place = CStringUtils::printable(stored.place);
  selection.candidates = candidatesOf(entry.GetKnownHeadends());
  selection.stored = entry.GetTimestamp();
  const auto used = static_cast<unsigned long>(stored.used.time_since_epoch().count());
  selection.used = std::max(used, selection.stored);
  selection.expires = selection.stored + report.clearCacheDays * SecondsPerDay;
  selection.isFuture = selection.stored > report.now;
  selection.isCurrent = !SelectionTimes::isExpired(entry, report.clearCacheDays);
  selection.isHere = report.place && *report.place == stored.place;
  std::vector<CHeadendRTT> headends;
  static_cast<void>(entry.GetHeadendList(headends));
  for (const CHeadendRTT& headend : headends) {
    selection.ranked.emplace_back(CStringUtils::printable(headend.GetHeadend()), headend.GetRTT());
  }
  std::stable_sort(selection.ranked.begin(), selection.ranked.end());
  return selection;
}

std::string timeText(unsigned long time) {
  const auto seconds = static_cast<time_t>(time);
  struct tm parts {};
  return gmtime_r(&seconds, &parts) == nullptr ? std::to_string(time) + " s" : Wording::utc(parts);
}

std::string moment(unsigned long time, unsigned long now) {
  return timeText(time) + (time > now ? " (in " + Wording::duration(time - now) + ")"
                                      : " (" + Wording::duration(now - time) + " ago)");
}

std::string placeInWords(const std::string& place) {
  std::string text;
  for (const auto& [kind, words] :
       {std::pair("nameserver", "name server "), std::pair("search", "search domain ")}) {
    for (const std::string& value : partsOf(place, kind)) {
      text += (text.empty() ? "" : ", ") + std::string(words) + value;
    }
  }
  return !text.empty() ? shortened(text) : place.empty() ? "no name servers" : shortened(place);
}

std::string worth(const CachedSelection& selection) {
  if (selection.isFuture) {
    return "stored in the future: it answers nothing until the clock is right";
  }
  if (!selection.isCurrent) {
    return "out of date: it answers nothing any more";
  }
  return selection.isHere ? "answers here and now, for these candidates" : "of another place";
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
    text += number + shortened(ranked[i].GetHeadend()) + "  " + std::to_string(ranked[i].GetRTT()) +
            " ms\n";
  }
  if (ranked.size() > MostLines) {
    text +=
        "        and " + std::to_string(ranked.size() - MostLines) + " more; --json shows all\n";
  }
  return text;
}

std::string selectionAsText(const CachedSelection& selection, const CacheReport& report) {
  return std::string(selection.isHere && selection.isCurrent ? "* " : "  ") + worth(selection) +
         "\n    place:      " + placeInWords(selection.place) +
         "\n    candidates: " + candidateList(selection.candidates) +
         "\n    stored:     " + moment(selection.stored, report.now) +
         "\n    last used:  " + moment(selection.used, report.now) +
         "\n    expires:    " + moment(selection.expires, report.now) + "\n" +
         resultList(selection.ranked);
}

json selectionAsJson(const CachedSelection& selection, const CacheReport& report) {
  json results = json::array();
  for (const CHeadendRTT& headend : selection.ranked) {
    results.push_back({{"headend", headend.GetHeadend()}, {"metricMs", headend.GetRTT()}});
  }
  return {{"place", selection.place},
          {"nameServers", partsOf(selection.place, "nameserver")},
          {"searchDomains", partsOf(selection.place, "search")},
          {"candidates", selection.candidates},
          {"stored", timeText(selection.stored)},
          {"ageSeconds", selection.isFuture ? json(nullptr) : json(report.now - selection.stored)},
          {"lastUsed", timeText(selection.used)},
          {"expires", timeText(selection.expires)},
          {"current", selection.isCurrent},
          {"here", selection.isHere},
          {"answersNow", selection.isHere && selection.isCurrent},
          {"results", results}};
}

}  // namespace

CacheReport readCacheReport(const std::string& directory, unsigned int clearCacheDays) {
  CacheReport report;
  report.path = directory;
  report.now = SelectionTimes::now();
  report.clearCacheDays = clearCacheDays;
  std::vector<std::string> place;
  if (readResolverPlace(place)) {
    report.place = SelectionFiles::placeText(place);
  }
  for (const SelectionFiles::Selection& selection :
       SelectionFiles::list(directory, report.problem)) {
    report.selections.push_back(describe(selection, report));
  }
  std::stable_sort(
      report.selections.begin(), report.selections.end(),
      [](const CachedSelection& a, const CachedSelection& b) { return a.isHere && !b.isHere; });
  return report;
}

std::string cacheReportAsText(const CacheReport& report) {
  std::string text = "Directory: " + Console::visible(report.path) + "\nThis place: " +
                     (report.place ? placeInWords(*report.place)
                                   : "unknown, the resolver's settings cannot be read") +
                     "\nSelections: " + std::to_string(report.selections.size()) + "\n";
  for (const CachedSelection& selection : report.selections) {
    text += "\n" + selectionAsText(selection, report);
  }
  return text;
}

std::string cacheReportAsJson(const CacheReport& report) {
  json selections = json::array();
  for (const CachedSelection& selection : report.selections) {
    selections.push_back(selectionAsJson(selection, report));
  }
  const json object = {{"schema", JsonSchema},
                       {"path", report.path},
                       {"problem", report.problem.empty() ? json(nullptr) : json(report.problem)},
                       {"place", report.place ? json(*report.place) : json(nullptr)},
                       {"clearCacheDays", report.clearCacheDays},
                       {"selections", selections}};
  // A path may be no UTF-8.
  return jsonText(object);
}
