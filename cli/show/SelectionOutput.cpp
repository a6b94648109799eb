// The three forms in which a result is printed. What is meant for programs is versioned by the
// member "schema": members may be added under the same number, none changes its meaning.

#include "cli/show/SelectionOutput.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <set>

#include "cli/Console.h"
#include "cli/Json.h"
#include "cli/Table.h"
#include "cli/show/Explanation.h"
#include "cli/show/Reasons.h"
#include "cli/show/ReportJson.h"
#include "cli/show/StatusWords.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace {

using json = Json;

json headendAsJson(const HeadendResult& headend) {
  json probes = json::array();
  for (const HttpProbe::Report& probe : headend.probes) {
    probes.push_back(probeAsJson(probe));
  }
  return {{"headend", headend.headend},
          {"name", headend.name},
          {"metricMs", headend.metricMs ? json(*headend.metricMs) : json(nullptr)},
          {"samplesMs", headend.samplesMs},
          {"outcome", outcomeName(headend.outcome)},
          {"probes", probes}};
}

json decisionAsJson(const SelectionResult& result) {
  const Decision decision = decisionOf(result);
  const auto nameOf = [](const HeadendResult* headend) {
    return headend == nullptr ? json(nullptr) : json(headend->headend);
  };
  json early = json::array();
  for (const EarlyAnswer& answer : decision.earlyAnswers) {
    early.push_back({{"headend", answer.headend},
                     {"networkRttMs", millisecondsAsJson(answer.networkUs)},
                     {"responseRttMs", millisecondsAsJson(answer.responseUs)}});
  }
  return {{"words", decisionInWords(result)},
          {"best", nameOf(decision.best)},
          {"last", result.last.empty() ? json(nullptr) : json(result.last)},
          {"ratio", decision.ratio ? json(*decision.ratio) : json(nullptr)},
          {"threshold", decision.threshold ? json(*decision.threshold) : json(nullptr)},
          {"retained", decision.isRetained},
          {"earlyAnswers", early}};
}

std::string padded(const std::string& text, std::size_t width) {
  const std::size_t own = widthOf(text);
  return text + std::string(width > own ? width - own : 0, ' ');
}

std::string describe(const HeadendResult* headend) {
  if (headend == nullptr || !headend->metricMs) {
    return "kept, not measured" +
           (headend == nullptr ? "" : std::string(" (") + outcomeName(headend->outcome) + ")");
  }
  const std::string metric = std::to_string(*headend->metricMs) + " ms";
  return headend->outcome == HeadendOutcome::Answered ||
                 headend->outcome == HeadendOutcome::FromCache
             ? metric
             : metric + std::string(" (") + outcomeName(headend->outcome) + ")";
}

// Width of the number in front of a headend: a list of a thousand still stands in columns.
constexpr int NumberWidth = 4;

/// The widths of the columns in front of the metrics.
struct Columns {
  std::size_t headend = 0;
  std::size_t name = 0;  // 0: no headend has a name beside its address
};

std::string visibleName(const HeadendResult& headend) {
  return Console::visible(nameBeside(headend.headend, headend.name));
}

Columns columnsOf(const SelectionResult& result) {
  Columns columns;
  for (const HeadendResult& headend : result.results) {
    columns.headend = std::max(columns.headend, widthOf(Console::visible(headend.headend)));
    columns.name = std::max(columns.name, widthOf(visibleName(headend)));
  }
  return columns;
}

std::string start(const std::string& headend, const HeadendResult* known, const Columns& columns) {
  constexpr const char* Gap = "  ";
  const std::string address = padded(Console::visible(headend), columns.headend) + Gap;
  return columns.name == 0
             ? address
             : address + padded(known == nullptr ? "" : visibleName(*known), columns.name) + Gap;
}

std::string numberedList(const SelectionResult& result, const Columns& columns) {
  if (result.headends.empty()) {
    return "Headends: none\n";
  }
  std::map<std::string, const HeadendResult*> known;
  for (const HeadendResult& headend : result.results) {
    known.emplace(headend.headend, &headend);
  }
  std::string text = "Headends, in order of choice:\n";
  for (std::size_t i = 0; i < result.headends.size(); ++i) {
    char number[32];
    snprintf(number, sizeof number, "%*zu. ", NumberWidth, i + 1);
    const HeadendResult* headend = known[result.headends[i]];
    text += number + start(result.headends[i], headend, columns) + describe(headend) + "\n";
  }
  return text;
}

std::string missingList(const SelectionResult& result, const Columns& columns) {
  const std::set<std::string> delivered(result.headends.begin(), result.headends.end());
  std::string text;
  for (const HeadendResult& headend : result.results) {
    if (delivered.count(headend.headend) == 0) {
      text += std::string(NumberWidth + 2, ' ') + start(headend.headend, &headend, columns) +
              outcomeName(headend.outcome) + "\n";
    }
  }
  return text.empty() ? "" : "Without a result:\n" + text;
}

}  // namespace

std::string textOutput(const SelectionResult& result) {
  const Columns columns = columnsOf(result);
  std::string text = result.report;
  text += text.empty() ? "" : "\n";
  text += numberedList(result, columns) + missingList(result, columns);
  text += "Status: " + statusInWords(result) + " (" + statusAsHex(result.status) + " " +
          statusCodeName(result.status) + ")\n";
  return text;
}

std::string jsonOutput(const SelectionResult& result) {
  json object;
  object["schema"] = JsonSchema;
  object["reason"] = result.reason;
  object["reasonName"] = reasonName(result.reason);
  object["status"] = statusAsHex(result.status);
  object["statusName"] = statusCodeName(result.status);
  object["headends"] = result.headends;
  object["extraInfo"] = result.extraInfo;
  object["fromCache"] = result.fromCache;
  object["cacheAgeSeconds"] = result.cacheAge ? json(result.cacheAge->count()) : json(nullptr);
  object["elapsedMs"] = result.elapsed.count();
  object["decision"] = decisionAsJson(result);
  object["results"] = json::array();
  for (const HeadendResult& headend : result.results) {
    object["results"].push_back(headendAsJson(headend));
  }
  // A realm comes from the network and need not be UTF-8; the output always is.
  return jsonText(object);
}

std::string quietOutput(const SelectionResult& result) {
  return result.headends.empty() ? "" : result.headends.front() + "\n";
}
