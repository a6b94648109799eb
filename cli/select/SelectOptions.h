#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/files/FileOptions.h"
#include "cli/login/ProxyOptions.h"
#include "vpn/Common/Logging/AppLog.h"

/// The options of `ahs select` as a person typed them; an optional without a value was not given.
struct SelectOptions : FileOptions {
  std::vector<std::string> hosts;
  std::optional<std::string> cacheDirectory;
  std::optional<std::string> last;
  std::optional<std::string> reason;
  std::optional<std::string> logLevel;
  std::optional<std::string> logFile;
  std::optional<std::string> html;
  std::optional<std::string> svg;
  bool noCache = false;
  bool quiet = false;
  bool explain = false;
  bool syslog = false;
  ProxyOptions proxy;
};

/// What a selection needs to know, checked and complete.
struct SelectPlan : FilePlan {
  CAppLog::Targets log;
  unsigned int reason = 0;
  std::string last;
  /// Its proxy stands in `sources` as well.
  ProxyPlan proxy;
};

/// Turns options into a plan. The files named are looked at, not read, except preferences files
/// that were named: those have to be well formed, because a person who names a file means it.
/// @param problems receives what is wrong in a preferences file, as "file:line: text".
/// @return an empty string, or what is wrong and what to do.
std::string makePlan(const SelectOptions& options, const DefaultPaths& paths, SelectPlan& plan,
                     std::vector<std::string>& problems);
