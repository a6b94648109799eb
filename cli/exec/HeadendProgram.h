#pragma once

#include <string>
#include <vector>

#include "cli/exec/ChildProgram.h"
#include "cli/show/SelectionResult.h"

/// The result of a delivered headend.
HeadendResult chosenHeadend(const std::string& headend, const SelectionResult& result);

/// Environment variables for a program: AHS_HEADEND, AHS_HOST (IPv6 without brackets), AHS_PORT,
/// AHS_NAME, and AHS_METRIC_MS (empty without a metric).
ChildProgram::Variables variablesOf(const HeadendResult& chosen);

/// A command whose "{headend}", "{host}" and "{port}" are replaced.
std::vector<std::string> commandFor(const std::vector<std::string>& command,
                                    const HeadendResult& chosen);
