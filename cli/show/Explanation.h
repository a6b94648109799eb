#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/show/SelectionResult.h"

/// A headend whose network answers much sooner than it does itself.
struct EarlyAnswer {
  std::string headend;
  long long networkUs = 0;   ///< smallest round trip on the connection
  long long responseUs = 0;  ///< smallest time from request to answer
};

/// Why a selection came out as it did, in numbers.
struct Decision {
  /// The headend with the smallest metric; null when none has one. Points into the result.
  const HeadendResult* best = nullptr;
  /// The headend used last, if it is among the results. Points into the result.
  const HeadendResult* last = nullptr;
  /// The last headend's metric over the best one's, where the rule of retention was applied.
  std::optional<float> ratio;
  /// Where the ratio is below this the last headend stays.
  std::optional<float> threshold;
  /// The last headend stays first by the rule.
  bool isRetained = false;
  /// Where something on the way probably takes connections on the headends' behalf: the first
  /// round trip ends there, the answer comes from behind it.
  std::vector<EarlyAnswer> earlyAnswers;
};

/// Reads the decision off a result. `result` must outlive what is returned.
Decision decisionOf(const SelectionResult& result);

/// The decision in a sentence: "Chose gw-b: 18 ms, the smallest of 3 metrics."
std::string decisionInWords(const SelectionResult& result);

/// Everything about the decision for a person, visible, line by line, each with a line feed: best
/// and last with their metrics, rule and ratio, where the metrics come from, who gave none and why,
/// and what looks odd.
std::string reasonsInWords(const SelectionResult& result);

/// Both.
std::string explanation(const SelectionResult& result);
