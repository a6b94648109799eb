#pragma once

#include <string>
#include <vector>

#include "cli/exec/ChildProgram.h"
#include "cli/show/SelectionResult.h"

/// One of the delivered headends with what is known of it.
HeadendResult chosenHeadend(const std::string& headend, const SelectionResult& result);

/// What a program finds in its environment: AHS_HEADEND, AHS_HOST (an IPv6 address without
/// brackets), AHS_PORT, AHS_NAME, and AHS_METRIC_MS, which is empty without a metric.
ChildProgram::Variables variablesOf(const HeadendResult& chosen);

/// A command with each "{headend}", "{host}" and "{port}" in it replaced.
std::vector<std::string> commandFor(const std::vector<std::string>& command,
                                    const HeadendResult& chosen);
