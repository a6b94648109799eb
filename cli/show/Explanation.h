#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/show/SelectionResult.h"

/// A headend that answers much later than its network.
struct EarlyAnswer {
  std::string headend;
  long long networkUs = 0;   ///< smallest round trip on the connection
  long long responseUs = 0;  ///< smallest time from request to answer
};

/// A headend whose network's round trip did not count, by the first probe that found out.
struct Evidence {
  std::string headend;
  RoundTripDoubt doubt = RoundTripDoubt::None;
  long long openingUs = 0;  ///< time that the connection took to open
  long long networkUs = 0;
  long long responseUs = 0;
};

/// "box" or "early acknowledgement"; null for no doubt.
const char* doubtName(RoundTripDoubt doubt);

/// The reasons for a selection's result, in numbers.
struct Decision {
  /// The headend with the smallest metric, in the result; null if none has a metric.
  const HeadendResult* best = nullptr;
  /// The headend used last, in the result; null if it is not there.
  const HeadendResult* last = nullptr;
  /// The last headend's metric divided by the best, if the rule of retention applied.
  std::optional<float> ratio;
  /// The last headend stays if the ratio is below this.
  std::optional<float> threshold;
  /// The rule keeps the last headend first.
  bool isRetained = false;
  /// Headends for which something on the way probably accepts connections: the TCP round trip ends
  /// there, the answer comes from farther away.
  std::vector<EarlyAnswer> earlyAnswers;
  std::vector<Evidence> evidence;
};

/// Derives the decision from a result, which must outlive the return value.
Decision decisionOf(const SelectionResult& result);

/// The decision in a sentence: "Chose gw-b: 18 ms, the smallest of 3 metrics."
std::string decisionInWords(const SelectionResult& result);

/// The decision in detail, visible, each line with a line feed: best and last headend with metrics,
/// rule and ratio, origin of the metrics, headends without one and why, and oddities.
std::string reasonsInWords(const SelectionResult& result);

/// `decisionInWords` and `reasonsInWords`.
std::string explanation(const SelectionResult& result);
