// Explains a selection's decision in numbers. Measures and decides nothing: it reads the delivered
// results and asks the run's rules.

#include "cli/show/Explanation.h"

#include <algorithm>
#include <cmath>

#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Wording.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/Preference.h"

namespace {

// If a headend answers this much later than its network, something in between took the connection
// for it, or it is too slow for its distance to matter. `EarlyDifferenceUs` excludes short
// distances, where waking a process takes several round trips.
constexpr long long EarlyFactor = 3;
constexpr long long EarlyDifferenceUs = 30'000;

// Most headends without a result to list: a thousand would explain nothing.
constexpr std::size_t MostMissing = 10;

std::string name(const HeadendResult& headend) { return Console::visible(titleOf(headend)); }

std::string inMs(unsigned int metric) { return std::to_string(metric) + " ms"; }

/// The smallest time of one kind over a headend's probes; -1 if no probe has it.
long long smallest(const HeadendResult& headend, long long HttpProbe::Report::*time) {
  long long least = -1;
  for (const HttpProbe::Report& probe : headend.probes) {
    const long long value = probe.*time;
    if (value >= 0 && (least < 0 || value < least)) {
      least = value;
    }
  }
  return least;
}

std::vector<EarlyAnswer> findEarlyAnswers(const SelectionResult& result) {
  std::vector<EarlyAnswer> found;
  for (const HeadendResult& headend : result.results) {
    const long long network = smallest(headend, &HttpProbe::Report::networkRttUs);
    const long long response = smallest(headend, &HttpProbe::Report::responseRttUs);
    if (network >= 0 && response > network * EarlyFactor &&
        response - network > EarlyDifferenceUs) {
      found.push_back({headend.headend, network, response});
    }
  }
  return found;
}

std::vector<Evidence> findEvidence(const SelectionResult& result) {
  std::vector<Evidence> found;
  for (const HeadendResult& headend : result.results) {
    const auto probe = std::ranges::find_if(headend.probes, [](const HttpProbe::Report& report) {
      return report.doubt != RoundTripDoubt::None;
    });
    if (probe != headend.probes.end()) {
      found.push_back({headend.headend, probe->doubt, probe->openingUs, probe->networkRttUs,
                       probe->responseRttUs});
    }
  }
  return found;
}

std::size_t countMetrics(const SelectionResult& result) {
  return static_cast<std::size_t>(std::ranges::count_if(
      result.results, [](const HeadendResult& headend) { return headend.metricMs.has_value(); }));
}

/// How many others have the smallest metric too.
std::string othersAsNear(const SelectionResult& result, unsigned int best) {
  const auto all =
      std::ranges::count(result.results, std::optional(best), &HeadendResult::metricMs);
  return all < 2
             ? ""
             : "; " +
                   Wording::counted(static_cast<std::size_t>(all - 1), "other is", "others are") +
                   " as near";
}

std::string line(const std::string& label, const std::string& text) {
  constexpr std::size_t LabelWidth = 12;
  const std::string start = label.empty() ? " " : label + ":";
  return Wording::wrapped("  " + start +
                              std::string(LabelWidth - std::min(LabelWidth, start.size()), ' ') +
                              text + "\n",
                          label.empty() ? 0 : LabelWidth);
}

std::string describe(const HeadendResult& headend) {
  const std::string words = outcomeInWords(headend);
  const std::string samples =
      (headend.samplesMs.empty() ? "" : " (samples " + samplesText(headend.samplesMs, ", ") + ")") +
      (words == outcomeName(headend.outcome) ? "" : ", " + words);
  return name(headend) + "  " +
         (headend.metricMs ? inMs(*headend.metricMs) + samples
                           : std::string("no metric: ") + outcomeName(headend.outcome));
}

// A best metric of 0 gives no finite ratio; then the last headend never stays.
std::string ratioInWords(float ratio) {
  return std::isfinite(ratio) ? Wording::fixed(ratio, 3)
         : std::isnan(ratio)  ? "no number"
                              : "infinite";
}

std::string ruleLines(const SelectionResult& result, const Decision& decision) {
  if (result.reason != ReasonReconnection) {
    return line("rule", "the smallest metric wins; only a reconnection favours the last headend");
  }
  std::string text =
      line("rule", "on a reconnection the last headend stays if its metric is less than " +
                       Wording::fixed(1.0 + result.improvementPercent / 100.0, 2) +
                       " times the best one's " + "(SelectionImprovement " +
                       std::to_string(result.improvementPercent) + " %)");
  if (decision.ratio) {
    text += line("ratio", std::to_string(*decision.last->metricMs) + " / " +
                              std::to_string(*decision.best->metricMs) + " = " +
                              ratioInWords(*decision.ratio) +
                              (decision.isRetained ? ", less: it stays" : ", not less: it goes"));
  }
  return text;
}

std::string lastLine(const SelectionResult& result, const Decision& decision) {
  if (result.last.empty()) {
    return line("last", "none was named");
  }
  return line("last", decision.last != nullptr ? describe(*decision.last)
                                               : Console::visible(result.last) + "  no candidate");
}

std::string sourceLine(const SelectionResult& result) {
  if (!result.fromCache) {
    return line("source", "measured now, in " + std::to_string(result.elapsed.count()) + " ms, " +
                              (result.measure == PreferenceBase::RoundTripResponse
                                   ? "up to the headends' answers"
                               : result.measure == PreferenceBase::RoundTripNetwork
                                   ? "the network alone"
                                   : "the network, unless the evidence speaks against it"));
  }
  return line("source", "the cache; measured " + cacheAgeInWords(result) + ", used for " +
                            Wording::duration(static_cast<std::size_t>(result.cacheLife.count())) +
                            "; --fresh measures now");
}

/// The one that was decided on early, where it was another in the end.
std::string decidedLine(const SelectionResult& result) {
  if (!result.decided) {
    return "";
  }
  const bool isChosen =
      !result.headends.empty() && result.headends.front() == result.decided->headend;
  return line("decided", "after " + std::to_string(result.decided->after.count()) + " ms" +
                             (isChosen ? ""
                                       : ": " + Console::visible(result.decided->headend) +
                                             ", not the one of the end"));
}

std::string proxyLine(const SelectionResult& result) {
  const std::string words = proxyInWords(result);
  return words.empty() ? "" : line("proxy", words);
}

std::string missingLines(const SelectionResult& result) {
  std::vector<const HeadendResult*> missing;
  for (const HeadendResult& headend : result.results) {
    if (!headend.metricMs) {
      missing.push_back(&headend);
    }
  }
  std::string text;
  for (std::size_t i = 0; i < std::min(missing.size(), MostMissing); ++i) {
    text += line(i == 0 ? "no metric" : "",
                 name(*missing[i]) + "  " + outcomeName(missing[i]->outcome));
  }
  if (missing.size() > MostMissing) {
    text += line("", "and " + std::to_string(missing.size() - MostMissing) + " more");
  }
  return text;
}

std::string inMilliseconds(long long time) {
  return Wording::fixed(static_cast<double>(time) / 1000, 1) + " ms";
}

/// Each kind of evidence by its first headend.
std::string evidenceLines(const SelectionResult& result, const Decision& decision) {
  std::string text;
  for (const RoundTripDoubt doubt :
       {RoundTripDoubt::NearBox, RoundTripDoubt::EarlyAcknowledgement}) {
    const auto first = std::ranges::find(decision.evidence, doubt, &Evidence::doubt);
    if (first == decision.evidence.end()) {
      continue;
    }
    const bool isBox = doubt == RoundTripDoubt::NearBox;
    const auto count = std::ranges::count(decision.evidence, doubt, &Evidence::doubt);
    text +=
        line("evidence", name(*find(result, first->headend)) +
                             (isBox ? " opens in " + inMilliseconds(first->openingUs) +
                                          ", answers in " + inMilliseconds(first->responseUs)
                                    : " acknowledges in " + inMilliseconds(first->networkUs) +
                                          ", opens in " + inMilliseconds(first->openingUs)) +
                             (count > 1 ? "; so do " + std::to_string(count - 1) + " more" : ""));
    text += line("", isBox ? "something near takes connections for all headends: answers count"
                           : "data was acknowledged before it had come: opening counts");
  }
  return text;
}

std::string earlyLines(const SelectionResult& result, const Decision& decision) {
  if (decision.earlyAnswers.empty() || !decision.evidence.empty()) {
    return "";
  }
  const EarlyAnswer& first = decision.earlyAnswers.front();
  std::string text =
      line("odd", name(*find(result, first.headend)) + "'s network answers in " +
                      inMilliseconds(first.networkUs) + ", it itself in " +
                      inMilliseconds(first.responseUs) +
                      (decision.earlyAnswers.size() > 1
                           ? "; so do " + std::to_string(decision.earlyAnswers.size() - 1) + " more"
                           : ""));
  text += line("", "either it is slow, or something on the way takes connections on its behalf");
  if (result.measure != PreferenceBase::RoundTripResponse) {
    text += line("", "set the preference RoundTripTime to 'response' to rank by answers instead");
  }
  return text;
}

}  // namespace

const char* doubtName(RoundTripDoubt doubt) {
  return doubt == RoundTripDoubt::NearBox                ? "box"
         : doubt == RoundTripDoubt::EarlyAcknowledgement ? "early acknowledgement"
                                                         : nullptr;
}

Decision decisionOf(const SelectionResult& result) {
  Decision decision;
  for (const HeadendResult& headend : result.results) {
    const bool isBetter = headend.metricMs && (decision.best == nullptr ||
                                               *headend.metricMs < *decision.best->metricMs);
    if (isBetter) {
      decision.best = &headend;
    }
  }
  decision.last = result.last.empty() ? nullptr : find(result, result.last);
  decision.earlyAnswers = findEarlyAnswers(result);
  decision.evidence = findEvidence(result);
  const bool isRuleApplied = result.reason == ReasonReconnection && decision.best != nullptr &&
                             decision.last != nullptr && decision.last->metricMs.has_value();
  if (isRuleApplied) {
    const SelectionRules::Retention retention = SelectionRules::retentionOf(
        *decision.last->metricMs, *decision.best->metricMs, result.improvementPercent);
    decision.ratio = retention.ratio;
    decision.threshold = retention.threshold;
    decision.isRetained = retention.isRetained;
  }
  return decision;
}

std::string decisionInWords(const SelectionResult& result) {
  const Decision decision = decisionOf(result);
  if (decision.best == nullptr || exitStatusOf(result) != ExitSelected) {
    return statusInWords(result);
  }
  const std::string best = inMs(*decision.best->metricMs);
  if (decision.isRetained) {
    return "Stays with " + name(*decision.last) + ": " + inMs(*decision.last->metricMs) +
           ", less than " + Wording::fixed(*decision.threshold, 2) + " times the best metric, " +
           best + (decision.best == decision.last ? "" : " of " + name(*decision.best)) + ".";
  }
  const std::size_t count = countMetrics(result);
  return "Chose " + name(*decision.best) + ": " + best +
         (count == 1 ? ", the only metric."
                     : ", the smallest of " + std::to_string(count) + " metrics" +
                           othersAsNear(result, *decision.best->metricMs) + ".");
}

std::string reasonsInWords(const SelectionResult& result) {
  const Decision decision = decisionOf(result);
  const std::string doubt = doubtInWords(result.doubt);
  return (doubt.empty() ? "" : line("doubt", doubt)) +
         line("best", decision.best == nullptr ? "none has a metric" : describe(*decision.best)) +
         lastLine(result, decision) + ruleLines(result, decision) + sourceLine(result) +
         decidedLine(result) + proxyLine(result) + missingLines(result) +
         evidenceLines(result, decision) + earlyLines(result, decision);
}

std::string explanation(const SelectionResult& result) {
  return Wording::wrapped("Why: " + decisionInWords(result) + "\n") + reasonsInWords(result);
}
