#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

/// A headend of a result: with a metric it has answered, without one it timed out.
inline HeadendResult headend(const std::string& name, std::optional<unsigned int> metric,
                             const std::vector<unsigned int>& samples = {}) {
  HeadendResult result;
  result.headend = name;
  result.metricMs = metric;
  result.samplesMs = samples;
  result.outcome = metric ? HeadendOutcome::Answered : HeadendOutcome::TimedOut;
  return result;
}

/// A fresh selection that delivers the headends with a metric, in this order.
inline SelectionResult measured(const std::vector<HeadendResult>& results) {
  SelectionResult result;
  result.status = HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
  result.results = results;
  for (const HeadendResult& one : results) {
    if (one.metricMs) {
      result.headends.push_back(one.headend);
    }
  }
  result.improvementPercent = 20;
  return result;
}
