// The three forms in which a result is printed. What is meant for programs is versioned by the
// member "schema": members may be added under the same number, none changes its meaning.

#include "cli/SelectionOutput.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "cli/Console.h"
#include "cli/Explanation.h"
#include "cli/SelectOptions.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Logging/LegibleText.h"

namespace {

using json = nlohmann::ordered_json;

constexpr int JsonSchema = 1;
constexpr int JsonIndent = 2;

bool isSelected(STATUSCODE status) {
  return status == HEADENDSELECTION_SUCCESS || status == HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
}

// Null tells an event that did not happen.
json milliseconds(long long microseconds) {
  constexpr double MicrosecondsPerMillisecond = 1000.0;
  return microseconds < 0 ? json(nullptr)
                          : json(static_cast<double>(microseconds) / MicrosecondsPerMillisecond);
}

json probeAsJson(const HttpProbe::Report& probe) {
  return {{"status", statusAsHex(probe.status)},
          {"rttMs", ProbeRecorder::isSample(probe.status) ? json(probe.rttMs) : json(nullptr)},
          {"httpStatus", probe.httpStatus == 0 ? json(nullptr) : json(probe.httpStatus)},
          {"address", probe.address.empty() ? json(nullptr) : json(probe.address)},
          {"reused", probe.reused},
          {"connectMs", milliseconds(probe.connectUs)},
          {"tlsMs", milliseconds(probe.tlsUs)},
          {"totalMs", milliseconds(probe.totalUs)},
          {"networkRttMs", milliseconds(probe.networkRttUs)},
          {"responseRttMs", milliseconds(probe.responseRttUs)}};
}

json headendAsJson(const HeadendResult& headend) {
  json probes = json::array();
  for (const HttpProbe::Report& probe : headend.probes) {
    probes.push_back(probeAsJson(probe));
  }
  return {{"headend", headend.headend},
          {"metricMs", headend.metricMs ? json(*headend.metricMs) : json(nullptr)},
          {"samplesMs", headend.samplesMs},
          {"outcome", headend.outcome},
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
                     {"networkRttMs", milliseconds(answer.networkUs)},
                     {"responseRttMs", milliseconds(answer.responseUs)}});
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
  return text + std::string(width > text.size() ? width - text.size() : 0, ' ');
}

std::string describe(const HeadendResult* headend) {
  if (headend == nullptr || !headend->metricMs) {
    return "kept, not measured" + (headend == nullptr ? "" : " (" + headend->outcome + ")");
  }
  const std::string metric = std::to_string(*headend->metricMs) + " ms";
  return headend->outcome == "answered" || headend->outcome == "from cache"
             ? metric
             : metric + " (" + headend->outcome + ")";
}

// Width of the number in front of a headend: a list of a thousand still stands in columns.
constexpr int NumberWidth = 4;

std::string numberedList(const SelectionResult& result, std::size_t width) {
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
    text += number + padded(Console::visible(result.headends[i]), width) + "  " +
            describe(known[result.headends[i]]) + "\n";
  }
  return text;
}

std::string missingList(const SelectionResult& result, std::size_t width) {
  const std::set<std::string> delivered(result.headends.begin(), result.headends.end());
  std::string text;
  for (const HeadendResult& headend : result.results) {
    if (delivered.count(headend.headend) == 0) {
      text += std::string(NumberWidth + 2, ' ') + padded(Console::visible(headend.headend), width) +
              "  " + headend.outcome + "\n";
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
  std::size_t width = 0;
  for (const HeadendResult& headend : result.results) {
    width = std::max(width, Console::visible(headend.headend).size());
  }
  std::string text = result.report;
  text += text.empty() ? "" : "\n";
  text += numberedList(result, width) + missingList(result, width);
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
  return object.dump(JsonIndent, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string quietOutput(const SelectionResult& result) {
  return result.headends.empty() ? "" : result.headends.front() + "\n";
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
      return "no headend was selected by measurement. " + statusInWords(result) +
             " Check the network and the addresses; 'ahs select --log-level info' tells each step.";
  }
}
