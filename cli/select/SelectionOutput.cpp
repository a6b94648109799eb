// The three forms in which a result is printed. What is meant for programs is versioned by the
// member "schema": members may be added under the same number, none changes its meaning.

#include "cli/select/SelectionOutput.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <set>

#include "cli/Console.h"
#include "cli/Json.h"
#include "cli/Table.h"
#include "cli/select/Explanation.h"
#include "cli/select/ReportJson.h"
#include "cli/select/SelectOptions.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Logging/LegibleText.h"

namespace {

using json = Json;

bool isSelected(STATUSCODE status) {
  return status == HEADENDSELECTION_SUCCESS || status == HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
}

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

// A realm is told by whoever runs the proxy; more than this is no name.
constexpr std::size_t MostRealmBytes = 200;

std::string adviceForLogin(const SelectionResult& result) {
  const std::string realm =
      result.extraInfo.empty() ? "" : " for the realm '" + visibleRealm(result.extraInfo) + "'";
  if (result.hadLogin) {
    return "the proxy does not accept the user name and password" + realm +
           ", so no headend was measured. Check both, and whether the proxy is the right one; "
           "--proxy HOST:PORT names another one, --no-proxy none.";
  }
  return "a proxy asks for authentication" +
         (realm.empty() ? " and names no realm for the Basic scheme" : realm) +
         ", so no headend was measured. Give the user name with --proxy-user NAME and the password "
         "with --proxy-password-file FILE (which nobody else may read) or --proxy-password-fd N; "
         "or run the command on a terminal to be asked; or choose another proxy with --proxy "
         "HOST:PORT, or none with --no-proxy.";
}

/// Of a run that measured nothing, the status has been told already; of any other it says why.
std::string adviceForFailure(const SelectionResult& result) {
  const bool wasMeasuring = result.status == HEADENDSELECTION_ERROR_SELECTION_FAILURE;
  const std::string headend = result.results.empty() ? "HOST" : result.results.front().headend;
  return "no headend was selected by measurement." +
         (wasMeasuring ? "" : " " + statusInWords(result)) +
         " Check the network and the addresses; 'ahs probe " + headend +
         "' tells what is in the way there, and 'ahs select --log-level info' each step.";
}

}  // namespace

std::string statusAsHex(STATUSCODE status) {
  char text[32];
  snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(status));
  return text;
}

std::string statusInWords(const SelectionResult& result) {
  const std::string kept =
      result.headends.empty() ? "" : " The headend of the list is kept without a measurement.";
  switch (result.status) {
    case HEADENDSELECTION_SUCCESS:
      return "Selected from the cache; nothing was measured now.";
    case HEADENDSELECTION_ERROR_ADDED_TO_CACHE:
      return "Selected from measurements made now.";
    case HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED:
      return "Nothing was measured: a proxy asks for authentication.";
    case HEADENDSELECTION_ERROR_NO_HEADENDS:
      return "Nothing was measured: no host entry takes part in automatic selection.";
    case HEADENDSELECTION_ERROR_CACHE_FAILURE:
      return "Nothing was measured: there is no selection cache." + kept;
    case HEADENDSELECTION_ERROR_TIMEOUT:
      return "Nothing was measured within the time limit." + kept;
    case HEADENDSELECTION_ERROR_SELECTION_FAILURE:
      return "No headend could be measured." + kept;
    default:
      return "The selection failed." + kept;
  }
}

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

std::string libraryProblem(STATUSCODE status) {
  return "the client library could not be started: " + std::string(statusCodeName(status)) + " (" +
         statusAsHex(status) + "). The machine may be short of memory or threads.";
}

std::string visibleRealm(const std::string& realm) {
  return Console::visible(legible(realm, MostRealmBytes));
}

std::string adviceFor(const SelectionResult& result, const std::string& profilePlaces) {
  if (isSelected(result.status)) {
    return "";
  }
  switch (result.status) {
    case HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED:
      return adviceForLogin(result);
    case HEADENDSELECTION_ERROR_NO_HEADENDS:
      return "no host entry takes part in automatic selection. In the profiles in " +
             profilePlaces +
             ", set EnableAutomaticServerSelection to true in one that has host entries, or name "
             "hosts on the command line.";
    default:
      return adviceForFailure(result);
  }
}
