#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/files/Paths.h"
#include "cli/select/ProxyOptions.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Logging/AppLog.h"

/// The options of `ahs select` as a person typed them; an optional without a value was not given.
struct SelectOptions {
  std::vector<std::string> hosts;
  std::optional<std::string> profiles;
  std::optional<std::string> preferences;
  std::optional<std::string> globalPreferences;
  std::optional<std::string> cacheDirectory;
  std::optional<std::string> last;
  std::optional<std::string> reason;
  std::optional<std::string> logLevel;
  std::optional<std::string> logFile;
  std::optional<std::string> html;
  std::optional<std::string> svg;
  bool trustProfiles = false;
  bool noCache = false;
  bool json = false;
  bool quiet = false;
  bool explain = false;
  bool syslog = false;
  ProxyOptions proxy;
};

/// What a selection needs to know, checked and complete.
struct SelectPlan {
  PreferenceMgr::Sources sources;
  CAppLog::Targets log;
  unsigned int reason = 0;
  std::string last;
  /// Where profiles are looked for, for messages: one directory, or the user's and the system's.
  std::string profilePlaces;
  /// Its proxy stands in `sources` as well.
  ProxyPlan proxy;
};

/// What only concerns the files of a person: the options `profiles`, `preferences`,
/// `globalPreferences` and `trustProfiles`. Other options are not looked at. The result is as with
/// `makePlan`.
std::string makeFilePlan(const SelectOptions& options, const DefaultPaths& paths, SelectPlan& plan,
                         std::vector<std::string>& problems);

/// Turns options into a plan. The files named are looked at, not read, except preferences files
/// that were named: those have to be well formed, because a person who names a file means it.
/// @param problems receives what is wrong in a preferences file, as "file:line: text".
/// @return an empty string, or what is wrong and what to do.
std::string makePlan(const SelectOptions& options, const DefaultPaths& paths, SelectPlan& plan,
                     std::vector<std::string>& problems);

using SelectionRules::ReasonProxyAuthentication;
using SelectionRules::ReasonReconnection;

/// The reason code of a name ("reconnection") or of a digit from 0 to 5.
std::optional<unsigned int> parseReason(const std::string& text);

/// The name of a reason code, as `parseReason` takes it; "unknown" for any other number.
std::string reasonName(unsigned int reason);

/// All names of reasons, for help and messages.
std::string reasonNames();
