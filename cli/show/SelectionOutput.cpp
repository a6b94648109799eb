// Prints a result in three forms. The member "schema" is the version of the JSON form: members may
// be added under the same number, but none changes its meaning.

#include "cli/show/SelectionOutput.h"

#include <algorithm>

#include "cli/ExitStatus.h"
#include "cli/Table.h"
#include "cli/Wording.h"
#include "cli/show/Explanation.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionRules.h"

namespace {

Json headendAsJson(const HeadendResult& headend) {
  Json probes = Json::array();
  for (const HttpProbe::Report& probe : headend.probes) {
    probes.push_back(probeAsJson(probe));
  }
  return {{"headend", headend.headend},
          {"name", headend.name},
          {"metricMs", orNull(headend.metricMs)},
          {"samplesMs", headend.samplesMs},
          {"outcome", outcomeName(headend.outcome)},
          {"httpStatus", headend.httpStatus() == 0 ? Json(nullptr) : Json(headend.httpStatus())},
          {"probes", probes}};
}

Json sharedAsJson(const SelectionResult& result) {
  const SharedAddress shared = sharedAddressOf(result);
  return shared.names.empty() ? Json(nullptr)
                              : Json{{"address", shared.address}, {"names", shared.names}};
}

Json decisionAsJson(const SelectionResult& result) {
  const Decision decision = decisionOf(result);
  const auto nameOf = [](const HeadendResult* headend) {
    return headend == nullptr ? Json(nullptr) : Json(headend->headend);
  };
  Json early = Json::array();
  for (const EarlyAnswer& answer : decision.earlyAnswers) {
    early.push_back({{"headend", answer.headend},
                     {"networkRttMs", millisecondsAsJson(answer.networkUs)},
                     {"responseRttMs", millisecondsAsJson(answer.responseUs)}});
  }
  Json evidence = Json::array();
  for (const Evidence& each : decision.evidence) {
    evidence.push_back({{"headend", each.headend},
                        {"kind", doubtName(each.doubt)},
                        {"openingMs", millisecondsAsJson(each.openingUs)},
                        {"networkRttMs", millisecondsAsJson(each.networkUs)},
                        {"responseRttMs", millisecondsAsJson(each.responseUs)}});
  }
  Json decided;
  if (result.decided) {
    decided = {{"headend", result.decided->headend},
               {"metricMs", result.decided->metricMs},
               {"afterMs", result.decided->after.count()}};
  }
  return {{"words", decisionInWords(result)},
          {"best", nameOf(decision.best)},
          {"last", orNull(result.last)},
          {"ratio", orNull(decision.ratio)},
          {"threshold", orNull(decision.threshold)},
          {"retained", decision.isRetained},
          {"doubt", orNull(doubtName(result.doubt))},
          {"doubtWords", orNull(doubtInWords(result.doubt))},
          {"earlyAnswers", early},
          {"evidence", evidence},
          {"sharedAddress", sharedAsJson(result)},
          {"decided", decided}};
}

/// A metric with a tenth if only that tells it from another one: "20 ms", "20.4 ms".
std::string metricOf(const HeadendResult& headend, const SelectionResult& result) {
  const unsigned int metric = *headend.metricMs;
  const HttpProbe::Report* const probe = nearestProbe(headend);
  if (probe != nullptr &&
      std::ranges::count(result.results, headend.metricMs, &HeadendResult::metricMs) > 1) {
    for (const long long us : {probe->networkRttUs, probe->responseRttUs, probe->openingUs}) {
      if (us >= 0 && (us + 500) / 1000 == metric) {
        return Wording::fixed(static_cast<double>(us) / 1000, 1) + " ms";
      }
    }
  }
  return std::to_string(metric) + " ms";
}

std::string describe(const HeadendResult* headend, const SelectionResult& result) {
  if (headend == nullptr || !headend->metricMs) {
    return "kept, not measured" +
           (headend == nullptr ? "" : std::string(" (") + outcomeName(headend->outcome) + ")");
  }
  std::vector<std::string> notes;
  if (const std::string words = outcomeInWords(*headend);
      words != outcomeName(HeadendOutcome::Answered) &&
      headend->outcome != HeadendOutcome::FromCache) {
    notes.push_back(words);
  }
  if (const std::size_t lost = lostProbes(*headend); lost > 0) {
    notes.push_back(std::to_string(lost) + " of " + std::to_string(headend->probes.size()) +
                    " probes lost");
  }
  return metricOf(*headend, result) + (notes.empty() ? "" : " (" + Wording::joined(notes) + ")");
}

std::string start(const std::string& number, const std::string& headend) {
  // Columns stay aligned up to a thousand headends.
  constexpr std::size_t NumberWidth = 6;
  return std::string(NumberWidth - std::min(NumberWidth, number.size()), ' ') + number + headend;
}

/// The ordered list and the other headends as one table with a line between.
std::string listsOf(const SelectionResult& result) {
  const bool named = hasNames(result);
  const bool isLocated = std::ranges::any_of(
      result.results, [](const HeadendResult& headend) { return !addressOf(&headend).empty(); });
  std::vector<std::vector<std::string>> rows;
  const auto add = [&](const std::string& first, const HeadendResult* known,
                       const std::string& words) {
    rows.push_back({first});
    if (named) {
      rows.back().push_back(known == nullptr ? "" : nameBeside(known->headend, known->name));
    }
    if (isLocated) {
      rows.back().push_back(addressOf(known));
    }
    rows.back().push_back(words);
  };
  const std::vector<std::size_t> ranks = ranksOf(result);
  for (const std::string& headend : result.headends) {
    const HeadendResult* known = find(result, headend);
    add(start(std::to_string(ranks[rows.size()]) + ". ", headend), known, describe(known, result));
  }
  for (const HeadendResult& headend : result.results) {
    if (std::ranges::find(result.headends, headend.headend) == result.headends.end()) {
      add(start("", headend.headend), &headend, outcomeName(headend.outcome));
    }
  }
  std::string text =
      tableText(std::vector<std::string>(rows.empty() ? 1 : rows.front().size()), rows);
  std::size_t end = 1;  // after the empty heading
  for (std::size_t i = 0; i < result.headends.size(); ++i) {
    end = text.find('\n', end) + 1;
  }
  if (rows.size() > result.headends.size()) {
    text.insert(end, "Without a result:\n");
  }
  return (result.headends.empty() ? "Headends: none" : "Headends, in order of choice:") + text;
}

}  // namespace

Json millisecondsAsJson(long long microseconds) {
  constexpr double MicrosecondsPerMillisecond = 1000.0;
  return microseconds < 0 ? Json(nullptr)
                          : Json(static_cast<double>(microseconds) / MicrosecondsPerMillisecond);
}

Json probeAsJson(const HttpProbe::Report& probe) {
  return {{"status", statusAsHex(probe.status)},
          {"rttMs", SelectionRules::isSample(probe.status) ? Json(probe.rttMs) : Json(nullptr)},
          {"httpStatus", probe.httpStatus == 0 ? Json(nullptr) : Json(probe.httpStatus)},
          {"address", orNull(probe.address)},
          {"reused", probe.reused},
          {"connectMs", millisecondsAsJson(probe.connectUs)},
          {"tlsMs", millisecondsAsJson(probe.tlsUs)},
          {"totalMs", millisecondsAsJson(probe.totalUs)},
          {"openingMs", millisecondsAsJson(probe.openingUs)},
          {"networkRttMs", millisecondsAsJson(probe.networkRttUs)},
          {"responseRttMs", millisecondsAsJson(probe.responseRttUs)},
          {"evidence",
           probe.doubt == RoundTripDoubt::None ? Json(nullptr) : Json(doubtName(probe.doubt))}};
}

std::string textOutput(const SelectionResult& result, bool explains) {
  const std::string status = "Status: " + statusInWords(result) +
                             "\nCode:   " + statusAsHex(result.status) + " " +
                             statusCodeName(result.status) +
                             (exitStatusOf(result) == ExitSelected ? " (success)\n" : "\n");
  const std::string proxy = proxyInWords(result);
  const std::string shared = sharedInWords(result);
  const std::string loss = lossInWords(result);
  const Decision decision = decisionOf(result);
  const bool staysThoughFarther = decision.isRetained && decision.best != decision.last;
  return Wording::wrapped(staysThoughFarther && !explains ? decisionInWords(result) + "\n" : "") +
         listsOf(result) +
         Wording::wrapped(status + (proxy.empty() ? "" : "Test probe: " + proxy + "\n") +
                          (shared.empty() ? "" : "Note:   " + shared + "\n") +
                          (loss.empty() ? "" : "Note:   " + loss + "\n")) +
         (explains ? explanation(result) : "");
}

std::string jsonOutput(const SelectionResult& result) {
  Json object = newJson();
  object["ok"] = exitStatusOf(result) == ExitSelected;
  object["reason"] = result.reason;
  object["reasonName"] = reasonName(result.reason);
  object["status"] = statusAsHex(result.status);
  object["statusName"] = statusCodeName(result.status);
  object["headends"] = result.headends;
  object["extraInfo"] = result.extraInfo;
  object["fromCache"] = result.fromCache;
  object["cacheAgeSeconds"] = result.cacheAge ? Json(result.cacheAge->count()) : Json(nullptr);
  object["elapsedMs"] = result.elapsed.count();
  object["testProbe"] = result.testProbe ? probeAsJson(*result.testProbe) : Json(nullptr);
  if (result.testProbe) {
    object["testProbe"]["proxied"] = result.testProbe->proxied;
    object["testProbe"]["words"] = orNull(proxyInWords(result));
  }
  object["decision"] = decisionAsJson(result);
  object["results"] = Json::array();
  for (const HeadendResult& headend : result.results) {
    object["results"].push_back(headendAsJson(headend));
  }
  // A realm comes from the network and may not be UTF-8; the output always is.
  return jsonText(object);
}

std::string quietOutput(const SelectionResult& result) {
  return result.headends.empty() || result.doubt.isThere() ? "" : result.headends.front() + "\n";
}
