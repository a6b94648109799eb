#pragma once

#include <optional>
#include <string>

#include "cli/login/Credentials.h"
#include "cli/select/SelectOptions.h"

namespace CLI {
class App;
}

/// Add to a command the options that its selections go by: hosts, files and the last headend; the
/// reason; the proxy; the cache; the log.
void addHostOptions(CLI::App& command, SelectOptions& options);
void addReasonOption(CLI::App& command, SelectOptions& options);
void addProxyOptions(CLI::App& command, ProxyOptions& options);
void addCacheOptions(CLI::App& command, SelectOptions& options);
void addLogOptions(CLI::App& command, SelectOptions& options);

/// Turns options into a plan and reads the password that they name. What is wrong is told on
/// standard error.
/// @param command as a person calls it, for messages: "ahs select".
/// @return whether the plan can be carried out.
bool takePlan(const SelectOptions& options, const std::string& command, SelectPlan& plan,
              std::optional<Secret>& password);
