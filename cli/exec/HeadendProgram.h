#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/exec/ChildProgram.h"
#include "cli/show/SelectionResult.h"

/// A headend that a program is to be run for.
struct ChosenHeadend {
  std::string headend;                   ///< host, or host ":" port
  std::string name;                      ///< of its host entry
  std::optional<unsigned int> metricMs;  ///< none: it was not measured this time
};

/// One of the delivered headends with what is known of it.
ChosenHeadend chosenHeadend(const std::string& headend, const SelectionResult& result);

/// What a program finds in its environment: AHS_HEADEND, AHS_HOST (an IPv6 address without
/// brackets), AHS_PORT, AHS_NAME, and AHS_METRIC_MS, which is empty without a metric.
ChildProgram::Variables variablesOf(const ChosenHeadend& chosen);

/// A command with each "{headend}", "{host}" and "{port}" in it replaced.
std::vector<std::string> commandFor(const std::vector<std::string>& command,
                                    const ChosenHeadend& chosen);
